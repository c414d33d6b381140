// zrv update: brings an install up to date, with a progress bar on a terminal.

#include "Arguments.h"
#include "Verbs.h"

#include <ZRVKit/ZRVGlobals.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVPatcher.h>

#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace {

void showProgress(bool terminal, const std::string& status, double progress) {
  if (!terminal) {
    std::printf("%5.1f%% %s\n", progress, status.c_str());
    return;
  }
  constexpr int kWidth = 30;
  int filled = std::clamp(static_cast<int>(progress / 100.0 * kWidth + 0.5), 0, kWidth);
  std::string line = "\r[" + std::string(filled, '#') + std::string(kWidth - filled, ' ') + "] ";
  char percent[16];
  std::snprintf(percent, sizeof percent, "%5.1f%% ", progress);
  std::string text = status.substr(0, 60);
  std::printf("%s%s%-60s", line.c_str(), percent, text.c_str());
  std::fflush(stdout);
}

}  // namespace

int runUpdate(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--dev"}, {"--install", "--stall-timeout"});
  arguments.expectPositional(0, 0);
  auto stallSeconds = arguments.number("--stall-timeout", 1, 86400);
  if (arguments.flag("--dev")) ZRVGlobals::defaultGlobals().setServerType(ZRVGlobals::kDevelopmentServer);
  std::filesystem::path install =
      arguments.value("--install") ? std::filesystem::path(*arguments.value("--install"))
                                   : ZRVGlobals::defaultGlobals().containerURL();
  std::filesystem::create_directories(install);

  // Shared with the library's callbacks, which may outlive this function when the run fails or stalls.
  struct Progress {
    bool terminal = isatty(STDOUT_FILENO);
    bool finished = false;
    std::optional<std::string> failure;
    std::chrono::steady_clock::time_point lastReport = std::chrono::steady_clock::now();
  };
  auto state = std::make_shared<Progress>();
  ZRVMainQueue& main = ZRVOperationQueue::mainQueue();

  // Every report is handed to the main thread, which prints it; the library reports from its own threads.
  ZRVPatcher::defaultPatcher().checkForGameUpdates(
      install,
      [state, &main](const std::string& status, double progress) {
        main.addOperationWithBlock([state, status, progress] {
          state->lastReport = std::chrono::steady_clock::now();
          showProgress(state->terminal, status, progress);
        });
      },
      [state, &main](const std::string& message) {
        main.addOperationWithBlock([state, message] {
          if (state->terminal) std::printf("\n");
          std::printf("%s\n", message.c_str());
          state->finished = true;
        });
      },
      [state, &main](const ZRVError& error) {
        main.addOperationWithBlock([state, message = error.localizedDescription()] {
          state->failure = message;
          state->finished = true;
        });
      });

  // A file that fails on every mirror is reported by nothing, so the wait needs a guard of its own.
  while (!state->finished) {
    main.runUntil([&] { return state->finished; }, std::chrono::milliseconds(200));
    if (stallSeconds && std::chrono::steady_clock::now() - state->lastReport > std::chrono::seconds(*stallSeconds)) {
      state->failure = "no progress for " + std::to_string(*stallSeconds) + " seconds; giving up";
      break;
    }
  }
  std::fflush(stdout);
  if (state->failure) {
    if (state->terminal) std::printf("\n");
    std::cerr << "zrv update: " << *state->failure << "\n";
    return kExitFailure;
  }
  return kExitSuccess;
}
