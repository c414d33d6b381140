#include "flows/ProgressDisplay.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

namespace {

// Set by SIGWINCH: the terminal's width is asked again before the next redraw.
std::atomic<bool> terminalResized{true};

void noteResize(int) { terminalResized.store(true); }

constexpr auto kPlainLineInterval = std::chrono::seconds(2);

}  // namespace

ProgressDisplay::ProgressDisplay(Mode mode, std::FILE* output) : mode_(mode), output_(output) {
  if (mode_ == Mode::statusLine) {
    struct sigaction action {};
    action.sa_handler = noteResize;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGWINCH, &action, nullptr);
    terminalResized.store(true);
  }
}

ProgressDisplay::~ProgressDisplay() { finish(); }

std::size_t ProgressDisplay::columns() {
  if (terminalResized.exchange(false)) {
    struct winsize size {};
    columns_ = ioctl(fileno(output_), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
  }
  return columns_;
}

void ProgressDisplay::draw(const ProgressFigures& figures) {
  // Back to the line's start, the new text, and the rest of the old text erased.
  std::string line = "\r" + statusLine(figures, columns()) + "\x1b[K";
  std::fputs(line.c_str(), output_);
  std::fflush(output_);
  drawn_ = true;
}

void ProgressDisplay::writeLine(const std::string& text) {
  std::fputs((printableText(text) + "\n").c_str(), output_);
  std::fflush(output_);
}

void ProgressDisplay::status(const ProgressFigures& figures) {
  if (mode_ == Mode::statusLine) {
    draw(figures);
  } else if (mode_ == Mode::plainLines) {
    writeLine(plainLine(figures));
    lastPlainLine_ = std::chrono::steady_clock::now();
    bytesAtLastPlainLine_ = figures.bytesReceived;
  }
}

void ProgressDisplay::transferEnded(const ZRVTransferState& transfer) {
  if (mode_ != Mode::plainLines) return;
  if (transfer.succeeded) {
    writeLine("  got " + transfer.url + ": HTTP " + std::to_string(transfer.statusCode.value_or(0)) + ", " +
              byteCount(transfer.received));
  } else {
    writeLine("  failed " + transfer.url + ": " + transfer.failure);
  }
}

void ProgressDisplay::tick(const ProgressFigures& figures) {
  if (mode_ == Mode::statusLine) {
    draw(figures);
  } else if (mode_ == Mode::plainLines) {
    auto now = std::chrono::steady_clock::now();
    if (figures.bytesReceived != bytesAtLastPlainLine_ && now - lastPlainLine_ >= kPlainLineInterval) {
      ProgressFigures quiet = figures;
      quiet.status.clear();
      writeLine(plainLine(quiet));
      lastPlainLine_ = now;
      bytesAtLastPlainLine_ = figures.bytesReceived;
    }
  }
}

void ProgressDisplay::note(const std::string& text) {
  if (mode_ == Mode::silent) return;
  if (mode_ == Mode::statusLine && drawn_) std::fputs("\r\x1b[K", output_);
  drawn_ = false;
  writeLine(text);
}

void ProgressDisplay::finish() {
  if (mode_ == Mode::statusLine && drawn_) {
    std::fputs("\n", output_);
    std::fflush(output_);
  }
  drawn_ = false;
}
