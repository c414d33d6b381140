#include "flows/ProgressText.h"

#include <cmath>
#include <cstdio>

std::string byteCount(std::uint64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  if (unit == 0) {
    std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  }
  return text;
}

std::string duration(double seconds) {
  auto whole = static_cast<long long>(std::ceil(std::max(seconds, 0.0)));
  char text[48];
  if (whole >= 3600) {
    std::snprintf(text, sizeof text, "%lldh%02lldm", whole / 3600, whole / 60 % 60);
  } else if (whole >= 60) {
    std::snprintf(text, sizeof text, "%lldm%02llds", whole / 60, whole % 60);
  } else {
    std::snprintf(text, sizeof text, "%llds", whole);
  }
  return text;
}

std::string printableText(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (c == '\t') {
      shown += ' ';
    } else if (byte < 0x20 || byte == 0x7f) {
      shown += '?';
    } else {
      shown += c;
    }
  }
  return shown;
}

namespace {

std::string figuresText(const ProgressFigures& figures, const char* separator) {
  std::string text = "files " + std::to_string(figures.filesDone) + "/" + std::to_string(figures.filesTotal) +
                     separator + byteCount(figures.bytesReceived);
  if (figures.bytesPerSecond > 0) {
    text += separator + byteCount(static_cast<std::uint64_t>(figures.bytesPerSecond)) + "/s";
  }
  if (figures.secondsLeft) text += std::string(separator) + "ETA " + duration(*figures.secondsLeft);
  return text;
}

// Columns of UTF-8 text, counting each character as one column.
bool startsCharacter(char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }

std::string cutToColumns(const std::string& text, std::size_t columns) {
  std::size_t seen = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (!startsCharacter(text[i])) continue;
    if (seen == columns) return text.substr(0, i);
    ++seen;
  }
  return text;
}

}  // namespace

std::string statusLine(const ProgressFigures& figures, std::size_t columns) {
  std::string line = figuresText(figures, " · ");
  std::string status = printableText(figures.status);
  if (!status.empty()) line += " · " + status;
  return cutToColumns(line, columns > 1 ? columns - 1 : 0);
}

std::string plainLine(const ProgressFigures& figures) {
  std::string line = figuresText(figures, ", ");
  std::string status = printableText(figures.status);
  if (!status.empty()) line += ": " + status;
  return line;
}

void RateMeter::add(Clock::time_point now, std::uint64_t totalBytes) {
  samples_.emplace_back(now, totalBytes);
  while (samples_.size() > 2 && now - samples_[1].first >= window_) samples_.pop_front();
}

double RateMeter::bytesPerSecond() const {
  if (samples_.size() < 2) return 0;
  const auto& [firstTime, firstBytes] = samples_.front();
  const auto& [lastTime, lastBytes] = samples_.back();
  double seconds = std::chrono::duration<double>(lastTime - firstTime).count();
  if (seconds < 0.5 || lastBytes < firstBytes) return 0;
  return static_cast<double>(lastBytes - firstBytes) / seconds;
}
