#include "publish/InOrderWork.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

unsigned workerCount(unsigned requested) {
  if (requested > 0) return requested;
  return std::max(1u, std::thread::hardware_concurrency());
}

void runInOrder(std::size_t count, const InOrderWork& plan) {
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t next = 0;            // the next item to start
  std::uintmax_t claimed = 0;      // bytes claimed by started, unfinished items
  std::size_t running = 0;
  bool failed = false;
  std::vector<char> done(count, 0);
  std::vector<std::exception_ptr> errors(count);

  auto worker = [&] {
    std::unique_lock lock(mutex);
    for (;;) {
      // Items start in order, so a large item waits for room rather than being overtaken for ever.
      std::uintmax_t cost = 0;
      changed.wait(lock, [&] {
        if (failed || next == count) return true;
        cost = plan.claim(next);
        return running == 0 || claimed + cost <= plan.budget;
      });
      if (failed || next == count) return;
      std::size_t item = next++;
      claimed += cost;
      ++running;
      lock.unlock();
      std::exception_ptr error;
      try {
        plan.work(item);
      } catch (...) {
        error = std::current_exception();
      }
      lock.lock();
      claimed -= cost;
      --running;
      errors[item] = error;
      done[item] = 1;
      if (error) failed = true;
      changed.notify_all();
    }
  };

  std::vector<std::thread> threads;
  const unsigned workers = static_cast<unsigned>(std::min<std::size_t>(std::max(1u, plan.workers), count));
  threads.reserve(workers);
  std::exception_ptr firstError;
  {
    std::unique_lock lock(mutex);
    for (unsigned i = 0; i < workers; ++i) threads.emplace_back(worker);
    for (std::size_t reported = 0; reported < count; ++reported) {
      changed.wait(lock, [&] { return done[reported] || (failed && running == 0); });
      if (!done[reported]) break;  // never started: an item before it failed
      if (errors[reported]) {
        firstError = errors[reported];
        break;
      }
      lock.unlock();
      try {
        plan.finished(reported);
      } catch (...) {
        firstError = std::current_exception();
      }
      lock.lock();
      if (firstError) {
        failed = true;
        changed.notify_all();
        break;
      }
    }
  }
  for (auto& thread : threads) thread.join();
  if (!firstError) {
    // A failure after the last reported item cannot happen (all were reported), but one before an item that
    // never started is found here.
    for (std::size_t i = 0; i < count && !firstError; ++i) firstError = errors[i];
  }
  if (firstError) std::rethrow_exception(firstError);
}
