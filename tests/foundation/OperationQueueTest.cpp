#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVOperationQueue.h>

#include "support/BusyProcesses.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <ctime>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

using namespace std::chrono_literals;

namespace {

std::size_t cores() { return std::max(2u, std::thread::hardware_concurrency()); }

// Polls `done` until it holds or the hang guard runs out; only a guard, never a measure of speed.
bool eventually(const std::function<bool()>& done, std::chrono::seconds guard = 120s) {
  auto deadline = std::chrono::steady_clock::now() + guard;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

bool settlesBackToOneThreadPerCore() {
  return eventually([] { return ZRVOperationQueue::workQueue().threadCount() <= cores(); }, 30s);
}

// Keeps a thread busy on the processor for about `length` of its own processor time.
void spin(std::chrono::milliseconds length) {
  timespec start{}, now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
  volatile unsigned sink = 0;
  do {
    for (int i = 0; i < 10000; ++i) sink = sink + static_cast<unsigned>(i);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  } while ((now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000 < length.count());
}

// Runs `items` items of `work` on the work queue and returns the most threads it had beyond those there
// before (or one per core, if that is more).
std::size_t extraThreadsRunning(int items, const std::function<void()>& work) {
  auto& queue = ZRVOperationQueue::workQueue();
  const std::size_t before = std::max(queue.threadCount(), cores());
  queue.resetPeakThreadCount();
  std::atomic<int> done{0};
  for (int i = 0; i < items; ++i) {
    queue.addOperationWithBlock([&] {
      work();
      ++done;
    });
  }
  EXPECT_TRUE(eventually([&] { return done.load() == items; }));
  return queue.peakThreadCount() > before ? queue.peakThreadCount() - before : 0;
}

}  // namespace

TEST(WorkQueue, IsOneSharedQueueRunningOffTheMainThread) {
  std::promise<std::pair<bool, ZRVOperationQueue*>> seen;
  ZRVOperationQueue::workQueue().addOperationWithBlock(
      [&] { seen.set_value({ZRVMainQueue::isMainThread(), ZRVOperationQueue::currentQueue()}); });
  auto future = seen.get_future();
  ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
  auto [onMain, queue] = future.get();
  EXPECT_FALSE(onMain);
  EXPECT_EQ(queue, &ZRVOperationQueue::workQueue());
}

TEST(WorkQueue, DelayedOperationsWaitTheirTurn) {
  std::promise<std::chrono::steady_clock::time_point> ranAt;
  auto start = std::chrono::steady_clock::now();
  ZRVOperationQueue::workQueue().addOperationAfterDelay(0.15, [&] { ranAt.set_value(std::chrono::steady_clock::now()); });
  auto future = ranAt.get_future();
  ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
  EXPECT_GE(future.get() - start, 140ms);
}

TEST(WorkQueue, AsynchronousOperationsFinishWhenTheySaySo) {
  // An item that waits for a callback holds no thread; what depends on it waits for the callback, even once
  // its other dependency has ended.
  std::function<void()> finishLater;
  std::mutex mutex;
  auto waiting = ZRVOperation::asynchronousOperationWithBlock([&](std::function<void()> finish) {
    std::lock_guard lock(mutex);
    finishLater = std::move(finish);
  });
  std::atomic<bool> dependentRan{false};
  auto dependent = ZRVOperation::operationWithBlock([&] { dependentRan = true; });
  auto quick = ZRVOperation::operationWithBlock([] {});
  dependent->addDependency(waiting);
  dependent->addDependency(quick);
  ZRVOperationQueue::workQueue().addOperations({waiting, dependent}, false);
  ZRVOperationQueue::workQueue().addOperation(quick);  // ends while the dependent is queued and waiting
  eventually([&] {
    std::lock_guard lock(mutex);
    return bool(finishLater);
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(waiting->isFinished());
  EXPECT_FALSE(dependentRan.load());
  {
    std::lock_guard lock(mutex);
    ASSERT_TRUE(finishLater);
    finishLater();
    finishLater();  // a second call changes nothing
  }
  dependent->waitUntilFinished();
  EXPECT_TRUE(dependentRan.load());
}

TEST(WorkQueue, TwoThousandItemsThatQueueAnItemAndWaitOnItFinishOnFewThreads) {
  // Each inner item is still waiting when its outer item waits on it, so the outer item runs it itself. A
  // waiter is replaced only while its inner item runs elsewhere, and then that item makes progress.
  EXPECT_LE(extraThreadsRunning(2000, [] { ZRVOperationQueue::workQueue().addOperationWithBlock([] {})->waitUntilFinished(); }),
            cores() + 2);
  EXPECT_TRUE(settlesBackToOneThreadPerCore());
}

TEST(WorkQueue, TwoThousandItemsWaitingOnAPartnerQueuedBehindThemFinish) {
  constexpr int kItems = 2000;
  std::vector<std::shared_ptr<ZRVOperation>> partners;
  std::atomic<int> finished{0};
  for (int i = 0; i < kItems; ++i) partners.push_back(ZRVOperation::operationWithBlock([&finished] { ++finished; }));
  for (int i = 0; i < kItems; ++i) {
    ZRVOperationQueue::workQueue().addOperationWithBlock([partner = partners[i], &finished] {
      partner->waitUntilFinished();
      ++finished;
    });
  }
  for (const auto& partner : partners) ZRVOperationQueue::workQueue().addOperation(partner);
  // Until its partner is queued an item waits for whoever queues it, which the queue cannot see, so a slow
  // producer costs threads; once queued, each partner runs on its waiter's thread.
  ASSERT_TRUE(eventually([&] { return finished.load() == 2 * kItems; }));
  EXPECT_TRUE(settlesBackToOneThreadPerCore());
}

TEST(WorkQueue, TwoThousandWaitersOnAnOutsideLatchFinishOnceReleased) {
  // Waits the queue cannot see cost a thread each, up to the ceiling; the rest wait for those threads.
  constexpr int kWaiters = 2000;
  std::mutex mutex;
  std::condition_variable opened;
  bool open = false;
  std::atomic<int> started{0};
  std::atomic<int> done{0};
  for (int i = 0; i < kWaiters; ++i) {
    ZRVOperationQueue::workQueue().addOperationWithBlock([&] {
      ++started;
      std::unique_lock lock(mutex);
      opened.wait(lock, [&] { return open; });
      ++done;
    });
  }
  ASSERT_TRUE(eventually([&] { return started.load() > static_cast<int>(cores()); }));
  {
    std::lock_guard lock(mutex);
    open = true;
  }
  opened.notify_all();
  ASSERT_TRUE(eventually([&] { return done.load() == kWaiters; }));
  EXPECT_TRUE(settlesBackToOneThreadPerCore());
}

TEST(WorkQueue, WaitsForWorkTheLibraryHoldsBackAddNoThreads) {
  // One turn at a time, handed from item to item: the waiters wait for running work, not for queued work.
  std::mutex mutex;
  std::condition_variable turnFree;
  bool taken = false;
  auto takeTurn = [&] {
    {
      ZRVOperationQueue::HeldBackScope heldBack;
      std::unique_lock lock(mutex);
      turnFree.wait(lock, [&] { return !taken; });
      taken = true;
    }
    spin(100ms);  // longer than a waiter may sleep before it counts as stuck
    {
      std::lock_guard lock(mutex);
      taken = false;
    }
    turnFree.notify_one();
  };
  EXPECT_EQ(extraThreadsRunning(10, takeTurn), 0u);
}

TEST(WorkQueue, ABusyMachineAddsNoThreadsForQueuedWork) {
  // Other processes keep every core busy, so this process gets little of the processor while its items
  // wait: its threads are kept from running, not blocked, and more of them would not help.
  BusyProcesses busy(static_cast<unsigned>(cores()));
  ASSERT_EQ(busy.size(), cores());
  EXPECT_EQ(extraThreadsRunning(60, [] { spin(10ms); }), 0u);
}

TEST(WorkQueue, AQueueRunsExactlyAsManyAtOnceAsItsWidthAndCarriesOnPastThrowingOperations) {
  for (int width : {1, 2, 3}) {
    ZRVOperationQueue queue("width", width);
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
    int most = 0;
    int ran = 0;
    for (int i = 0; i < 12; ++i) {
      queue.addOperationWithBlock([&, i] {
        std::unique_lock lock(mutex);
        most = std::max(most, ++running);
        changed.notify_all();
        // Held until the width has been reached once; a narrower queue leaves it here until the hang guard.
        changed.wait_for(lock, 20s, [&] { return most >= width; });
        --running;
        if (i % 4 == 0) throw std::runtime_error("operation failed");
        ++ran;
      });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(most, width) << "width " << width;
    EXPECT_EQ(ran, 9) << "width " << width;
  }
}

TEST(WorkQueue, ADependentRunsOnlyAfterItsDependencyWhereverThatRuns) {
  ZRVOperationQueue other("other", 1);
  const struct {
    const char* name;
    ZRVOperationQueue* dependencyQueue;
    bool throws;
    bool finishedFirst;
  } cases[] = {
      {"same queue", &ZRVOperationQueue::workQueue(), false, false},
      {"another queue", &other, false, false},
      {"the dependency throws", &ZRVOperationQueue::workQueue(), true, false},
      {"the dependency finished before it was named", &other, false, true},
  };
  for (const auto& c : cases) {
    std::atomic<bool> dependencyRan{false};
    std::atomic<bool> sawDependency{false};
    auto dependency = ZRVOperation::operationWithBlock([&] {
      std::this_thread::sleep_for(5ms);  // gives a dependent that ignores it the time to run first
      dependencyRan = true;
      if (c.throws) throw std::runtime_error("failed");
    });
    auto dependent = ZRVOperation::operationWithBlock([&] { sawDependency = dependencyRan.load(); });
    if (c.finishedFirst) {
      c.dependencyQueue->addOperation(dependency);
      dependency->waitUntilFinished();
    }
    dependent->addDependency(dependency);
    ZRVOperationQueue::workQueue().addOperation(dependent);  // queued before its dependency
    if (!c.finishedFirst) c.dependencyQueue->addOperation(dependency);
    dependent->waitUntilFinished();
    EXPECT_TRUE(sawDependency.load()) << c.name;
  }
}

TEST(WorkQueue, AWaiterReturnsOnlyOnceTheItemItWaitsOnHasRun) {
  // The item is queued but held back by a dependency, or not queued yet, or ready: in each case the waiter
  // must neither run it early nor return before it ran.
  ZRVOperationQueue serial("waiters", 1);
  enum class Item { heldBack, queuedLater, ready };
  const struct {
    const char* name;
    ZRVOperationQueue* waiterQueue;
    Item item;
  } cases[] = {
      {"held back, waited on from the work queue", &ZRVOperationQueue::workQueue(), Item::heldBack},
      {"held back, waited on from another queue", &serial, Item::heldBack},
      {"not queued yet", &ZRVOperationQueue::workQueue(), Item::queuedLater},
      {"ready, waited on from another queue", &serial, Item::ready},
  };
  for (const auto& c : cases) {
    std::promise<void> open;
    auto opened = open.get_future().share();
    auto blocker = ZRVOperation::operationWithBlock([opened] {
      ZRVOperationQueue::BlockingScope blocking;
      opened.wait();
    });
    std::atomic<bool> itemRan{false};
    auto item = ZRVOperation::operationWithBlock([&] { itemRan = true; });
    if (c.item == Item::heldBack) item->addDependency(blocker);
    std::atomic<bool> waiterDone{false};
    std::atomic<bool> waiterSawItem{false};
    c.waiterQueue->addOperationWithBlock([&] {
      item->waitUntilFinished();
      waiterSawItem = itemRan.load();
      waiterDone = true;
    });
    ZRVOperationQueue::workQueue().addOperation(blocker);
    if (c.item != Item::queuedLater) ZRVOperationQueue::workQueue().addOperation(item);
    if (c.item != Item::ready) {
      std::this_thread::sleep_for(20ms);  // time for a faulty waiter to return
      EXPECT_FALSE(waiterDone.load()) << c.name;
    }
    open.set_value();
    if (c.item == Item::queuedLater) ZRVOperationQueue::workQueue().addOperation(item);
    ASSERT_TRUE(eventually([&] { return waiterDone.load(); })) << c.name;
    EXPECT_TRUE(waiterSawItem.load()) << c.name;
    blocker->waitUntilFinished();
  }
}
