#pragma once
// The library's one HTTP client, over libcurl. Asynchronous requests run concurrently on one transfer
// thread and hand their result to the queue the caller names; synchronous reads block the caller.
// TLS certificates are verified; only http and https are spoken.

#include <ZRVKit/ZRVHTTPRequest.h>
#include <ZRVKit/ZRVHTTPResponse.h>
#include <ZRVKit/ZRVKitExport.h>
#include <ZRVKit/ZRVTransferObserver.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class ZRVOperationQueue;

class ZRVKIT_EXPORT ZRVHTTPClient {
 public:
  using Completion = std::function<void(ZRVHTTPResult result)>;

  /// The bodies of all transfers under way that are held in memory (not written to a descriptor) may hold
  /// this much together; a transfer whose body would take more fails like one over its own size cap, so that
  /// several huge or endless answers at once cannot add up. Each request's `maxBodySize` bounds it alone.
  static constexpr std::size_t kMaxBodyBytesInMemory = std::size_t{1} << 30;

  /// The one client of the process; its transfer thread starts with the first asynchronous request.
  static ZRVHTTPClient& sharedClient();

  /// Starts `request` and returns at once; `completion` runs as an operation on `queue`.
  void sendAsynchronousRequest(ZRVHTTPRequest request, ZRVOperationQueue& queue, Completion completion);

  /// Performs `request` on the calling thread and returns its result.
  ZRVHTTPResult sendSynchronousRequest(const ZRVHTTPRequest& request);

  /// Tells `observer` about every transfer that starts from now on (see ZRVTransferObserver for the threads);
  /// nothing stops observing. Transfers already running keep the observer they started with, so one that is
  /// replaced still hears the ends of those.
  void setTransferObserver(std::shared_ptr<ZRVTransferObserver> observer);
  std::shared_ptr<ZRVTransferObserver> transferObserver() const;

  /// Caps every request's idle time-out (tests and tools that must not wait a minute). Nothing lifts the cap.
  void setIdleTimeoutLimit(std::optional<std::chrono::milliseconds> limit);

  ~ZRVHTTPClient();
  ZRVHTTPClient(const ZRVHTTPClient&) = delete;
  ZRVHTTPClient& operator=(const ZRVHTTPClient&) = delete;

 private:
  ZRVHTTPClient();
  struct Engine;
  std::unique_ptr<Engine> engine_;
};
