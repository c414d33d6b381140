#include <ZRVKit/ZRVOperationQueue.h>

#include <ZRVKit/ZRVMainQueue.h>

#include "foundation/DelayedScheduler.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <thread>

namespace {

thread_local ZRVOperationQueue* t_currentQueue = nullptr;
// How many operations the current thread runs inside waits for them (see runWaitedForOperationHere).
thread_local int t_inlineDepth = 0;

// Threads the default width keeps making progress; more are added only while some of them wait. Asked once:
// the answer reads a file under /sys, and the queue asks on every operation it is given.
std::size_t baseWidth() {
  static const std::size_t width = std::max<std::size_t>(2, std::thread::hardware_concurrency());
  return width;
}

// A ceiling far above any real need, so that a runaway producer cannot exhaust the process.
constexpr std::size_t kThreadCeiling = 512;
// Threads above the base width leave after this long without work.
constexpr auto kSurplusIdleTime = std::chrono::seconds(2);
// How often the monitor looks at the threads while queued work finds none free.
constexpr auto kMonitorInterval = std::chrono::milliseconds(25);
// A thread asleep this long without using the processor is waiting for something the queue cannot see.
constexpr auto kStuckAfter = std::chrono::milliseconds(60);
// Processor time below which a sleeping thread counts as not having worked during one interval.
constexpr auto kQuietCPU = std::chrono::milliseconds(2);
// Operations run inside waits for them nest at most this deep; a stack of them must stay far from the
// thread's stack size.
constexpr int kMaxInlineDepth = 48;

std::chrono::nanoseconds cpuTime(clockid_t clock) {
  timespec now{};
  if (clock_gettime(clock, &now) != 0) return {};
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// The scheduler's view of a thread: 'R' while it runs or waits for a processor, 'S' or 'D' while it sleeps.
char schedulerState(pid_t thread) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/task/%d/stat", static_cast<int>(thread));
  int descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return '?';
  char text[512];
  ssize_t length = ::read(descriptor, text, sizeof text - 1);
  ::close(descriptor);
  if (length <= 0) return '?';
  text[length] = '\0';
  // "tid (name) S ...": the name may hold anything, so the state follows the last parenthesis.
  const char* close = std::strrchr(text, ')');
  return close && close[1] == ' ' ? close[2] : '?';
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

// One thread of a queue, as the monitor sees it. Lives on the thread's stack; guarded by the pool's mutex.
struct ZRVOperationQueue::Worker {
  pid_t thread = 0;
  clockid_t cpuClock{};
  bool running = false;
  int knownWaits = 0;  // BlockingScope
  int heldBack = 0;    // HeldBackScope
  bool stuck = false;  // asleep in a wait the queue cannot see
  std::chrono::nanoseconds cpuAtLastLook{};
  std::optional<std::chrono::steady_clock::time_point> quietSince;
};

struct ZRVOperationQueue::Pool {
  std::mutex mutex;
  std::condition_variable workAvailable;
  std::condition_variable monitorWake;
  std::condition_variable threadsGone;
  std::deque<std::shared_ptr<ZRVOperation>> ready;
  std::vector<Worker*> workers;
  std::size_t threads = 0;
  std::size_t peakThreads = 0;
  std::size_t idle = 0;
  std::size_t running = 0;
  std::size_t blocked = 0;  // running, in a known wait
  std::size_t stuck = 0;    // running, asleep in a wait the queue cannot see
  bool monitorStarted = false;
  bool monitorResting = false;  // in its long wait: nothing queued waits for a thread
  bool shuttingDown = false;

  /// The worker record of the calling thread, if it is one of this pool's threads.
  Worker* currentWorker() const { return threadPool == this ? threadWorker : nullptr; }
  static thread_local Worker* threadWorker;

  /// With the pool locked, `change(pool, worker)` for the calling thread, when it is a thread of `queue`'s pool;
  /// false, and nothing done, otherwise.
  template <class Change>
  static bool changeCurrentWorker(ZRVOperationQueue* queue, Change change) {
    Pool* pool = queue ? queue->pool_.get() : nullptr;
    Worker* worker = pool ? pool->currentWorker() : nullptr;
    if (!worker) return false;
    std::lock_guard lock(pool->mutex);
    change(*pool, *worker);
    return true;
  }

  /// Counts a wait of the kind `waits` counts starting on `worker`, whom the monitor then no longer takes for
  /// stuck; the count before. With the pool locked.
  int enterWaitLocked(Worker& worker, int Worker::*waits) {
    if (worker.stuck) --stuck;
    worker.stuck = false;
    worker.quietSince.reset();
    return (worker.*waits)++;
  }
  static thread_local const Pool* threadPool;
};

thread_local ZRVOperationQueue::Worker* ZRVOperationQueue::Pool::threadWorker = nullptr;
thread_local const ZRVOperationQueue::Pool* ZRVOperationQueue::Pool::threadPool = nullptr;

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
  if (operation->attachToQueue(this)) {
    enqueueReady(operation);
    operation->didEnqueue();
  }
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

std::size_t ZRVOperationQueue::peakThreadCount() const {
  if (!pool_) return 0;
  std::lock_guard lock(pool_->mutex);
  return pool_->peakThreads;
}

void ZRVOperationQueue::resetPeakThreadCount() {
  if (!pool_) return;
  std::lock_guard lock(pool_->mutex);
  pool_->peakThreads = pool_->threads;
}

void ZRVOperationQueue::operationDidFinish() {
  std::lock_guard lock(countMutex_);
  if (--outstanding_ == 0) allFinished_.notify_all();
}

void ZRVOperationQueue::runOperation(const std::shared_ptr<ZRVOperation>& operation) {
  CurrentQueueScope scope(this);
  operation->run();
}

bool ZRVOperationQueue::runWaitedForOperationHere(const std::shared_ptr<ZRVOperation>& operation) {
  if (!pool_ || t_currentQueue != this || t_inlineDepth >= kMaxInlineDepth) return false;
  {
    std::lock_guard lock(pool_->mutex);
    auto& ready = pool_->ready;
    auto found = std::find(ready.rbegin(), ready.rend(), operation);  // most often the one just added
    if (found == ready.rend()) return false;
    ready.erase(std::next(found).base());
  }
  ++t_inlineDepth;
  runOperation(operation);
  --t_inlineDepth;
  return true;
}

// Another thread is started while ready work finds no free thread and fewer threads than cores are making
// progress, counting the threads that are starting up as making progress already.
bool ZRVOperationQueue::mayStartAnotherLocked() const {
  const Pool& pool = *pool_;
  if (maxConcurrent_ > 0) return pool.threads < static_cast<std::size_t>(maxConcurrent_);
  if (pool.threads >= kThreadCeiling || pool.threads >= pool.running + pool.idle + pool.ready.size()) return false;
  const std::size_t starting = pool.threads - pool.running - pool.idle;
  const std::size_t waiting = std::min(pool.running, pool.blocked + pool.stuck);
  return pool.running - waiting + starting < baseWidth();
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
    // Only a resting monitor needs the news; one already looking keeps its own interval, or every item
    // queued would make it read the threads' state again.
    if (pool_->monitorResting && pool_->idle == 0) pool_->monitorWake.notify_one();
  }
}

void ZRVOperationQueue::spawnWorkersLocked(std::size_t count) {
  for (std::size_t i = 0; i < count && pool_->threads < kThreadCeiling; ++i) {
    ++pool_->threads;
    pool_->peakThreads = std::max(pool_->peakThreads, pool_->threads);
    std::thread([this] { workerLoop(); }).detach();
  }
}

void ZRVOperationQueue::workerLoop() {
  Pool& pool = *pool_;
  Worker self;
  self.thread = ::gettid();
  if (pthread_getcpuclockid(pthread_self(), &self.cpuClock) != 0) self.cpuClock = CLOCK_THREAD_CPUTIME_ID;
  Pool::threadWorker = &self;
  Pool::threadPool = &pool;
  std::unique_lock lock(pool.mutex);
  pool.workers.push_back(&self);
  for (;;) {
    if (!pool.ready.empty()) {
      auto operation = std::move(pool.ready.front());
      pool.ready.pop_front();
      ++pool.running;
      self.running = true;
      lock.unlock();
      runOperation(operation);
      operation.reset();
      lock.lock();
      if (self.stuck) --pool.stuck;
      self.stuck = false;
      self.quietSince.reset();
      self.running = false;
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
  pool.workers.erase(std::find(pool.workers.begin(), pool.workers.end(), &self));
  Pool::threadWorker = nullptr;
  Pool::threadPool = nullptr;
  --pool.threads;
  pool.threadsGone.notify_all();
}

// Marks the running threads that have slept without using the processor for a while, outside any wait the
// queue knows of. A thread that the machine's other processes keep from a processor is runnable, not
// asleep, so a busy machine makes nobody stuck.
void ZRVOperationQueue::findStuckWorkersLocked(std::chrono::steady_clock::time_point now) {
  Pool& pool = *pool_;
  pool.stuck = 0;
  for (Worker* worker : pool.workers) {
    const bool watched = worker->running && worker->knownWaits == 0 && worker->heldBack == 0;
    const auto cpu = cpuTime(worker->cpuClock);
    const bool quiet = watched && schedulerState(worker->thread) != 'R' && cpu - worker->cpuAtLastLook < kQuietCPU;
    worker->cpuAtLastLook = cpu;
    if (!quiet) {
      worker->quietSince.reset();
      worker->stuck = false;
      continue;
    }
    if (!worker->quietSince) worker->quietSince = now;
    worker->stuck = now - *worker->quietSince >= kStuckAfter;
    if (worker->stuck) ++pool.stuck;
  }
}

void ZRVOperationQueue::forgetStuckWorkersLocked() {
  pool_->stuck = 0;
  for (Worker* worker : pool_->workers) {
    worker->stuck = false;
    worker->quietSince.reset();
  }
}

// Looks at the threads while ready work finds none free; adds threads for those stuck in unseen waits.
// Known waits add a thread at once instead (BlockingScope).
void ZRVOperationQueue::monitorLoop() {
  Pool& pool = *pool_;
  std::unique_lock lock(pool.mutex);
  while (!pool.shuttingDown) {
    if (pool.ready.empty() || pool.idle > 0) {
      forgetStuckWorkersLocked();
      pool.monitorResting = true;
      pool.monitorWake.wait_for(lock, std::chrono::seconds(1));
      pool.monitorResting = false;
      continue;
    }
    pool.monitorWake.wait_for(lock, kMonitorInterval, [&] { return pool.shuttingDown; });
    if (pool.shuttingDown || pool.ready.empty() || pool.idle > 0) continue;
    findStuckWorkersLocked(std::chrono::steady_clock::now());
    while (mayStartAnotherLocked()) spawnWorkersLocked(1);
  }
  pool.monitorStarted = false;
  pool.threadsGone.notify_all();
}

ZRVOperationQueue::BlockingScope::BlockingScope() : queue_(t_currentQueue) {
  const bool counted = Pool::changeCurrentWorker(queue_, [this](Pool& pool, Worker& worker) {
    if (pool.enterWaitLocked(worker, &Worker::knownWaits) == 0) ++pool.blocked;
    if (!pool.ready.empty() && pool.idle == 0 && queue_->mayStartAnotherLocked()) queue_->spawnWorkersLocked(1);
  });
  if (!counted) queue_ = nullptr;
}

ZRVOperationQueue::BlockingScope::~BlockingScope() {
  Pool::changeCurrentWorker(queue_, [](Pool& pool, Worker& worker) {
    if (--worker.knownWaits == 0) --pool.blocked;
  });
}

ZRVOperationQueue::HeldBackScope::HeldBackScope() : queue_(t_currentQueue) {
  const bool counted = Pool::changeCurrentWorker(
      queue_, [](Pool& pool, Worker& worker) { pool.enterWaitLocked(worker, &Worker::heldBack); });
  if (!counted) queue_ = nullptr;
}

ZRVOperationQueue::HeldBackScope::~HeldBackScope() {
  Pool::changeCurrentWorker(queue_, [](Pool&, Worker& worker) { --worker.heldBack; });
}
