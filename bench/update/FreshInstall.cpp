// One fresh install of the game served at BASE into INSTALL, as the launcher does it, reporting what the
// update cost this process: the most work-queue threads at once and the process's peak resident memory.
// Run once per process, so that every install starts from a process that has done nothing yet.
//
// usage: zrv_bench_fresh_install BASE INSTALL
// prints: outcome <text> / threads-max <n> / maxrss-kib <n>

#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVOperationQueue.h>
#include <ZRVKit/ZRVPatcher.h>

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s BASE INSTALL\n", argv[0]);
    return 2;
  }
  ZRVHosts::setRedirect(std::string(argv[1]));
  const fs::path install = argv[2];
  fs::create_directories(install / "Frameworks" / "Cg.framework");  // the framework step is not measured

  std::atomic<bool> ended{false};
  std::string outcome;
  ZRVPatcher::defaultPatcher().checkForGameUpdates(
      install, [](const std::string&, double) {},
      [&](const std::string& message) {
        outcome = message;
        ended = true;
      },
      [&](const ZRVError& error) {
        outcome = "failed: " + error.localizedDescription();
        ended = true;
      });
  if (!ZRVOperationQueue::mainQueue().runUntil([&] { return ended.load(); }, std::chrono::minutes(10))) {
    outcome = "no outcome within ten minutes";
  }
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("outcome %s\nthreads-max %zu\nmaxrss-kib %ld\n", outcome.c_str(),
              ZRVOperationQueue::workQueue().peakThreadCount(), usage.ru_maxrss);
  return ended && outcome == "Everything is up to date" ? 0 : 1;
}
