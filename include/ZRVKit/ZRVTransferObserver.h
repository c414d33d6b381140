#pragma once
// Watching the HTTP client's transfers while they run: which URL, how many bytes have arrived, the length the
// server announced, the HTTP status once the answer's head is in, and how each transfer ended. A launcher draws
// its progress, notices stalled downloads and learns which mirror delivered a file from it.
//
// Observing changes nothing the client does: requests, answers, time-outs and callbacks stay as they are.
//
// Threads: every call is made on the thread that runs the transfer, while it runs: the client's transfer
// thread for asynchronous requests, the caller's thread for synchronous reads. Calls for one transfer arrive
// in order (started, progressed..., ended); calls for different transfers may arrive at once on different
// threads. An observer must be quick and must not call back into the client: it holds up every transfer.
//
// Cost: with no observer set, a transfer only tests one pointer it copied when it started.

#include <ZRVKit/ZRVKitExport.h>

#include <cstdint>
#include <optional>
#include <string>

struct ZRVKIT_EXPORT ZRVTransferState {
  /// Unique for the process's lifetime; tells the transfers of one URL apart.
  std::uint64_t identifier = 0;
  /// The requested URL (redirects are followed, but the requested URL names the transfer).
  std::string url;
  std::string method;
  /// Body bytes received so far.
  std::uint64_t received = 0;
  /// The body length the server announced ("Content-Length"), when it announced one.
  std::optional<std::uint64_t> expectedLength;
  /// The HTTP status of the latest answer head (a redirect's, then the final one's); none before a head arrived.
  std::optional<long> statusCode;
  /// Set in `transferEnded`: a body arrived (whatever the HTTP status).
  bool succeeded = false;
  /// Set in `transferEnded` when it failed: why.
  std::string failure;
};

class ZRVKIT_EXPORT ZRVTransferObserver {
 public:
  virtual ~ZRVTransferObserver() = default;

  /// The transfer is about to start; nothing has been received yet.
  virtual void transferStarted(const ZRVTransferState& /*state*/) {}
  /// More body bytes arrived, or an answer head (with its status and announced length) came in.
  virtual void transferProgressed(const ZRVTransferState& /*state*/) {}
  /// The transfer is over: `succeeded` and `failure` say how, `received` how many body bytes came. Called
  /// before the request's completion is handed to its queue.
  virtual void transferEnded(const ZRVTransferState& /*state*/) {}
};
