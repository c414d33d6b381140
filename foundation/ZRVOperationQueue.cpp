#include <ZRVKit/ZRVOperationQueue.h>

#include <ZRVKit/ZRVMainQueue.h>

#include "foundation/DelayedScheduler.h"

#include <algorithm>
#include <ctime>
#include <thread>

namespace {

thread_local ZRVOperationQueue* t_currentQueue = nullptr;

// Threads the default width keeps running; more are added only while the running ones are blocked.
std::size_t baseWidth() { return std::max<std::size_t>(2, std::thread::hardware_concurrency()); }

// A ceiling far above any real need, so that a runaway producer cannot exhaust the process.
constexpr std::size_t kThreadCeiling = 512;
// Threads above the base width leave after this long without work.
constexpr auto kSurplusIdleTime = std::chrono::seconds(5);
// How often the monitor looks for queued work that no thread takes.
constexpr auto kMonitorInterval = std::chrono::milliseconds(20);

std::chrono::nanoseconds processCPUTime() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

class CurrentQueueScope {
 public:
  explicit CurrentQueueScope(ZRVOperationQueue* queue) : previous_(t_currentQueue) { t_currentQueue = queue; }
  ~CurrentQueueScope() { t_currentQueue = previous_; }
  CurrentQueueScope(const CurrentQueueScope&) = delete;
  CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

 private:
  ZRVOperationQueue* previous_;
};

}  // namespace

struct ZRVOperationQueue::Pool {
  std::mutex mutex;
  std::condition_variable workAvailable;
  std::condition_variable monitorWake;
  std::condition_variable threadsGone;
  std::deque<std::shared_ptr<ZRVOperation>> ready;
  std::size_t threads = 0;
  std::size_t idle = 0;
  std::size_t running = 0;
  std::size_t blocked = 0;
  bool monitorStarted = false;
  bool shuttingDown = false;
};

ZRVOperationQueue& ZRVOperationQueue::workQueue() {
  static auto* queue = new ZRVOperationQueue("workQueue");  // lives as long as the process
  return *queue;
}

ZRVMainQueue& ZRVOperationQueue::mainQueue() {
  static auto* queue = new ZRVMainQueue();
  return *queue;
}

ZRVOperationQueue* ZRVOperationQueue::currentQueue() { return t_currentQueue; }

ZRVOperationQueue::ZRVOperationQueue(std::string name, int maxConcurrentOperationCount)
    : name_(std::move(name)), maxConcurrent_(maxConcurrentOperationCount), pool_(std::make_unique<Pool>()) {}

ZRVOperationQueue::ZRVOperationQueue(std::string name, SelfDriven) : name_(std::move(name)), maxConcurrent_(1) {}

ZRVOperationQueue::~ZRVOperationQueue() {
  if (!pool_) return;
  waitUntilAllOperationsAreFinished();
  std::unique_lock lock(pool_->mutex);
  pool_->shuttingDown = true;
  pool_->workAvailable.notify_all();
  pool_->monitorWake.notify_all();
  pool_->threadsGone.wait(lock, [this] { return pool_->threads == 0 && !pool_->monitorStarted; });
}

void ZRVOperationQueue::addOperation(std::shared_ptr<ZRVOperation> operation) {
  if (!operation) return;
  {
    std::lock_guard lock(countMutex_);
    ++outstanding_;
  }
  if (operation->attachToQueue(this)) enqueueReady(std::move(operation));
}

std::shared_ptr<ZRVOperation> ZRVOperationQueue::addOperationWithBlock(ZRVOperation::Block block) {
  auto operation = ZRVOperation::operationWithBlock(std::move(block));
  addOperation(operation);
  return operation;
}

void ZRVOperationQueue::addOperations(const std::vector<std::shared_ptr<ZRVOperation>>& operations,
                                      bool waitUntilFinished) {
  for (const auto& operation : operations) addOperation(operation);
  if (!waitUntilFinished) return;
  for (const auto& operation : operations) {
    if (operation) operation->waitUntilFinished();
  }
}

void ZRVOperationQueue::addOperationAfterDelay(double seconds, ZRVOperation::Block block) {
  auto delay = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(std::max(0.0, seconds)));
  zrv::detail::scheduleAfterDelay(delay, *this, std::move(block));
}

void ZRVOperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock lock(countMutex_);
  if (outstanding_ == 0) return;
  BlockingScope blocking;
  allFinished_.wait(lock, [this] { return outstanding_ == 0; });
}

