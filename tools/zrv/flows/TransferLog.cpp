#include "flows/TransferLog.h"

void TransferLog::transferStarted(const ZRVTransferState& state) {
  std::lock_guard lock(mutex_);
  running_[state.identifier] = state;
}

void TransferLog::transferProgressed(const ZRVTransferState& state) {
  std::lock_guard lock(mutex_);
  auto& known = running_[state.identifier];
  if (state.received > known.received) bytes_ += state.received - known.received;
  known = state;
}

void TransferLog::transferEnded(const ZRVTransferState& state) {
  std::lock_guard lock(mutex_);
  if (auto found = running_.find(state.identifier); found != running_.end()) {
    if (state.received > found->second.received) bytes_ += state.received - found->second.received;
    running_.erase(found);
  }
  ended_.push_back(state);
  lastEnds_[state.url] = state;
}

std::uint64_t TransferLog::bytesReceived() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

std::vector<ZRVTransferState> TransferLog::inFlight() const {
  std::lock_guard lock(mutex_);
  std::vector<ZRVTransferState> states;
  for (const auto& [identifier, state] : running_) states.push_back(state);
  return states;
}

std::vector<ZRVTransferState> TransferLog::takeEnded() {
  std::lock_guard lock(mutex_);
  std::vector<ZRVTransferState> states;
  states.swap(ended_);
  return states;
}

std::optional<ZRVTransferState> TransferLog::lastEnd(const std::string& url) const {
  std::lock_guard lock(mutex_);
  auto found = lastEnds_.find(url);
  if (found == lastEnds_.end()) return std::nullopt;
  return found->second;
}
