#include <ZRVKit/ZRVOperation.h>

#include <ZRVKit/ZRVLog.h>
#include <ZRVKit/ZRVOperationQueue.h>

#include <exception>

std::shared_ptr<ZRVOperation> ZRVOperation::operationWithBlock(Block block) {
  return std::make_shared<ZRVOperation>(std::move(block));
}

std::shared_ptr<ZRVOperation> ZRVOperation::asynchronousOperationWithBlock(AsynchronousBlock block) {
  auto operation = std::make_shared<ZRVOperation>(Block{});
  operation->asynchronousBlock_ = std::move(block);
  return operation;
}

ZRVOperation::ZRVOperation(Block block) : block_(std::move(block)) {}

void ZRVOperation::addDependency(const std::shared_ptr<ZRVOperation>& operation) {
  if (!operation || operation.get() == this) return;
  {
    std::lock_guard lock(mutex_);
    ++pendingDependencies_;
  }
  bool registered = false;
  {
    std::lock_guard lock(operation->mutex_);
    if (!operation->finished_) {
      operation->dependents_.push_back(shared_from_this());
      registered = true;
    }
  }
  if (!registered) dependencyFinished();
}

bool ZRVOperation::isFinished() const {
  std::lock_guard lock(mutex_);
  return finished_;
}

void ZRVOperation::waitUntilFinished() {
  const auto self = weak_from_this().lock();
  for (;;) {
    bool ready;
    {
      std::lock_guard lock(mutex_);
      if (finished_) return;
      ready = enqueued_;
    }
    // An operation that waits for one its queue has not started yet would otherwise need a thread of its own
    // for it: run it here instead.
    if (ready && self) {
      if (auto* queue = ZRVOperationQueue::currentQueue()) queue->runWaitedForOperationHere(self);
    }
    std::unique_lock lock(mutex_);
    if (finished_) return;
    if (!queue_) {
      // Not queued yet: whoever will queue it works outside the queue's sight, like any wait it cannot see.
      finishedCondition_.wait(lock, [this] { return finished_ || queue_ != nullptr; });
      continue;
    }
    ZRVOperationQueue::BlockingScope blocking;
    if (!ready) {
      finishedCondition_.wait(lock, [this] { return finished_ || enqueued_; });
      continue;
    }
    finishedCondition_.wait(lock, [this] { return finished_; });
    return;
  }
}

void ZRVOperation::didEnqueue() {
  {
    std::lock_guard lock(mutex_);
    enqueued_ = true;
  }
  finishedCondition_.notify_all();
}

bool ZRVOperation::attachToQueue(ZRVOperationQueue* queue) {
  bool runnable;
  {
    std::lock_guard lock(mutex_);
    queue_ = queue;
    runnable = pendingDependencies_ == 0 && !scheduled_;
    if (runnable) scheduled_ = true;
  }
  finishedCondition_.notify_all();  // a waiter now knows whose queue to tell
  return runnable;
}

void ZRVOperation::dependencyFinished() {
  ZRVOperationQueue* queue = nullptr;
  {
    std::lock_guard lock(mutex_);
    if (--pendingDependencies_ > 0 || !queue_ || scheduled_) return;
    scheduled_ = true;
    queue = queue_;
  }
  auto self = shared_from_this();
  queue->enqueueReady(self);
  self->didEnqueue();
}

void ZRVOperation::run() {
  Block block;
  AsynchronousBlock asynchronous;
  {
    std::lock_guard lock(mutex_);
    block = std::move(block_);
    block_ = nullptr;
    asynchronous = std::move(asynchronousBlock_);
    asynchronousBlock_ = nullptr;
  }
  // An operation that throws must not take the queue's thread down with it; it counts as finished.
  try {
    if (asynchronous) {
      auto self = shared_from_this();
      asynchronous([self] { self->markFinished(); });
      return;
    }
    if (block) block();
  } catch (const std::exception& exception) {
    ZRVLog::format("Unhandled exception %@ in an operation of %@", exception.what(),
                   queue_ ? queue_->name() : std::string("(null)"));
  } catch (...) {
    ZRVLog::format("Unhandled exception in an operation of %@", queue_ ? queue_->name() : std::string("(null)"));
  }
  markFinished();
}

void ZRVOperation::markFinished() {
  std::vector<std::shared_ptr<ZRVOperation>> dependents;
  ZRVOperationQueue* queue;
  {
    std::lock_guard lock(mutex_);
    if (finished_) return;
    finished_ = true;
    dependents.swap(dependents_);
    queue = queue_;
  }
  finishedCondition_.notify_all();
  for (auto& dependent : dependents) dependent->dependencyFinished();
  if (queue) queue->operationDidFinish();
}
