// zrv status: whether the game servers are online.

#include "Arguments.h"
#include "Verbs.h"
#include "flows/ServerStatusCheck.h"

#include <ZRVKit/ZRVJSON.h>

#include <iostream>

int runStatus(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--json"}, {});
  arguments.expectPositional(0, 0);

  auto [online, error] = askServerStatus();

  if (arguments.flag("--json")) {
    ZRVJSON answer = {{"online", online}, {"error", nullptr}};
    if (error) answer["error"] = error->localizedDescription();
    std::cout << answer.dump() << "\n";
  } else if (error) {
    std::cout << "The servers are online (assumed: the status could not be read: " << error->localizedDescription()
              << ").\n";
  } else {
    std::cout << (online ? "The servers are online.\n" : "The servers are offline.\n");
  }
  if (error) return kExitUnreachable;
  return online ? kExitSuccess : kExitFailure;
}
