#pragma once
// Lets a bounded number of game files be worked on at once, without a thread waiting for a turn: a file
// that cannot start now is started by the one that leaves.

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace zrv::update {

class FileGate : public std::enable_shared_from_this<FileGate> {
 public:
  explicit FileGate(std::size_t width) : free_(width) {}

  /// Runs `start` now if a place is free, else when one frees up (on the thread that frees it).
  void enter(std::function<void()> start) {
    {
      std::lock_guard lock(mutex_);
      if (free_ == 0) {
        waiting_.push_back(std::move(start));
        return;
      }
      --free_;
    }
    start();
  }

  /// Gives a place back; hands it straight to the next waiting file, if any.
  void leave() {
    std::function<void()> next;
    {
      std::lock_guard lock(mutex_);
      if (waiting_.empty()) {
        ++free_;
        return;
      }
      next = std::move(waiting_.front());
      waiting_.pop_front();
    }
    next();
  }

 private:
  std::mutex mutex_;
  std::size_t free_;
  std::deque<std::function<void()>> waiting_;
};

}  // namespace zrv::update
