// `zrv publish` of a build with a patch for each of its 200 files, on every core and on one.

#include "Bench.h"
#include "Child.h"
#include "Ratios.h"

#include <filesystem>

namespace fs = std::filesystem;

std::vector<Row> publishRows(const Bench& bench) {
  const std::string builds = bench.at("publish-builds");
  step("making two builds of 200 files of 240 KiB");
  runChild({bench.makeBuilds, builds, "200", "245760"});
  const std::string parallel = bench.at("published-parallel"), serial = bench.at("published-serial");
  auto publish = [&](const std::string& out, std::vector<std::string> extra) {
    std::vector<std::string> argv = {bench.zrv, "publish", builds + "/v2", out, "--from", builds + "/v1", "--quiet"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return runChild(argv);
  };
  step("publish with patches: every core / --jobs 1");
  const int pairs = bench.pairs >= 5 ? 3 : 1;
  auto rounds = interleaved(pairs, {{[&] { fs::remove_all(parallel); }, [&] { return publish(parallel, {}); }},
                                    {[&] { fs::remove_all(serial); }, [&] { return publish(serial, {"--jobs", "1"}); }}});
  runChild({"diff", "-r", parallel, serial});  // the same tree, byte for byte
  fs::remove_all(parallel);
  fs::remove_all(serial);
  fs::remove_all(builds);
  auto ratio = ratios(rounds, 0, 1);
  return {{"`zrv publish` of 200 files with 200 patches (240 KiB each)", "itself on one thread (`--jobs 1`)",
           std::to_string(pairs), fixed(minimum(ratio)), fixed(median(ratio)), "median ≤ 0.60",
           yesNo(median(ratio) <= 0.6), peaks(peakMiB(rounds, 0), peakMiB(rounds, 1))}};
}
