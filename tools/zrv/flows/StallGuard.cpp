#include "flows/StallGuard.h"

#include <algorithm>

#include <sys/resource.h>

StallGuard::StallGuard(std::chrono::milliseconds timeout, Clock::time_point start, std::uint64_t floorBytesPerSecond)
    : timeout_(timeout),
      floorBytes_(std::max<std::uint64_t>(
          1, floorBytesPerSecond * static_cast<std::uint64_t>(std::max<long long>(timeout.count(), 0)) / 1000)),
      windowStart_(start) {}

bool StallGuard::stalled(Clock::time_point now, std::size_t filesFinished, std::uint64_t bytesMoved,
                         std::chrono::milliseconds processorTime) {
  if (timeout_.count() <= 0) return false;
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - windowStart_);
  const bool working = processorTime - workAtStart_ >= elapsed * kWorkingPercentOfAProcessor / 100 &&
                       processorTime - workAtStart_ >= std::chrono::milliseconds(200);
  // The window starts again whenever something counts as progress, so a stall is always a whole time-out
  // in which too little happened.
  if (filesFinished > filesAtStart_ || bytesMoved < bytesAtStart_ || bytesMoved - bytesAtStart_ >= floorBytes_ ||
      (working && elapsed >= timeout_)) {
    windowStart_ = now;
    filesAtStart_ = filesFinished;
    bytesAtStart_ = bytesMoved;
    workAtStart_ = processorTime;
    return false;
  }
  return elapsed >= timeout_;
}

std::chrono::milliseconds StallGuard::processorTimeUsed() {
  rusage usage{};
  if (::getrusage(RUSAGE_SELF, &usage) != 0) return std::chrono::milliseconds(0);
  auto toMilliseconds = [](const timeval& time) {
    return std::chrono::milliseconds(static_cast<long long>(time.tv_sec) * 1000 + time.tv_usec / 1000);
  };
  return toMilliseconds(usage.ru_utime) + toMilliseconds(usage.ru_stime);
}
