#pragma once
// Operation queues. `workQueue()` is the shared parallel queue for all of the library's background work;
// `mainQueue()` is the serial queue whose operations run on the application's main thread.
//
// The work queue's width grows with demand: it keeps about as many threads running as there are cores,
// and adds threads while queued work waits and its threads are blocked, so operations that wait for other
// operations finish instead of deadlocking.

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

 private:
  struct Pool;
  void workerLoop();
  void spawnWorkersLocked(std::size_t count);
  void monitorLoop();
  bool mayStartAnotherLocked() const;

  std::string name_;
  int maxConcurrent_;
  std::unique_ptr<Pool> pool_;

  mutable std::mutex countMutex_;
  std::condition_variable allFinished_;
  std::size_t outstanding_ = 0;
};
