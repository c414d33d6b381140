// Unpacking an archive of 1,000 files (made by Info-ZIP's zip) with `zrv unzip`, 7-Zip and Info-ZIP's unzip.

#include "Bench.h"
#include "Child.h"
#include "Ratios.h"
#include "Workloads.h"

#include <filesystem>

namespace fs = std::filesystem;

std::vector<Row> unzipRows(const Bench& bench) {
  step("making an archive of 1,000 files");
  const std::string tree = bench.at("unzip-tree"), archive = bench.at("unzip.zip"), out = bench.at("unzipped");
  runChild({bench.self, kMakeUnzipTree, tree + "/tree"});
  runShell("cd " + quoted(tree) + " && zip -qr " + quoted(archive) + " tree");
  const double archiveMiB = static_cast<double>(fs::file_size(archive)) / (1 << 20);

  step("unzip: zrv unzip / 7z x / unzip");
  auto clean = [&] { fs::remove_all(out); };
  auto rounds = interleaved(bench.pairs, {{clean, [&] { return runChild({bench.zrv, "unzip", archive, out}); }},
                                          {clean, [&] { return runChild({"7z", "x", "-y", "-bd", "-o" + out, archive}); }},
                                          {clean, [&] { return runChild({"unzip", "-q", "-o", archive, "-d", out}); }}});
  runChild({"diff", "-r", tree, out});
  clean();
  runChild({bench.zrv, "unzip", archive, out});
  runChild({"diff", "-r", tree, out});
  fs::remove_all(out);
  fs::remove_all(tree);
  fs::remove(archive);

  const std::string work = "unzip 1,000 files (" + fixed(archiveMiB, 1) + " MiB archive)";
  const std::string pairs = std::to_string(bench.pairs);
  auto sevenZip = ratios(rounds, 0, 1), infoZip = ratios(rounds, 0, 2);
  return {{work, "`7z x`", pairs, fixed(minimum(sevenZip)), fixed(median(sevenZip)), "median ≤ 1.00",
           yesNo(median(sevenZip) <= 1.0), peaks(peakMiB(rounds, 0), peakMiB(rounds, 1))},
          {work, "Info-ZIP `unzip`", pairs, fixed(minimum(infoZip)), fixed(median(infoZip)), "—", "—",
           peaks(peakMiB(rounds, 0), peakMiB(rounds, 2))}};
}
