// Fresh installs from a loopback mirror: the 300 MiB game beside a one-file-at-a-time shell pipeline and
// beside the library decoding the same files one after another; ten installs of a 48 MiB game, each in a
// process of its own, for their threads and memory; and the 48 MiB game through a throttled host.

#include "Bench.h"
#include "Child.h"
#include "Ratios.h"
#include "Workloads.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace {

void emptyInstall(const std::string& folder) {
  fs::remove_all(folder);
  fs::create_directories(fs::path(folder) / "Frameworks" / "Cg.framework");  // the framework step is not measured
}

// FILES × SIZE bytes in BUILDS/v1 and BUILDS/v2, v2 published whole into OUT; made once per run.
void makeGame(const Bench& bench, const std::string& name, int files, long size) {
  if (fs::exists(bench.at(name + "-out"))) return;
  step("making and publishing a game of " + std::to_string(files) + " files of " + std::to_string(size) + " bytes");
  runChild({bench.makeBuilds, bench.at(name + "-builds"), std::to_string(files), std::to_string(size)});
  runChild({bench.zrv, "publish", bench.at(name + "-builds") + "/v2", bench.at(name + "-out"), "--quiet"});
  runShell("cd " + quoted(bench.at(name + "-builds") + "/v2") + " && sha1sum -- * > " + quoted(bench.at(name + "-expected")));
}

void verify(const Bench& bench, const std::string& game, const std::string& folder) {
  runShell("cd " + quoted(folder) + " && sha1sum -c --quiet " + quoted(bench.at(game + "-expected")));
}

std::vector<Row> pipelineRows(const Bench& bench) {
  makeGame(bench, "game", 200, 1572864);
  Server server = serveTree(bench, bench.at("game-out"));
  const std::string zrvInstall = bench.at("install-zrv"), shellInstall = bench.at("install-shell"),
                    decoded = bench.at("decoded-each"), files = bench.at("game-out") + "/content/files";
  const std::string pipeline = "for name in $(cd " + quoted(bench.at("game-builds") + "/v2") + " && ls); do curl -sf " +
                               quoted(server.base() + "/content/files/") + "\"$name.bz2\" | bzip2 -d > " +
                               quoted(shellInstall) + "/\"$name\"; done";
  step("fresh install of 200 × 1.5 MiB: zrv update / shell pipeline / sequential decode");
  std::vector<std::vector<ChildRun>> rounds;
  whileServing(server, [&](const Server&) {
    rounds = interleaved(
        bench.pairs,
        {{[&] { emptyInstall(zrvInstall); },
          [&] { return runChild({bench.zrv, "--server", server.base(), "update", "--install", zrvInstall}); }},
         {[&] { emptyInstall(shellInstall); }, [&] { return runShell(pipeline); }},
         {[&] { fs::remove_all(decoded); }, [&] { return runChild({bench.self, kDecodeEach, files, decoded}); }}});
  });
  for (const auto& folder : {zrvInstall, shellInstall, decoded}) {
    verify(bench, "game", folder);
    fs::remove_all(folder);
  }
  const std::string pairs = std::to_string(bench.pairs);
  auto wall = ratios(rounds, 0, 1);
  auto processor = ratios(rounds, 0, 2, true);
  return {{"fresh install of 200 × 1.5 MiB (wall time)", "one file at a time: `curl | bzip2 -d > file`", pairs,
           fixed(minimum(wall)), fixed(median(wall)), "median ≤ 0.35", yesNo(median(wall) <= 0.35),
           peaks(peakMiB(rounds, 0), peakMiB(rounds, 1))},
          {"fresh install of 200 × 1.5 MiB (processor time)", "the library decoding the same files one after another",
           pairs, fixed(minimum(processor)), fixed(median(processor)), "median ≤ 1.10", yesNo(median(processor) <= 1.1),
           peaks(peakMiB(rounds, 0), peakMiB(rounds, 2))}};
}

