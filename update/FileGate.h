#pragma once
// Lets a bounded number of game files be worked on at once, without a thread waiting for a turn: a file
// that cannot start now is started by the one that leaves. The updater queues a file's work item only from
// `start`, so a waiting file is no queued work either and cannot make the work queue start threads. Besides the count, the bytes that
// the files in flight hold in memory are bounded, each file counted at what its caller says it will hold. A
// file that claims more than the whole budget still goes, alone.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

namespace zrv::update {

class FileGate {
 public:
  FileGate(std::size_t width, std::uintmax_t byteBudget) : width_(width), byteBudget_(byteBudget) {}

  /// Runs `start` now if the file fits, else when enough has left (on the thread that leaves). Files start
  /// in the order they entered.
  void enter(std::uintmax_t bytes, std::function<void()> start) {
    {
      std::lock_guard lock(mutex_);
      if (!waiting_.empty() || !fits(bytes)) {
        waiting_.push_back({bytes, std::move(start)});
        return;
      }
      admit(bytes);
    }
    start();
  }

  /// Gives a file's place back; starts the waiting files that now fit.
  void leave(std::uintmax_t bytes) {
    std::vector<std::function<void()>> starting;
    {
      std::lock_guard lock(mutex_);
      --count_;
      bytesInFlight_ -= bytes;
      while (!waiting_.empty() && fits(waiting_.front().bytes)) {
        admit(waiting_.front().bytes);
        starting.push_back(std::move(waiting_.front().start));
        waiting_.pop_front();
      }
    }
    for (auto& start : starting) start();
  }

 private:
  struct Waiting {
    std::uintmax_t bytes;
    std::function<void()> start;
  };

  bool fits(std::uintmax_t bytes) const {
    return count_ == 0 || (count_ < width_ && bytesInFlight_ + bytes <= byteBudget_);
  }
  void admit(std::uintmax_t bytes) {
    ++count_;
    bytesInFlight_ += bytes;
  }

  const std::size_t width_;
  const std::uintmax_t byteBudget_;
  std::mutex mutex_;
  std::size_t count_ = 0;
  std::uintmax_t bytesInFlight_ = 0;
  std::deque<Waiting> waiting_;
};

}  // namespace zrv::update
