#include "flows/GameUpdate.h"

#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVPatcher.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

void showProgress(bool bar, const std::string& status, double progress) {
  if (!bar) {
    std::printf("%5.1f%% %s\n", progress, status.c_str());
    return;
  }
  constexpr int kWidth = 30;
  int filled = std::clamp(static_cast<int>(progress / 100.0 * kWidth + 0.5), 0, kWidth);
  std::printf("\r[%s%s] %5.1f%% %-60.60s", std::string(filled, '#').c_str(), std::string(kWidth - filled, ' ').c_str(),
              progress, status.c_str());
  std::fflush(stdout);
}

// Shared with the library's callbacks, which may outlive the wait when the run fails or stalls.
struct Progress {
  bool finished = false;
  std::optional<std::string> failure;
  bool drewBar = false;
  std::chrono::steady_clock::time_point lastReport = std::chrono::steady_clock::now();
};

}  // namespace

std::optional<std::string> updateGame(const GameUpdateRequest& request) {
  auto state = std::make_shared<Progress>();
  ZRVMainQueue& main = ZRVOperationQueue::mainQueue();
  const bool bar = request.progressBar;
  const bool quiet = request.quiet;

  // Every report is handed to the main thread, which prints it; the library reports from its own threads.
  ZRVPatcher::defaultPatcher().checkForGameUpdates(
      request.install,
      [state, bar, quiet, &main](const std::string& status, double progress) {
        main.addOperationWithBlock([state, bar, quiet, status, progress] {
          state->lastReport = std::chrono::steady_clock::now();
          if (quiet) return;
          showProgress(bar, status, progress);
          state->drewBar = bar;
        });
      },
      [state, &main](const std::string& message) {
        main.addOperationWithBlock([state, message] {
          if (state->drewBar) std::printf("\n");
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

  while (!state->finished) {
    main.runUntil([&] { return state->finished; }, std::chrono::milliseconds(200));
    if (!state->finished && request.stallTimeout &&
        std::chrono::steady_clock::now() - state->lastReport > *request.stallTimeout) {
      state->failure = "no progress for " + std::to_string(request.stallTimeout->count()) + " seconds; giving up";
      break;
    }
  }
  if (state->failure && state->drewBar) std::printf("\n");
  std::fflush(stdout);
  return state->failure;
}