std::size_t ZRVOperationQueue::threadCount() const {
  if (!pool_) return 0;
  std::lock_guard lock(pool_->mutex);
  return pool_->threads;
}

void ZRVOperationQueue::operationDidFinish() {
  std::lock_guard lock(countMutex_);
  if (--outstanding_ == 0) allFinished_.notify_all();
}

void ZRVOperationQueue::runOperation(const std::shared_ptr<ZRVOperation>& operation) {
  CurrentQueueScope scope(this);
  operation->run();
}

bool ZRVOperationQueue::mayStartAnotherLocked() const {
  const Pool& pool = *pool_;
  if (maxConcurrent_ > 0) return pool.threads < static_cast<std::size_t>(maxConcurrent_);
  std::size_t active = pool.running - pool.blocked;
  return pool.threads < kThreadCeiling && active < baseWidth() && pool.threads < pool.running + pool.ready.size();
}

void ZRVOperationQueue::enqueueReady(std::shared_ptr<ZRVOperation> operation) {
  std::lock_guard lock(pool_->mutex);
  pool_->ready.push_back(std::move(operation));
  if (pool_->idle > 0) {
    pool_->workAvailable.notify_one();
  } else if (mayStartAnotherLocked()) {
    spawnWorkersLocked(1);
  }
  if (maxConcurrent_ <= 0) {
    if (!pool_->monitorStarted) {
      pool_->monitorStarted = true;
      std::thread([this] { monitorLoop(); }).detach();
    }
    pool_->monitorWake.notify_one();
  }
}

void ZRVOperationQueue::spawnWorkersLocked(std::size_t count) {
  for (std::size_t i = 0; i < count && pool_->threads < kThreadCeiling; ++i) {
    ++pool_->threads;
    std::thread([this] { workerLoop(); }).detach();
  }
}

void ZRVOperationQueue::workerLoop() {
  Pool& pool = *pool_;
  std::unique_lock lock(pool.mutex);
  for (;;) {
    if (!pool.ready.empty()) {
      auto operation = std::move(pool.ready.front());
      pool.ready.pop_front();
      ++pool.running;
      lock.unlock();
      runOperation(operation);
      operation.reset();
      lock.lock();
      --pool.running;
      continue;
    }
    if (pool.shuttingDown) break;
    ++pool.idle;
    bool woken = pool.workAvailable.wait_for(lock, kSurplusIdleTime, [&] {
      return !pool.ready.empty() || pool.shuttingDown;
    });
    --pool.idle;
    if (!woken && pool.threads > baseWidth()) break;
  }
  --pool.threads;
  pool.threadsGone.notify_all();
}

// Adds threads while queued work waits, no thread is free and the process is hardly using the processor:
// then the running operations are blocked on something the queue cannot see, and waiting longer could
// deadlock them. Known waits (BlockingScope) add a thread at once instead.
void ZRVOperationQueue::monitorLoop() {
  Pool& pool = *pool_;
  std::unique_lock lock(pool.mutex);
  while (!pool.shuttingDown) {
    if (pool.ready.empty() || pool.idle > 0) {
      pool.monitorWake.wait_for(lock, std::chrono::seconds(1));
      continue;
    }
    auto cpuBefore = processCPUTime();
    auto wallBefore = std::chrono::steady_clock::now();
    pool.monitorWake.wait_for(lock, kMonitorInterval);
    if (pool.shuttingDown || pool.ready.empty() || pool.idle > 0) continue;
    auto cpuUsed = processCPUTime() - cpuBefore;
    auto wallPassed = std::chrono::steady_clock::now() - wallBefore;
    if (cpuUsed * 2 < wallPassed) spawnWorkersLocked(std::max<std::size_t>(1, pool.threads / 4));
  }
  pool.monitorStarted = false;
  pool.threadsGone.notify_all();
}

ZRVOperationQueue::BlockingScope::BlockingScope() : queue_(t_currentQueue) {
  if (!queue_ || !queue_->pool_) {
    queue_ = nullptr;
    return;
  }
  Pool& pool = *queue_->pool_;
  std::lock_guard lock(pool.mutex);
  ++pool.blocked;
  if (!pool.ready.empty() && pool.idle == 0 && queue_->mayStartAnotherLocked()) queue_->spawnWorkersLocked(1);
}

ZRVOperationQueue::BlockingScope::~BlockingScope() {
  if (!queue_) return;
  std::lock_guard lock(queue_->pool_->mutex);
  --queue_->pool_->blocked;
}
