// zrv status: whether the game servers are online.

#include "Arguments.h"
#include "Verbs.h"

#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVServerStatus.h>

#include <iostream>

int runStatus(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--json"}, {});
  arguments.expectPositional(0, 0);

  bool done = false;
  bool online = true;
  std::optional<ZRVError> error;
  ZRVServerStatus::currentStatus().getServerStatus([&](bool isOnline, std::optional<ZRVError> failure) {
    // Reported on a work-queue thread; the answer is handed to the main thread.
    ZRVOperationQueue::mainQueue().addOperationWithBlock([&, isOnline, failure = std::move(failure)] {
      online = isOnline;
      error = failure;
      done = true;
    });
  });
  ZRVOperationQueue::mainQueue().runUntil([&] { return done; });

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
