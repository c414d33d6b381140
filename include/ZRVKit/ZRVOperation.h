#pragma once
// One unit of work for a ZRVOperationQueue, with dependencies on other operations.
// An operation runs once, after every operation it depends on has finished.

#include <ZRVKit/ZRVKitExport.h>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class ZRVOperationQueue;

class ZRVKIT_EXPORT ZRVOperation : public std::enable_shared_from_this<ZRVOperation> {
 public:
  using Block = std::function<void()>;
  /// Starts work that ends later: the operation is finished when `finish` is called, not when the block
  /// returns, and it holds no thread in between.
  using AsynchronousBlock = std::function<void(std::function<void()> finish)>;

  /// An operation that runs `block` and is finished when it returns.
  static std::shared_ptr<ZRVOperation> operationWithBlock(Block block);
  /// An operation that counts as running until its block's `finish` has been called (once; later calls do nothing).
  /// One whose `finish` is never called never finishes, and neither do the operations that depend on it.
  static std::shared_ptr<ZRVOperation> asynchronousOperationWithBlock(AsynchronousBlock block);

  /// This operation will not start before `operation` has finished. Add dependencies before queueing.
  void addDependency(const std::shared_ptr<ZRVOperation>& operation);

  bool isFinished() const;
  /// Blocks until the operation has run. Called on a thread of the queue that holds the operation ready but
  /// not started, it runs the operation right here; otherwise a waiting work-queue thread is replaced meanwhile.
  void waitUntilFinished();

  explicit ZRVOperation(Block block);
  ZRVOperation(const ZRVOperation&) = delete;
  ZRVOperation& operator=(const ZRVOperation&) = delete;

 private:
  friend class ZRVOperationQueue;

  /// Called by the queue when it takes the operation; true when it may run at once.
  bool attachToQueue(ZRVOperationQueue* queue);
  /// Runs the block, marks the operation finished and releases its dependents.
  void run();
  void markFinished();
  void dependencyFinished();
  /// Called by the queue once the operation is among its ready work: a waiter may now run it itself.
  void didEnqueue();

  Block block_;
  AsynchronousBlock asynchronousBlock_;
  mutable std::mutex mutex_;
  std::condition_variable finishedCondition_;
  std::vector<std::shared_ptr<ZRVOperation>> dependents_;
  ZRVOperationQueue* queue_ = nullptr;
  int pendingDependencies_ = 0;
  bool scheduled_ = false;
  bool enqueued_ = false;
  bool finished_ = false;
};
