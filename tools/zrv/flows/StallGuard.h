#pragma once
// Deciding that a download has stalled: over the whole time-out no file finished and fewer bytes moved than
// a small floor rate allows. A trickle of a byte a second is a stall; a slow but healthy link is not.

#include <chrono>
#include <cstddef>
#include <cstdint>

class StallGuard {
 public:
  using Clock = std::chrono::steady_clock;
  /// Below this many bytes a second nothing counts as moving.
  static constexpr std::uint64_t kFloorBytesPerSecond = 1024;

  /// A zero time-out never stalls.
  StallGuard(std::chrono::milliseconds timeout, Clock::time_point start,
             std::uint64_t floorBytesPerSecond = kFloorBytesPerSecond);

  /// Feeds the running totals; true once the time-out has passed without a finished file or enough bytes.
  bool stalled(Clock::time_point now, std::size_t filesFinished, std::uint64_t bytesMoved);

  std::chrono::milliseconds timeout() const { return timeout_; }

 private:
  std::chrono::milliseconds timeout_;
  std::uint64_t floorBytes_;  // what must move within one time-out
  Clock::time_point windowStart_;
  std::size_t filesAtStart_ = 0;
  std::uint64_t bytesAtStart_ = 0;
};
