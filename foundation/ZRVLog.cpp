#include <ZRVKit/ZRVLog.h>

#include <syslog.h>

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

}  // namespace

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
  return previous;
}

void ZRVLog::setEchoToStandardError(bool echo) {
  std::lock_guard lock(sinkMutex());
  echoToStandardError() = echo;
}
