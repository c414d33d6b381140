// zrv launch: starts the container's game the way the launcher does and waits for it to end.

#include "Arguments.h"
#include "Verbs.h"

#include <ZRVKit/ZRVGameManager.h>
#include <ZRVKit/ZRVMainQueue.h>

#include <iostream>

int runLaunch(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--persistent"}, {"--cookie", "--gameserver"});
  arguments.expectPositional(0, 0);
  auto cookie = arguments.value("--cookie");
  auto gameserver = arguments.value("--gameserver");
  if (!cookie) throw UsageError("--cookie is required");
  if (!gameserver) throw UsageError("--gameserver is required");

  ZRVGameManager& manager = ZRVGameManager::sharedManager();
  bool ended = false;
  int status = 0;
  manager.startGameWithCookie(
      cookie, gameserver, arguments.flag("--persistent"),
      [&](bool) { std::cout << "The game has started (process " << manager.task() << ")." << std::endl; },
      [&](bool, int exitStatus) {
        status = exitStatus;
        ended = true;
      });
  ZRVOperationQueue::mainQueue().runUntil([&] { return ended; });

  if (status == ZRVGameManager::kGameNotStartedStatus) {
    std::cerr << "zrv launch: the game could not be started (--verbose tells why)\n";
    return kExitFailure;
  }
  std::cout << "The game exited with status " << status << "." << std::endl;
  return status;
}
