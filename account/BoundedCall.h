#pragma once
// Runs a blocking GLib call (libsecret, D-Bus) on a thread of its own with a bound on the wait, so that a
// keyring prompt nobody answers or a bus that never replies cannot hang the launcher. When the bound
// passes the call is cancelled; a call that ignores the cancellation is left to finish on its own.

#include <ZRVKit/ZRVOperationQueue.h>

#include <gio/gio.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace zrv::account {

template <class Result>
std::optional<Result> runBounded(std::chrono::milliseconds limit, std::function<Result(GCancellable*)> call) {
  struct Shared {
    std::mutex mutex;
    std::condition_variable finished;
    std::optional<Result> result;
    bool done = false;
  };
  auto shared = std::make_shared<Shared>();
  GCancellable* cancellable = g_cancellable_new();
  g_object_ref(cancellable);  // one reference for the worker, one for this side
  // Everything the worker touches is its own or shared: it may outlive this call.
  std::thread worker([shared, cancellable, call = std::move(call)] {
    Result result = call(cancellable);
    g_object_unref(cancellable);
    std::lock_guard lock(shared->mutex);
    shared->result = std::move(result);
    shared->done = true;
    shared->finished.notify_all();
  });

  ZRVOperationQueue::BlockingScope blocking;
  std::unique_lock lock(shared->mutex);
  if (!shared->finished.wait_for(lock, limit, [&] { return shared->done; })) {
    g_cancellable_cancel(cancellable);
    shared->finished.wait_for(lock, std::chrono::seconds(2), [&] { return shared->done; });
  }
  bool done = shared->done;
  lock.unlock();
  g_object_unref(cancellable);
  if (!done) {
    worker.detach();
    return std::nullopt;
  }
  worker.join();
  return std::move(shared->result);
}

}  // namespace zrv::account
