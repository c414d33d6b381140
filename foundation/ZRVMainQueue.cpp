#include <ZRVKit/ZRVMainQueue.h>

#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace {

// The process's first thread is the main thread unless the application names another one.
std::atomic<pid_t> g_mainThreadID{0};

pid_t currentThreadID() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// While waiting for a condition that work-queue threads may change, look again this often.
constexpr auto kConditionPollInterval = std::chrono::milliseconds(10);

}  // namespace

bool ZRVMainQueue::isMainThread() {
  pid_t main = g_mainThreadID.load();
  return currentThreadID() == (main != 0 ? main : getpid());
}

void ZRVMainQueue::bindToCurrentThread() { g_mainThreadID.store(currentThreadID()); }

ZRVMainQueue::ZRVMainQueue()
    : ZRVOperationQueue("main", SelfDriven{}), eventFD_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ZRVMainQueue::~ZRVMainQueue() {
  if (eventFD_ >= 0) close(eventFD_);
}

void ZRVMainQueue::setWakeUpHook(std::function<void()> hook) {
  std::lock_guard lock(mutex_);
  wakeUpHook_ = std::move(hook);
}

void ZRVMainQueue::enqueueReady(std::shared_ptr<ZRVOperation> operation) {
  std::function<void()> hook;
  {
    std::lock_guard lock(mutex_);
    ready_.push_back(std::move(operation));
    hook = wakeUpHook_;
    if (eventFD_ >= 0) {
      std::uint64_t one = 1;
      [[maybe_unused]] ssize_t written = ::write(eventFD_, &one, sizeof one);
    }
  }
  readyCondition_.notify_all();
  if (hook) hook();
}

std::shared_ptr<ZRVOperation> ZRVMainQueue::takeReady(
    std::optional<std::chrono::steady_clock::time_point> deadline) {
  std::unique_lock lock(mutex_);
  auto available = [this] { return !ready_.empty() || stopRequested_; };
  if (deadline) {
    readyCondition_.wait_until(lock, *deadline, available);
  } else {
    readyCondition_.wait(lock, available);
  }
  if (ready_.empty()) return nullptr;
  auto operation = std::move(ready_.front());
  ready_.pop_front();
  if (ready_.empty() && eventFD_ >= 0) {
    std::uint64_t count;
    [[maybe_unused]] ssize_t consumed = ::read(eventFD_, &count, sizeof count);
  }
  return operation;
}

std::size_t ZRVMainQueue::drain() {
  std::size_t count = 0;
  while (auto operation = takeReady(std::chrono::steady_clock::time_point::min())) {
    runOperation(operation);
    ++count;
  }
  return count;
}

bool ZRVMainQueue::runUntil(const std::function<bool()>& done, std::optional<std::chrono::milliseconds> timeout) {
  std::optional<std::chrono::steady_clock::time_point> end;
  if (timeout) end = std::chrono::steady_clock::now() + *timeout;
  while (!done()) {
    auto now = std::chrono::steady_clock::now();
    if (end && now >= *end) break;
    auto slice = now + kConditionPollInterval;
    if (auto operation = takeReady(end ? std::min(slice, *end) : slice)) runOperation(operation);
  }
  return done();
}

void ZRVMainQueue::run() {
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopRequested_) {
        stopRequested_ = false;
        return;
      }
    }
    if (auto operation = takeReady(std::nullopt)) runOperation(operation);
  }
}

void ZRVMainQueue::stop() {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
  }
  readyCondition_.notify_all();
}
