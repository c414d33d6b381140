#pragma once
// The words and figures of the update's progress: one status line that fits a terminal, plain lines for a
// log, sizes and rates as people read them. Nothing here writes anywhere.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

struct ProgressFigures {
  std::size_t filesDone = 0;
  std::size_t filesTotal = 0;
  std::uint64_t bytesReceived = 0;
  double bytesPerSecond = 0;
  std::optional<double> secondsLeft;
  /// The library's latest status text.
  std::string status;
};

/// "1.5 MiB", "300 B".
std::string byteCount(std::uint64_t bytes);
/// "4m05s", "12s".
std::string duration(double seconds);

/// The text without control characters (a server's names and texts may hold any byte); tabs become blanks.
std::string printableText(std::string_view text);

/// "files 3/10 · 1.5 MiB · 300.0 KiB/s · ETA 12s · <status>", cut to at most `columns` - 1 columns so that a
/// terminal never wraps it. The status comes last, so that it is what gets cut.
std::string statusLine(const ProgressFigures& figures, std::size_t columns);

/// The same figures as one plain line for a log.
std::string plainLine(const ProgressFigures& figures);

/// Bytes per second over the last few seconds.
class RateMeter {
 public:
  using Clock = std::chrono::steady_clock;
  explicit RateMeter(std::chrono::milliseconds window = std::chrono::seconds(5)) : window_(window) {}
  void add(Clock::time_point now, std::uint64_t totalBytes);
  double bytesPerSecond() const;

 private:
  std::chrono::milliseconds window_;
  std::deque<std::pair<Clock::time_point, std::uint64_t>> samples_;
};
