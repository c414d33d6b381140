#pragma once
// What the launcher knows about the library's downloads, from the HTTP client's transfer observer: the
// transfers under way, the bytes received in all, and which URL delivered what with which HTTP status.
// Filled on the library's threads, read on the main thread.

#include <ZRVKit/ZRVTransferObserver.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class TransferLog : public ZRVTransferObserver {
 public:
  void transferStarted(const ZRVTransferState& state) override;
  void transferProgressed(const ZRVTransferState& state) override;
  void transferEnded(const ZRVTransferState& state) override;

  /// Body bytes received by every transfer so far.
  std::uint64_t bytesReceived() const;
  /// The transfers still running, oldest first.
  std::vector<ZRVTransferState> inFlight() const;
  /// The transfers that ended since the last call, in the order they ended.
  std::vector<ZRVTransferState> takeEnded();
  /// The latest ended transfer of `url`, whether it delivered a body or failed.
  std::optional<ZRVTransferState> lastEnd(const std::string& url) const;

 private:
  mutable std::mutex mutex_;
  std::uint64_t bytes_ = 0;
  std::map<std::uint64_t, ZRVTransferState> running_;
  std::vector<ZRVTransferState> ended_;
  std::map<std::string, ZRVTransferState> lastEnds_;
};
