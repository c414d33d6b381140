// A manifest of 40,000 entries (and of 20,000, to see how the time grows). The library tells nobody when
// the last file is queued, so this measures a whole update in a process of its own (zrv_bench_fresh_install:
// start, manifest download and parse, and the check of every entry's file) of an install whose files are all
// tiny and up to date, so that nothing is fetched.

#include "Bench.h"
#include "Child.h"
#include "Ratios.h"
#include "Workloads.h"

#include <filesystem>

namespace fs = std::filesystem;

std::vector<Row> manifestRows(const Bench& bench) {
  step("making installs of 20,000 and 40,000 tiny up-to-date files and their manifests");
  const std::string smallOut = bench.at("manifest-20k"), largeOut = bench.at("manifest-40k");
  const std::string smallInstall = bench.at("install-20k"), largeInstall = bench.at("install-40k");
  runChild({bench.self, kMakeManifest, "20000", smallOut, smallInstall});
  runChild({bench.self, kMakeManifest, "40000", largeOut, largeInstall});
  Server small = serveTree(bench, smallOut);
  Server large = serveTree(bench, largeOut);
  step("update with 40,000 / 20,000 entries");
  std::vector<std::vector<ChildRun>> rounds;
  try {
    rounds = interleaved(bench.pairs, {{{}, [&] { return runChild({bench.freshInstall, large.base(), largeInstall}); }},
                                       {{}, [&] { return runChild({bench.freshInstall, small.base(), smallInstall}); }}});
  } catch (...) {
    stop(small);
    stop(large);
    throw;
  }
  stop(small);
  stop(large);
  for (const auto& folder : {smallOut, largeOut, smallInstall, largeInstall}) fs::remove_all(folder);

  std::vector<double> seconds, processorSeconds;
  for (const auto& round : rounds) {
    seconds.push_back(round[0].seconds);
    processorSeconds.push_back(round[0].processorSeconds);
  }
  auto growth = ratios(rounds, 0, 1);
  auto processorGrowth = ratios(rounds, 0, 1, true);  // what the machine's other work weighs on least
  const std::string pairs = std::to_string(bench.pairs);
  const std::string peak = peaks(peakMiB(rounds, 0), peakMiB(rounds, 1));
  return {{"manifest of 40,000 entries: a whole update, every file up to date (seconds, not a ratio)",
           "the goal's 0.3 s (answer to last file queued; not measurable separately)", pairs,
           fixed(minimum(seconds)) + " s", fixed(median(seconds)) + " s", "median ≤ 0.30 s",
           yesNo(median(seconds) <= 0.3), peak},
          {"the same, 40,000 entries against 20,000", "itself at 20,000 entries", pairs, fixed(minimum(growth)),
           fixed(median(growth)), "median ≤ 2.20 (linear)", yesNo(median(growth) <= 2.2), peak},
          {"the same in processor time (40,000 entries: " + fixed(median(processorSeconds)) + " s)",
           "itself at 20,000 entries", pairs, fixed(minimum(processorGrowth)), fixed(median(processorGrowth)),
           "median ≤ 2.20 (linear)", yesNo(median(processorGrowth) <= 2.2), peak}};
}
