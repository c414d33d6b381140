#pragma once
// Bringing an install up to date with ZRVPatcher while showing progress: a bar on a terminal, plain lines
// otherwise.

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

struct GameUpdateRequest {
  std::filesystem::path install;
  /// Give up when no report arrives for this long (a file that fails on every mirror reports nothing).
  std::optional<std::chrono::seconds> stallTimeout;
  /// Draw a progress bar (a terminal) rather than one line per report.
  bool progressBar = false;
  /// Print nothing but the outcome.
  bool quiet = false;
};

/// Runs the update, pumping the main queue. Nothing on success ("Everything is up to date" is printed),
/// else the reason it failed.
std::optional<std::string> updateGame(const GameUpdateRequest& request);
