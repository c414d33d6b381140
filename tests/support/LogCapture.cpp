#include "support/LogCapture.h"

#include <ZRVKit/ZRVLog.h>

LogCapture::LogCapture() {
  ZRVLog::setSink([captured = captured_](const std::string& line) {
    std::lock_guard lock(captured->mutex);
    captured->lines.push_back(line);
  });
}

LogCapture::~LogCapture() { ZRVLog::setSink(nullptr); }

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(captured_->mutex);
  return captured_->lines;
}

bool LogCapture::contains(std::string_view text) const {
  std::lock_guard lock(captured_->mutex);
  for (const auto& line : captured_->lines) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}
