#pragma once
// What every row of the benchmark needs: the programs under test, a folder to work in, how many pairs to run,
// and the loopback servers.

#include "Report.h"

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

struct Bench {
  std::string zrv;           // the zrv command
  std::string makeBuilds;    // zrv_bench_make_builds
  std::string freshInstall;  // zrv_bench_fresh_install
  std::string self;          // this program, for its child modes
  std::filesystem::path work;
  int pairs = 5;
  unsigned cores = 1;
  bool large = false;  // the 2 GiB row

  /// A path inside the work folder.
  std::string at(const std::string& name) const { return (work / name).string(); }
};

/// Says what the harness is doing, on standard error, with the seconds since it started.
void step(const std::string& what);

/// A loopback server started by the harness and stopped by its PID.
struct Server {
  pid_t pid = 0;
  int port = 0;
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port); }
};
/// A port on 127.0.0.1 that was free a moment ago.
int freePort();
/// `zrv serve --content TREE` on a free port, once it answers.
Server serveTree(const Bench& bench, const std::string& tree);
/// The throttled host (ThrottledServer.h) on a free port, once it answers.
Server serveThrottled(const Bench& bench, const std::string& tree, double bytesPerSecond, const std::string& countFile);
void stop(Server& server);
/// Runs `work(server)` and stops the server afterwards, also when the work throws.
template <class Work>
void whileServing(Server server, const Work& work) {
  try {
    work(static_cast<const Server&>(server));
  } catch (...) {
    stop(server);
    throw;
  }
  stop(server);
}

std::vector<Row> patchRows(const Bench& bench);
std::vector<Row> installRows(const Bench& bench);
std::vector<Row> largeFileRows(const Bench& bench);
std::vector<Row> unzipRows(const Bench& bench);
std::vector<Row> publishRows(const Bench& bench);
std::vector<Row> manifestRows(const Bench& bench);
