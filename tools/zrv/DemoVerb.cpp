// zrv demo: the launcher's flow against the embedded server, with nothing to set up.

#include "Arguments.h"
#include "Verbs.h"
#include "serve/DemoServer.h"

#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVServerStatus.h>

#include <iostream>

namespace {

bool askServerStatus() {
  bool done = false;
  bool online = false;
  std::optional<ZRVError> error;
  ZRVServerStatus::currentStatus().getServerStatus([&](bool isOnline, std::optional<ZRVError> failure) {
    ZRVOperationQueue::mainQueue().addOperationWithBlock([&, isOnline, failure = std::move(failure)] {
      online = isOnline;
      error = failure;
      done = true;
    });
  });
  ZRVOperationQueue::mainQueue().runUntil([&] { return done; });
  if (error) {
    std::cout << "  status: could not be read (" << error->localizedDescription() << ")\n";
    return false;
  }
  std::cout << "  status: the servers are " << (online ? "online" : "offline") << "\n";
  return online;
}

}  // namespace

int runDemo(const std::vector<std::string>& words) {
  Arguments arguments(words, {}, {});
  arguments.expectPositional(0, 0);

  DemoServer server;
  server.start("127.0.0.1", 0);
  ZRVHosts::setRedirect(server.baseAddress());
  std::cout << "ZRVKit demo\n  embedded server: " << server.baseAddress() << "\n";

  bool online = askServerStatus();

  std::cout << "\nSummary\n  servers online: " << (online ? "yes" : "no") << "\n";
  return online ? kExitSuccess : kExitFailure;
}
