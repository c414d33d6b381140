#pragma once
// Deciding that a download has stalled: over the whole time-out no file finished, fewer bytes moved than a
// small floor rate allows, and the process did next to no work of its own. A trickle of a byte a second is a
// stall; a slow but healthy link is not, and neither is a large file being decoded or patched after its
// bytes have all arrived (minutes for a file of gigabytes on a busy machine).

#include <chrono>
#include <cstddef>
#include <cstdint>

class StallGuard {
 public:
  using Clock = std::chrono::steady_clock;
  /// Below this many bytes a second nothing counts as moving.
  static constexpr std::uint64_t kFloorBytesPerSecond = 1024;
  /// The share of one processor the process must use to count as working: pumping the main queue and
  /// waiting on sockets stay far below it, decoding even on a crowded machine far above.
  static constexpr int kWorkingPercentOfAProcessor = 2;

  /// A zero time-out never stalls.
  StallGuard(std::chrono::milliseconds timeout, Clock::time_point start,
             std::uint64_t floorBytesPerSecond = kFloorBytesPerSecond);

  /// Feeds the running totals (`processorTime`: what the process has used so far); true once the time-out
  /// has passed without a finished file, enough bytes or enough work.
  bool stalled(Clock::time_point now, std::size_t filesFinished, std::uint64_t bytesMoved,
               std::chrono::milliseconds processorTime);

  /// The processor time this process has used so far, all its threads together.
  static std::chrono::milliseconds processorTimeUsed();

  std::chrono::milliseconds timeout() const { return timeout_; }

 private:
  std::chrono::milliseconds timeout_;
  std::uint64_t floorBytes_;  // what must move within one time-out
  Clock::time_point windowStart_;
  std::size_t filesAtStart_ = 0;
  std::uint64_t bytesAtStart_ = 0;
  std::chrono::milliseconds workAtStart_{0};
};
