// `zrv publish` of a build with a patch for each of its 200 files, on every core and on one.
//
// The wall-time ratio shows the cores only on a quiet machine: the kernel shares the processors fairly between
// sessions (autogroups), not threads, so while another session keeps a core busy both runs get about the same
// share and the ratio nears 1 whatever the thread count. The processor-time row and the cores the parallel run
// held (its processor time over its wall time) say whether its threads did more work than one thread, and how
// much of the machine it was given.

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
  auto processor = ratios(rounds, 0, 1, true);
  std::vector<double> coresHeld;
  for (const auto& round : rounds) coresHeld.push_back(round[0].processorSeconds / round[0].seconds);
  const std::string peak = peaks(peakMiB(rounds, 0), peakMiB(rounds, 1));
  return {{"`zrv publish` of 200 files with 200 patches (240 KiB each); cores held: " + fixed(median(coresHeld)) +
               " of " + std::to_string(bench.cores),
           "itself on one thread (`--jobs 1`)", std::to_string(pairs), fixed(minimum(ratio)), fixed(median(ratio)),
           "median ≤ 0.60", yesNo(median(ratio) <= 0.6), peak},
          {"the same, processor time", "itself on one thread (`--jobs 1`)", std::to_string(pairs),
           fixed(minimum(processor)), fixed(median(processor)), "median ≤ 1.10 (no work added)",
           yesNo(median(processor) <= 1.1), peak}};
}
