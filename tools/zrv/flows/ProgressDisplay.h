#pragma once
// Showing the update's progress where the user looks: on a terminal one status line that is redrawn in place
// and always fits the terminal's width (it follows resizes); anywhere else one plain line per event, written
// at once, so that a log shows what happened even when the run is killed.

#include "flows/ProgressText.h"

#include <ZRVKit/ZRVTransferObserver.h>

#include <chrono>
#include <cstdio>
#include <string>

class ProgressDisplay {
 public:
  enum class Mode { statusLine, plainLines, silent };
  ProgressDisplay(Mode mode, std::FILE* output = stdout);
  ~ProgressDisplay();
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;

  /// The library reported a status text.
  void status(const ProgressFigures& figures);
  /// A transfer ended (plain lines only: a terminal sees it in the figures).
  void transferEnded(const ZRVTransferState& transfer);
  /// Time passes: redraws the line, or writes a plain line now and then while bytes move.
  void tick(const ProgressFigures& figures);
  /// A line of its own ("Repaired ..."), above the status line.
  void note(const std::string& text);
  /// Clears the status line so that what follows starts on a fresh line.
  void finish();

 private:
  void draw(const ProgressFigures& figures);
  void writeLine(const std::string& text);
  std::size_t columns();

  Mode mode_;
  std::FILE* output_;
  bool drawn_ = false;
  std::size_t columns_ = 0;
  std::chrono::steady_clock::time_point lastPlainLine_{};
  std::uint64_t bytesAtLastPlainLine_ = 0;
};
