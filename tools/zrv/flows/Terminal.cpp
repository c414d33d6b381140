// Prompts on the controlling terminal, with echo off for secrets.

#include "flows/Terminal.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>

namespace {

// The terminal's settings while echo is off, restored should the user interrupt the prompt.
int terminalWithoutEcho = -1;
struct termios savedTerminal {};

void restoreTerminalAndDie(int signalNumber) {
  if (terminalWithoutEcho >= 0) tcsetattr(terminalWithoutEcho, TCSAFLUSH, &savedTerminal);
  std::signal(signalNumber, SIG_DFL);
  std::raise(signalNumber);
}

}  // namespace

std::optional<std::string> readLine(std::istream& input) {
  std::string line;
  if (!std::getline(input, line)) return std::nullopt;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

// One line typed on the controlling terminal, echoed or not.
std::optional<std::string> askTerminal(const std::string& prompt, bool echo) {
  int terminal = ::open("/dev/tty", O_RDWR | O_CLOEXEC);
  if (terminal < 0) return std::nullopt;
  struct termios original {};
  bool quiet = !echo && tcgetattr(terminal, &original) == 0;
  if (!quiet) (void)!::write(terminal, prompt.data(), prompt.size());
  if (quiet) {
    savedTerminal = original;
    terminalWithoutEcho = terminal;
    auto previousInterrupt = std::signal(SIGINT, restoreTerminalAndDie);
    auto previousTerminate = std::signal(SIGTERM, restoreTerminalAndDie);
    struct termios silent = original;
    silent.c_lflag &= static_cast<tcflag_t>(~ECHO);
    tcsetattr(terminal, TCSAFLUSH, &silent);
    // Echo is off before the prompt appears, so nothing typed ahead of it is shown.
    (void)!::write(terminal, prompt.data(), prompt.size());
    std::string line;
    char character = 0;
    bool complete = false;
    while (::read(terminal, &character, 1) == 1) {
      if (character == '\n' || character == '\r') {
        complete = true;
        break;
      }
      line += character;
    }
    tcsetattr(terminal, TCSAFLUSH, &original);
    terminalWithoutEcho = -1;
    std::signal(SIGINT, previousInterrupt);
    std::signal(SIGTERM, previousTerminate);
    (void)!::write(terminal, "\n", 1);
    ::close(terminal);
    if (!complete && line.empty()) return std::nullopt;
    return line;
  }
  std::string line;
  char character = 0;
  bool any = false;
  while (::read(terminal, &character, 1) == 1) {
    any = true;
    if (character == '\n') break;
    line += character;
  }
  ::close(terminal);
  if (!any) return std::nullopt;
  return line;
}


