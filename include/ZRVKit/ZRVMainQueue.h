#pragma once
// The serial queue of the application's main thread. The application either pumps it (run, runUntil,
// drain) or lets its own event loop drain it: poll wakeUpFileDescriptor() or install a wake-up hook.

#include <ZRVKit/ZRVKitExport.h>
#include <ZRVKit/ZRVOperationQueue.h>

#include <chrono>
#include <functional>
#include <optional>

class ZRVKIT_EXPORT ZRVMainQueue : public ZRVOperationQueue {
 public:
  /// True on the thread that counts as the main thread: the process's first thread unless rebound.
  static bool isMainThread();
  /// Makes the calling thread the main thread (an application whose event loop runs elsewhere).
  static void bindToCurrentThread();

  /// Runs every operation that is ready now, and those they make ready; returns how many ran.
  std::size_t drain();
  /// Runs operations until `done` returns true (checked after each wake-up) or the time-out passes.
  /// Returns `done()`.
  bool runUntil(const std::function<bool()>& done,
                std::optional<std::chrono::milliseconds> timeout = std::nullopt);
  /// Runs operations until stop() is called.
  void run();
  /// Makes run() return; callable from any thread.
  void stop();

  /// A descriptor that is readable while operations wait; call drain() when it is.
  int wakeUpFileDescriptor() const { return eventFD_; }
  /// Called, on the posting thread, each time an operation becomes ready.
  void setWakeUpHook(std::function<void()> hook);

  ZRVMainQueue();
  ~ZRVMainQueue() override;

 protected:
  void enqueueReady(std::shared_ptr<ZRVOperation> operation) override;

 private:
  std::shared_ptr<ZRVOperation> takeReady(std::optional<std::chrono::steady_clock::time_point> deadline);

  mutable std::mutex mutex_;
  std::condition_variable readyCondition_;
  std::deque<std::shared_ptr<ZRVOperation>> ready_;
  std::function<void()> wakeUpHook_;
  bool stopRequested_ = false;
  int eventFD_ = -1;
};
