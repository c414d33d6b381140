#pragma once
// A transfer observer on the shared HTTP client for the length of one flow; the one that was set before
// comes back afterwards.

#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVTransferObserver.h>

#include <memory>

class ObserverScope {
 public:
  explicit ObserverScope(std::shared_ptr<ZRVTransferObserver> observer)
      : previous_(ZRVHTTPClient::sharedClient().transferObserver()) {
    ZRVHTTPClient::sharedClient().setTransferObserver(std::move(observer));
  }
  ~ObserverScope() { ZRVHTTPClient::sharedClient().setTransferObserver(previous_); }
  ObserverScope(const ObserverScope&) = delete;
  ObserverScope& operator=(const ObserverScope&) = delete;

 private:
  std::shared_ptr<ZRVTransferObserver> previous_;
};