std::vector<Row> tenInstallsRow(const Bench& bench) {
  makeGame(bench, "small", 200, 245760);
  Server server = serveTree(bench, bench.at("small-out"));
  const int runs = bench.pairs >= 5 ? 10 : 4;
  step(std::to_string(runs) + " fresh installs of 200 × 240 KiB, each in a process of its own");
  std::vector<long> threads, peaksKiB;
  const std::string install = bench.at("install-small"), report = bench.at("fresh-install.txt");
  whileServing(server, [&](const Server&) {
    for (int run = 0; run < runs; ++run) {
      emptyInstall(install);
      ChildRun measured = runChild({bench.freshInstall, server.base(), install}, report);
      std::ifstream lines(report);
      std::string key;
      long value = 0;
      while (lines >> key) {
        if (key == "threads-max" && lines >> value) threads.push_back(value);
      }
      peaksKiB.push_back(measured.peakKiB);
    }
  });
  verify(bench, "small", install);
  fs::remove_all(install);
  auto [leastThreads, mostThreads] = std::minmax_element(threads.begin(), threads.end());
  auto [leastPeak, mostPeak] = std::minmax_element(peaksKiB.begin(), peaksKiB.end());
  const long threadGoal = static_cast<long>(bench.cores) + 4;
  const double spread = static_cast<double>(*mostPeak) / static_cast<double>(*leastPeak);
  const bool met = *mostThreads <= threadGoal && *mostPeak <= 64 * 1024 && spread <= 1.25;
  return {{"fresh install of 200 × 240 KiB, " + std::to_string(runs) + " runs: work-queue threads, peak memory",
           "itself", std::to_string(runs) + " runs",
           "threads " + std::to_string(*leastThreads) + "–" + std::to_string(*mostThreads),
           "peak max/min " + fixed(spread),
           "threads ≤ cores + 4 = " + std::to_string(threadGoal) + "; peak ≤ 64 MiB, max/min ≤ 1.25", yesNo(met),
           fixed(static_cast<double>(*leastPeak) / 1024, 1) + "–" + fixed(static_cast<double>(*mostPeak) / 1024, 1) + " / —"}};
}

std::vector<Row> throttledRow(const Bench& bench) {
  makeGame(bench, "small", 200, 245760);
  const char* configured = std::getenv("ZRV_BENCH_RATE_MIB");
  const double rateMiB = configured ? std::atof(configured) : 8.0;
  const double rate = rateMiB * (1 << 20);
  const std::string install = bench.at("install-throttled"), count = bench.at("throttled-bytes.txt");
  step("fresh install of 200 × 240 KiB through a host throttled to " + fixed(rateMiB, 1) + " MiB/s");
  std::vector<double> ratio;
  long peak = 0;
  for (int run = 0; run < std::max(2, bench.pairs - 2); ++run) {
    emptyInstall(install);
    ChildRun measured;
    whileServing(serveThrottled(bench, bench.at("small-out"), rate, count), [&](const Server& server) {
      measured = runChild({bench.zrv, "--server", server.base(), "update", "--install", install});
    });
    double bytes = 0;
    std::ifstream(count) >> bytes;
    ratio.push_back(measured.seconds / (bytes / rate));
    peak = std::max(peak, measured.peakKiB);
  }
  verify(bench, "small", install);
  fs::remove_all(install);
  return {{"update (fresh install of 200 × 240 KiB) through a loopback host throttled to " + fixed(rateMiB, 0) + " MiB/s",
           "bytes sent ÷ rate", std::to_string(ratio.size()) + " runs", fixed(minimum(ratio)), fixed(median(ratio)),
           "median ≤ 1.10", yesNo(median(ratio) <= 1.1), fixed(static_cast<double>(peak) / 1024, 1) + " / —"}};
}

}  // namespace

std::vector<Row> installRows(const Bench& bench) {
  std::vector<Row> rows = pipelineRows(bench);
  for (auto& row : tenInstallsRow(bench)) rows.push_back(row);
  for (auto& row : throttledRow(bench)) rows.push_back(row);
  return rows;
}
