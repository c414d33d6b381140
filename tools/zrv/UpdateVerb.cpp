// zrv update: brings an install up to date, with a progress bar on a terminal.

#include "Arguments.h"
#include "Verbs.h"
#include "flows/GameUpdate.h"

#include <ZRVKit/ZRVGlobals.h>

#include <unistd.h>

#include <iostream>

int runUpdate(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--dev"}, {"--install", "--stall-timeout"});
  arguments.expectPositional(0, 0);
  if (arguments.flag("--dev")) ZRVGlobals::defaultGlobals().setServerType(ZRVGlobals::kDevelopmentServer);

  GameUpdateRequest request;
  if (auto seconds = arguments.number("--stall-timeout", 1, 86400)) request.stallTimeout = std::chrono::seconds(*seconds);
  request.install = arguments.value("--install") ? std::filesystem::path(*arguments.value("--install"))
                                                 : ZRVGlobals::defaultGlobals().containerURL();
  std::filesystem::create_directories(request.install);
  request.progressBar = isatty(STDOUT_FILENO);

  if (auto failure = updateGame(request)) {
    std::cerr << "zrv update: " << *failure << "\n";
    return kExitFailure;
  }
  return kExitSuccess;
}
