#pragma once
// Operation queues. `workQueue()` is the shared parallel queue for all of the library's background work;
// `mainQueue()` is the serial queue whose operations run on the application's main thread.
//
// The work queue's width follows demand: it keeps about as many threads making progress as there are cores.
// A thread counts as making progress while it runs an operation, even one the machine's other processes
// leave waiting for a processor, and while it waits in a HeldBackScope (for a turn at something the library
// bounds, which the threads holding it give back without further help). Ready work gets another thread
// when fewer threads than cores make progress because some of them wait:
// - in a wait the queue knows of (waitUntilFinished, waitUntilAllOperationsAreFinished, a BlockingScope):
//   at once;
// - in a wait the queue cannot see (a plain condition variable, a pipe, a lock): once the thread has been
//   asleep without using the processor for a while, as the system reports it. Such waits cost a thread
//   each and are found only after a delay; up to the queue's ceiling of 512 threads. Work that waits on
//   something outside the queue finishes once that is released, but anything beyond the ceiling waits for
//   one of those threads.
// Waiting on an operation of this queue that has not started yet, from one of its threads, runs it on the
// waiting thread (a few dozen levels deep at most; deeper, the waiter is replaced as in a known wait), so
// items that queue work and wait on it need no thread of their own. Threads beyond the core count leave
// after two seconds without work.

#include <ZRVKit/ZRVKitExport.h>
#include <ZRVKit/ZRVOperation.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class ZRVMainQueue;

class ZRVKIT_EXPORT ZRVOperationQueue {
 public:
  /// No fixed limit: the width follows demand.
  static constexpr int kDefaultMaxConcurrentOperationCount = -1;

  /// The shared queue "workQueue", created once and never destroyed.
  static ZRVOperationQueue& workQueue();
  /// The main thread's queue (see ZRVMainQueue).
  static ZRVMainQueue& mainQueue();
  /// The queue whose operation is running on this thread, if any.
  static ZRVOperationQueue* currentQueue();

  /// A queue of its own; `maxConcurrentOperationCount` 1 makes it serial. Destroying it waits for its operations.
  explicit ZRVOperationQueue(std::string name, int maxConcurrentOperationCount = kDefaultMaxConcurrentOperationCount);
  virtual ~ZRVOperationQueue();
  ZRVOperationQueue(const ZRVOperationQueue&) = delete;
  ZRVOperationQueue& operator=(const ZRVOperationQueue&) = delete;

  const std::string& name() const { return name_; }

  /// Runs `operation` once its dependencies have finished.
  void addOperation(std::shared_ptr<ZRVOperation> operation);
  /// Wraps `block` in an operation and adds it; the operation is returned for dependencies and waiting.
  std::shared_ptr<ZRVOperation> addOperationWithBlock(ZRVOperation::Block block);
  /// Adds all of `operations`; with `waitUntilFinished` the caller blocks until each has run.
  void addOperations(const std::vector<std::shared_ptr<ZRVOperation>>& operations, bool waitUntilFinished);
  /// Adds `block` as an operation once `seconds` have passed. The queue must outlive the delay.
  void addOperationAfterDelay(double seconds, ZRVOperation::Block block);

  /// Blocks until every operation added so far has finished.
  void waitUntilAllOperationsAreFinished();

  /// Number of threads the queue has now (for tests and diagnostics).
  std::size_t threadCount() const;
  /// The most threads the queue has had at once since it was made or since resetPeakThreadCount().
  std::size_t peakThreadCount() const;
  /// Starts a new peak at the present thread count.
  void resetPeakThreadCount();

  /// Tells the queue that the current thread is about to block waiting for other work, so that the queue
  /// may start another thread meanwhile. Harmless on threads that are not the queue's.
  class BlockingScope {
   public:
    BlockingScope();
    ~BlockingScope();
    BlockingScope(const BlockingScope&) = delete;
    BlockingScope& operator=(const BlockingScope&) = delete;

   private:
    ZRVOperationQueue* queue_;
  };

  /// Tells the queue that the current thread is about to wait for its turn at something the library bounds
  /// (a pool of decoder tables, blocks being decoded by other threads), which threads already running give
  /// back without needing any queued work: the queue starts no thread for this wait. Harmless elsewhere.
  class HeldBackScope {
   public:
    HeldBackScope();
    ~HeldBackScope();
    HeldBackScope(const HeldBackScope&) = delete;
    HeldBackScope& operator=(const HeldBackScope&) = delete;

   private:
    ZRVOperationQueue* queue_;
  };

 protected:
  friend class ZRVOperation;
  /// For queues that run their operations themselves (the main queue): no threads of their own.
  struct SelfDriven {};
  ZRVOperationQueue(std::string name, SelfDriven);

  /// A ready operation: run it as the queue's policy says.
  virtual void enqueueReady(std::shared_ptr<ZRVOperation> operation);
  /// Runs `operation` on the calling thread as an operation of this queue.
  void runOperation(const std::shared_ptr<ZRVOperation>& operation);
  void operationDidFinish();
  /// Takes `operation` out of the ready work and runs it on this thread, if it is there (see waitUntilFinished).
  bool runWaitedForOperationHere(const std::shared_ptr<ZRVOperation>& operation);

 private:
  struct Pool;
  struct Worker;
  void workerLoop();
  void spawnWorkersLocked(std::size_t count);
  void monitorLoop();
  void findStuckWorkersLocked(std::chrono::steady_clock::time_point now);
  void forgetStuckWorkersLocked();
  bool mayStartAnotherLocked() const;

  std::string name_;
  int maxConcurrent_;
  std::unique_ptr<Pool> pool_;

  mutable std::mutex countMutex_;
  std::condition_variable allFinished_;
  std::size_t outstanding_ = 0;
};
