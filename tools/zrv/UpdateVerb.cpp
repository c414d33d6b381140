// zrv update: brings an install up to date and checks the result against the manifest.

#include "Arguments.h"
#include "Verbs.h"
#include "UpdateOptions.h"

#include <ZRVKit/ZRVGlobals.h>

#include <unistd.h>

#include <iostream>

void printUpdateFailure(const std::string& verb, const GameUpdateResult& result) {
  std::cerr << "zrv " << verb << ": " << result.message << "\n";
  for (const BadFile& file : result.badFiles) std::cerr << "  " << file.line() << "\n";
  for (const auto& detail : result.details) std::cerr << "  " << detail << "\n";
}

std::chrono::seconds stallTimeoutFrom(const Arguments& arguments) {
  if (auto seconds = arguments.number("--stall-timeout", 0, 86400)) return std::chrono::seconds(*seconds);
  return GameUpdateRequest::kDefaultStallTimeout;
}

int runUpdate(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--dev", "--json"}, {"--install", "--stall-timeout"});
  arguments.expectPositional(0, 0);
  if (arguments.flag("--dev")) ZRVGlobals::defaultGlobals().setServerType(ZRVGlobals::kDevelopmentServer);

  GameUpdateRequest request;
  request.stallTimeout = stallTimeoutFrom(arguments);
  request.install = arguments.value("--install") ? std::filesystem::path(*arguments.value("--install"))
                                                 : ZRVGlobals::defaultGlobals().containerURL();
  std::filesystem::create_directories(request.install);
  bool json = arguments.flag("--json");
  request.quiet = json;
  request.statusLine = isatty(STDOUT_FILENO);

  GameUpdateResult result = updateGame(request);
  if (json) {
    std::cout << result.document().dump(2) << std::endl;
  } else if (result.upToDate()) {
    std::cout << result.message;
    if (result.filesRepaired) std::cout << " (" << result.filesRepaired << " file(s) repaired)";
    std::cout << std::endl;
  } else {
    printUpdateFailure("update", result);
  }
  return result.exitCode();
}
