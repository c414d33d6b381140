#include <ZRVKit/ZRVLog.h>

#include <sys/stat.h>
#include <syslog.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>

namespace {

std::mutex& sinkMutex() {
  static std::mutex mutex;
  return mutex;
}

ZRVLog::Sink& installedSink() {
  static ZRVLog::Sink sink;
  return sink;
}

bool& echoToStandardError() {
  static bool echo = false;
  return echo;
}

// A sink or the echo is set: read without the lock, for the check every line makes before it is formatted.
std::atomic<bool>& sinkOrEcho() {
  static std::atomic<bool> set{false};
  return set;
}

// Whether the system log's socket is there. Once found it is trusted (the C library reconnects to a daemon
// that restarted); while it is missing it is looked for again at most every 100 ms, so a daemon that starts
// while the library runs gets its lines from then on, and a machine without one costs a clock read a line.
bool logSocketExists() {
  using Clock = std::chrono::steady_clock;
  static std::atomic<bool> found{false};
  static std::atomic<Clock::rep> nextLook{0};
  if (found.load(std::memory_order_relaxed)) return true;
  const Clock::rep now = Clock::now().time_since_epoch().count();
  if (now < nextLook.load(std::memory_order_relaxed)) return false;
  struct stat info {};
  if (::stat(_PATH_LOG, &info) == 0) {
    found.store(true, std::memory_order_relaxed);
    return true;
  }
  nextLook.store(now + std::chrono::duration_cast<Clock::duration>(std::chrono::milliseconds(100)).count(),
                 std::memory_order_relaxed);
  return false;
}

}  // namespace

bool ZRVLog::isRecording() { return sinkOrEcho().load(std::memory_order_relaxed) || logSocketExists(); }

void ZRVLog::write(std::string_view line) {
  std::string text(line);
  Sink sink;
  bool echo;
  {
    std::lock_guard lock(sinkMutex());
    sink = installedSink();
    echo = echoToStandardError();
  }
  if (echo) std::fprintf(stderr, "%s\n", text.c_str());
  if (sink) {
    sink(text);
    return;
  }
  // Without a log daemon's socket the C library makes, fails to connect and closes a socket for every line,
  // and the line is lost; the line is lost all the same without those calls.
  if (!logSocketExists()) return;
  // No openlog: the identity in the system log belongs to the host application, which a library must not
  // rename. The facility travels with each line instead.
  syslog(LOG_USER | LOG_NOTICE, "%s", text.c_str());
}

void ZRVLog::methodError(std::string_view className, std::string_view operation, int line,
                         std::string_view description) {
  format("-[%@ %@]+%d: error %@.", className, operation, line, description);
}

ZRVLog::Sink ZRVLog::setSink(Sink sink) {
  std::lock_guard lock(sinkMutex());
  Sink previous = std::move(installedSink());
  installedSink() = std::move(sink);
  sinkOrEcho() = installedSink() || echoToStandardError();
  return previous;
}

void ZRVLog::setEchoToStandardError(bool echo) {
  std::lock_guard lock(sinkMutex());
  echoToStandardError() = echo;
  sinkOrEcho() = installedSink() || echo;
}
