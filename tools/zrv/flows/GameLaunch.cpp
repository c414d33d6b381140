#include "flows/GameLaunch.h"

#include <ZRVKit/ZRVGameManager.h>
#include <ZRVKit/ZRVMainQueue.h>

GameLaunchResult launchGame(const std::optional<std::string>& cookie, const std::optional<std::string>& gameserver,
                            bool persistent, std::ostream* messages, const std::string& indent) {
  ZRVGameManager& manager = ZRVGameManager::sharedManager();
  GameLaunchResult result;
  bool ended = false;
  // Both reports arrive on the main queue, which this thread pumps: plain locals are safe here.
  manager.startGameWithCookie(
      cookie, gameserver, persistent,
      [&](bool) {
        result.started = true;
        if (messages) *messages << indent << "The game has started (process " << manager.task() << ")." << std::endl;
      },
      [&](bool, int exitStatus) {
        result.status = exitStatus;
        ended = true;
      });
  ZRVOperationQueue::mainQueue().runUntil([&] { return ended; });
  return result;
}
