#include "ServerStatusCheck.h"

#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVServerStatus.h>

ServerStatusAnswer askServerStatus() {
  bool done = false;
  ServerStatusAnswer answer;
  ZRVServerStatus::currentStatus().getServerStatus([&](bool isOnline, std::optional<ZRVError> failure) {
    // Reported on a work-queue thread; the answer is handed to the main thread.
    ZRVOperationQueue::mainQueue().addOperationWithBlock([&, isOnline, failure = std::move(failure)] {
      answer.online = isOnline;
      answer.error = failure;
      done = true;
    });
  });
  ZRVOperationQueue::mainQueue().runUntil([&] { return done; });
  return answer;
}
