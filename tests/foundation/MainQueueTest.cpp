#include <ZRVKit/PerformBlock.h>
#include <ZRVKit/ZRVMainQueue.h>

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>

using namespace std::chrono_literals;

TEST(MainQueue, WaitingRunsAtOnceOnTheMainThreadAndUntilTheMainThreadPumpsOnAWorker) {
  ASSERT_TRUE(ZRVMainQueue::isMainThread());
  bool ran = false;
  PerformBlock::performOnMainThreadWaitUntilDone(true, [&] { ran = true; });
  EXPECT_TRUE(ran);

  ZRVMainQueue& main = ZRVOperationQueue::mainQueue();
  std::atomic<bool> ranOnMain{false};
  std::atomic<bool> workerDone{false};
  ZRVOperationQueue::workQueue().addOperationWithBlock([&] {
    PerformBlock::performOnMainThreadWaitUntilDone(true, [&] { ranOnMain = ZRVMainQueue::isMainThread(); });
    workerDone = true;  // only after the block ran on the main thread
  });
  EXPECT_TRUE(main.runUntil([&] { return workerDone.load(); }, 5s));
  EXPECT_TRUE(ranOnMain.load());
}

TEST(MainQueue, WakeUpDescriptorAndHookServeAHostEventLoop) {
  ZRVMainQueue& main = ZRVOperationQueue::mainQueue();
  main.drain();
  std::atomic<int> hooks{0};
  main.setWakeUpHook([&] { ++hooks; });
  int order = 0;
  int first = 0;
  int second = 0;
  std::thread poster([&] {
    main.addOperationWithBlock([&] { first = ++order; });
    main.addOperationWithBlock([&] { second = ++order; });
  });
  poster.join();
  pollfd readable{main.wakeUpFileDescriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&readable, 1, 2000), 1);
  EXPECT_EQ(main.drain(), 2u);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 2);
  EXPECT_EQ(hooks.load(), 2);
  readable.revents = 0;
  EXPECT_EQ(poll(&readable, 1, 0), 0);  // drained: nothing to wake for
  main.setWakeUpHook(nullptr);
}

TEST(MainQueue, DelayedMainThreadBlockAndRunStop) {
  ZRVMainQueue& main = ZRVOperationQueue::mainQueue();
  std::atomic<bool> onMain{false};
  ZRVOperationQueue::workQueue().addOperationWithBlock([&] {
    PerformBlock::performOnMainThreadWaitUntilDone(false, 0.05, [&] {
      onMain = ZRVMainQueue::isMainThread();
      ZRVOperationQueue::mainQueue().stop();
    });
  });
  main.run();  // returns once the delayed block has stopped it
  EXPECT_TRUE(onMain.load());

  bool delayed = false;
  PerformBlock::performAfterDelay(0.01, [&] { delayed = ZRVMainQueue::isMainThread(); });
  EXPECT_TRUE(main.runUntil([&] { return delayed; }, 5s));
}

TEST(MainQueue, DrainRunsWhatIsReadyAndWhatThatMakesReadyButNotWhatWaitsElsewhere) {
  ZRVMainQueue& main = ZRVOperationQueue::mainQueue();
  main.drain();
  EXPECT_EQ(main.drain(), 0u);
  std::string order;
  auto first = ZRVOperation::operationWithBlock([&] {
    order += 'a';
    main.addOperationWithBlock([&] { order += 'c'; });  // posted while draining: runs in the same drain
  });
  auto second = ZRVOperation::operationWithBlock([&] { order += 'b'; });
  second->addDependency(first);
  std::promise<void> open;
  auto opened = open.get_future().share();
  auto background = ZRVOperation::operationWithBlock([opened] { opened.wait(); });
  auto afterBackground = ZRVOperation::operationWithBlock([&] { order += ZRVMainQueue::isMainThread() ? 'm' : '?'; });
  afterBackground->addDependency(background);
  main.addOperation(second);
  main.addOperation(afterBackground);
  main.addOperation(first);
  ZRVOperationQueue::workQueue().addOperation(background);
  EXPECT_EQ(main.drain(), 3u);
  EXPECT_EQ(order, "acb");  // in the order each became ready
  open.set_value();
  EXPECT_TRUE(main.runUntil([&] { return afterBackground->isFinished(); }, 5s));
  EXPECT_EQ(order, "acbm");
}
