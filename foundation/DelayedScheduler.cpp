#include "foundation/DelayedScheduler.h"

#include <ZRVKit/ZRVOperationQueue.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace zrv::detail {
namespace {

class DelayedScheduler {
 public:
  static DelayedScheduler& shared() {
    static auto* scheduler = new DelayedScheduler();  // never destroyed: its thread lives as long as the process
    return *scheduler;
  }

  void schedule(std::chrono::steady_clock::time_point when, ZRVOperationQueue& queue, ZRVOperation::Block block) {
    {
      std::lock_guard lock(mutex_);
      pending_.emplace(when, Entry{&queue, std::move(block)});
      if (!started_) {
        started_ = true;
        std::thread([this] { loop(); }).detach();
      }
    }
    changed_.notify_one();
  }

 private:
  struct Entry {
    ZRVOperationQueue* queue;
    ZRVOperation::Block block;
  };

  void loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (pending_.empty()) {
        changed_.wait(lock);
        continue;
      }
      auto first = pending_.begin();
      if (first->first > std::chrono::steady_clock::now()) {
        changed_.wait_until(lock, first->first);
        continue;
      }
      Entry entry = std::move(first->second);
      pending_.erase(first);
      lock.unlock();
      entry.queue->addOperationWithBlock(std::move(entry.block));
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::multimap<std::chrono::steady_clock::time_point, Entry> pending_;
  bool started_ = false;
};

}  // namespace

void scheduleAfterDelay(std::chrono::steady_clock::duration delay, ZRVOperationQueue& queue,
                        ZRVOperation::Block block) {
  DelayedScheduler::shared().schedule(std::chrono::steady_clock::now() + delay, queue, std::move(block));
}

}  // namespace zrv::detail
