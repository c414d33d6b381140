// zrv login: signs in to the game's login service, the way a launcher does. With a saved login for the
// account it signs in with the saved cookie; otherwise it reads the password without echo from the
// terminal (or a line of standard input), and asks for a two-factor code when the server wants one.

#include "Arguments.h"
#include "Verbs.h"

#include <ZRVKit/ZRVAuthenticator.h>
#include <ZRVKit/ZRVMainQueue.h>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <iostream>
#include <memory>

using namespace std::chrono_literals;

namespace {

// The terminal's settings while echo is off, restored should the user interrupt the prompt.
int terminalWithoutEcho = -1;
struct termios savedTerminal {};

void restoreTerminalAndDie(int signalNumber) {
  if (terminalWithoutEcho >= 0) tcsetattr(terminalWithoutEcho, TCSAFLUSH, &savedTerminal);
  std::signal(signalNumber, SIG_DFL);
  std::raise(signalNumber);
}

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
  (void)!::write(terminal, prompt.data(), prompt.size());
  struct termios original {};
  bool quiet = !echo && tcgetattr(terminal, &original) == 0;
  if (quiet) {
    savedTerminal = original;
    terminalWithoutEcho = terminal;
    auto previousInterrupt = std::signal(SIGINT, restoreTerminalAndDie);
    auto previousTerminate = std::signal(SIGTERM, restoreTerminalAndDie);
    struct termios silent = original;
    silent.c_lflag &= static_cast<tcflag_t>(~ECHO);
    tcsetattr(terminal, TCSAFLUSH, &silent);
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

struct Report {
  bool arrived = false;
  int status = -1;
  ZRVJSON info;
};

std::string text(const ZRVJSON& info, const char* key) {
  auto found = info.is_object() ? info.find(key) : info.end();
  return found != info.end() && found->is_string() ? found->get<std::string>() : std::string();
}

}  // namespace

int runLogin(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--remember", "--password-stdin", "--json", "--forget-saved"}, {"--timeout"});
  arguments.expectPositional(1, 1);
  const std::string& username = arguments.positional()[0];
  const bool json = arguments.flag("--json");
  const bool fromStandardInput = arguments.flag("--password-stdin");
  const auto timeout = std::chrono::seconds(arguments.number("--timeout", 1, 86400).value_or(300));
  ZRVAuthenticator& authenticator = ZRVAuthenticator::defaultAuthenticator();

  // A saved login is offered by passing its cookie as the password.
  std::optional<std::string> password;
  if (!arguments.flag("--forget-saved")) password = authenticator.loadSavedPassword(username);
  const bool withSavedLogin = password.has_value();
  if (withSavedLogin) {
    std::cerr << "Signing in with the saved login of " << username << " (--forget-saved asks for the password).\n";
  } else if (fromStandardInput) {
    password = readLine(std::cin);
  } else {
    password = askTerminal("Password for " + username + ": ", false);
  }
  if (!password) {
    std::cerr << "zrv login: no password given (there is no terminal to ask; use --password-stdin)\n";
    return kExitUsage;
  }

  auto report = std::make_shared<Report>();
  auto waitForReport = [&] {
    return ZRVOperationQueue::mainQueue().runUntil([&] { return report->arrived; }, timeout);
  };
  authenticator.authenticateUsername(username, *password, arguments.flag("--remember"),
                                     [report](int status, const ZRVJSON& info) {
                                       report->arrived = true;
                                       report->status = status;
                                       report->info = info;
                                     });
  password->assign(password->size(), '\0');

  bool answered = waitForReport();
  for (int codes = 0; answered && report->status == 3 && codes < 3; ++codes) {
    // The answer's token is kept just after the report; the code must go out with it.
    std::string token = text(report->info, "responseToken");
    ZRVOperationQueue::mainQueue().runUntil([&] { return authenticator.responseToken() == token; }, 2s);
    if (!json && !text(report->info, "banner").empty()) std::cerr << text(report->info, "banner") << "\n";
    auto code = fromStandardInput ? readLine(std::cin) : askTerminal("Two-factor code: ", true);
    if (!code) {
      std::cerr << "zrv login: no two-factor code given\n";
      break;
    }
    report->arrived = false;
    authenticator.authenticateTwoFactorAuthenticationWithAppCode(*code);
    answered = waitForReport();
  }
  authenticator.setStatusCallback(nullptr);
  // The cookie is saved on the work queue just after the report.
  ZRVOperationQueue::workQueue().waitUntilAllOperationsAreFinished();

  if (!answered) {
    std::cerr << "zrv login: the login server gave no answer within " << timeout.count() << " seconds\n";
    return kExitUnreachable;
  }
  if (json) {
    std::cout << ZRVJSON{{"status", report->status}, {"response", report->info}}.dump() << "\n";
  } else {
    std::string banner = text(report->info, "banner");
    switch (report->status) {
      case 0:
        std::cout << "Signed in as " << username << "; game server " << text(report->info, "gameserver")
                  << ". The play cookie is saved (" << ZRVAuthenticator::secretStoreName() << ").\n";
        break;
      case 1:
        std::cout << "The login server refused the login" << (banner.empty() ? "." : ": " + banner) << "\n";
        if (withSavedLogin) std::cout << "Run `zrv login --forget-saved " << username << "` to type the password.\n";
        break;
      case 3:
        std::cout << "The two-factor step did not complete.\n";
        break;
      default:
        std::cout << "The login server could not be reached or gave no usable answer.\n";
    }
  }
  switch (report->status) {
    case 0: return kExitSuccess;
    case 4: return kExitUnreachable;
    default: return kExitFailure;
  }
}
