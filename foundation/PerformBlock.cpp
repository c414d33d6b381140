#include <ZRVKit/PerformBlock.h>

#include <ZRVKit/ZRVMainQueue.h>

namespace PerformBlock {

void performAfterDelay(double seconds, std::function<void()> block) {
  ZRVOperationQueue& queue = ZRVMainQueue::isMainThread() ? static_cast<ZRVOperationQueue&>(
                                                                 ZRVOperationQueue::mainQueue())
                                                           : ZRVOperationQueue::workQueue();
  queue.addOperationAfterDelay(seconds, std::move(block));
}

void performOnMainThreadWaitUntilDone(bool wait, std::function<void()> block) {
  if (!block) return;
  if (wait && ZRVMainQueue::isMainThread()) {
    block();
    return;
  }
  auto operation = ZRVOperationQueue::mainQueue().addOperationWithBlock(std::move(block));
  if (wait) operation->waitUntilFinished();
}

void performOnMainThreadWaitUntilDone(bool wait, double seconds, std::function<void()> block) {
  if (!block) return;
  performOnMainThreadWaitUntilDone(wait, [seconds, block = std::move(block)]() mutable {
    ZRVOperationQueue::mainQueue().addOperationAfterDelay(seconds, std::move(block));
  });
}

}  // namespace PerformBlock
