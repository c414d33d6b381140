#pragma once
// Captures the library's log lines for the scope of a test instead of sending them to the system log.

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  /// True when some line contains `text`.
  bool contains(std::string_view text) const;

 private:
  // Shared with the sink, so that a line logged late by a background thread lands somewhere valid.
  struct Lines {
    std::mutex mutex;
    std::vector<std::string> lines;
  };
  std::shared_ptr<Lines> captured_ = std::make_shared<Lines>();
};
