#include "flows/StallGuard.h"

#include <algorithm>

StallGuard::StallGuard(std::chrono::milliseconds timeout, Clock::time_point start, std::uint64_t floorBytesPerSecond)
    : timeout_(timeout),
      floorBytes_(std::max<std::uint64_t>(
          1, floorBytesPerSecond * static_cast<std::uint64_t>(std::max<long long>(timeout.count(), 0)) / 1000)),
      windowStart_(start) {}

bool StallGuard::stalled(Clock::time_point now, std::size_t filesFinished, std::uint64_t bytesMoved) {
  if (timeout_.count() <= 0) return false;
  // The window starts again whenever something counts as progress, so a stall is always a whole time-out
  // in which too little happened.
  if (filesFinished > filesAtStart_ || bytesMoved < bytesAtStart_ || bytesMoved - bytesAtStart_ >= floorBytes_) {
    windowStart_ = now;
    filesAtStart_ = filesFinished;
    bytesAtStart_ = bytesMoved;
    return false;
  }
  return now - windowStart_ >= timeout_;
}
