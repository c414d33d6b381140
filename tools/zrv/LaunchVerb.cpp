// zrv launch: starts the container's game the way the launcher does and waits for it to end.

#include "Arguments.h"
#include "Verbs.h"
#include "flows/GameLaunch.h"

#include <iostream>

int runLaunch(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--persistent"}, {"--cookie", "--gameserver"});
  arguments.expectPositional(0, 0);
  auto cookie = arguments.value("--cookie");
  auto gameserver = arguments.value("--gameserver");
  if (!cookie) throw UsageError("--cookie is required");
  if (!gameserver) throw UsageError("--gameserver is required");

  GameLaunchResult result = launchGame(cookie, gameserver, arguments.flag("--persistent"), &std::cout);
  if (!result.started) {
    std::cerr << "zrv launch: the game could not be started (--verbose tells why)\n";
    return kExitFailure;
  }
  std::cout << "The game exited with status " << result.status << "." << std::endl;
  return result.status;
}
