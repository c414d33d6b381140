#pragma once
// Starting the container's game with ZRVGameManager and waiting for it to end.

#include <optional>
#include <ostream>
#include <string>

struct GameLaunchResult {
  bool started = false;
  int status = 0;  ///< the game's exit status (128 + N when killed by signal N)
};

/// Starts the game, says so on `messages` (if given) when it has started, and pumps the main queue until
/// it has exited.
GameLaunchResult launchGame(const std::optional<std::string>& cookie, const std::optional<std::string>& gameserver,
                            bool persistent, std::ostream* messages, const std::string& indent = "");
