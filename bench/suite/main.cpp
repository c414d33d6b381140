// The project's benchmark: every goal measured side by side in one run, as ratios zrv/peer of paired,
// interleaved runs (min and median of the per-pair ratios), with peak memory from each child's own maximum
// resident set and the load average before and after. Prints one Markdown table.
//
//   zrv_bench [--quick] [--large] [--keep] [--work DIR] [--only patch|install|large|unzip|publish|manifest]
//   ZRV_BENCH_QUICK=1: two pairs a row instead of five; ZRV_BENCH_LARGE=1: the 2 GiB row too.

#include "Bench.h"
#include "LargeFile.h"
#include "ThrottledServer.h"
#include "Workloads.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

namespace fs = std::filesystem;

namespace {

const auto kStarted = std::chrono::steady_clock::now();

bool environmentFlag(const char* name) {
  const char* value = std::getenv(name);
  return value && *value && std::strcmp(value, "0") != 0;
}

std::string utcNow() {
  std::time_t now = std::time(nullptr);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
  return text;
}

}  // namespace

void step(const std::string& what) {
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - kStarted).count();
  std::fprintf(stderr, "[%6.1f s] %s\n", seconds, what.c_str());
}

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], kServeThrottled) == 0) return serveThrottled(argc, argv);
  if (int status = runWorkloadMode(argc, argv); status >= 0) return status;
  if (int status = runLargeFileMode(argc, argv); status >= 0) return status;

  Bench bench;
  bench.zrv = ZRV_EXECUTABLE;
  bench.makeBuilds = ZRV_MAKE_BUILDS;
  bench.freshInstall = ZRV_FRESH_INSTALL;
  bench.self = fs::canonical("/proc/self/exe").string();
  bench.cores = std::max(1u, std::thread::hardware_concurrency());
  bool quick = environmentFlag("ZRV_BENCH_QUICK");
  bench.large = environmentFlag("ZRV_BENCH_LARGE");
  const char* base = std::getenv("ZRV_BENCH_DIR");
  fs::path parent = base ? base : fs::temp_directory_path();
  bool keep = false;
  std::string only;  // one group: patch, install, large, unzip, publish, manifest
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (word == "--quick") quick = true;
    else if (word == "--large") bench.large = true;
    else if (word == "--keep") keep = true;
    else if (word == "--work" && i + 1 < argc) parent = argv[++i];
    else if (word == "--only" && i + 1 < argc) only = argv[++i];
    else {
      std::fprintf(stderr, "usage: zrv_bench [--quick] [--large] [--keep] [--work DIR] [--only GROUP]\n");
      return 2;
    }
  }
  bench.pairs = quick ? 2 : 5;
  std::string folder = (parent / "zrv-bench-XXXXXX").string();
  if (!mkdtemp(folder.data())) {
    std::perror("mkdtemp");
    return 1;
  }
  bench.work = folder;

  const std::string date = utcNow(), loadBefore = loadAverage();
  step("load average before: " + loadBefore + "; working in " + folder);
  std::vector<Row> rows;
  const std::vector<std::pair<std::string, std::function<std::vector<Row>(const Bench&)>>> groups = {
      {"patch", patchRows},   {"install", installRows}, {"large", largeFileRows},
      {"unzip", unzipRows}, {"publish", publishRows}, {"manifest", manifestRows}};
  for (const auto& [name, group] : groups) {
    if (!only.empty() && name != only) continue;
    try {
      for (auto& row : group(bench)) rows.push_back(row);
    } catch (const std::exception& error) {
      step(std::string("failed: ") + error.what());
      rows.push_back({"(a group of rows failed)", "—", "—", "—", "—", "—", "failed: " + std::string(error.what()), "—"});
    }
  }
  const std::string loadAfter = loadAverage();
  if (!keep) fs::remove_all(bench.work);

  double minutes = std::chrono::duration<double>(std::chrono::steady_clock::now() - kStarted).count() / 60;
  std::printf("\nzrv benchmark, %s: %u cores, %d pairs a row%s, %.1f minutes\n", date.c_str(), bench.cores, bench.pairs,
              quick ? " (quick)" : "", minutes);
  std::printf("load average before: %s; after: %s\n", loadBefore.c_str(), loadAfter.c_str());
  std::printf("ratios are zrv/peer of wall time within each pair unless the row says otherwise (below 1: zrv faster)\n\n");
  printTable(rows);
  return 0;
}
