#pragma once
// Deferred and main-thread callbacks for the launcher application.

#include <ZRVKit/ZRVKitExport.h>
#include <functional>

namespace PerformBlock {

/// Runs `block` once after `seconds`: on the main queue when called on the main thread, else on the work queue.
ZRVKIT_EXPORT void performAfterDelay(double seconds, std::function<void()> block);

/// Runs `block` on the main thread; with `wait` the caller blocks until it has run.
/// Called on the main thread with `wait`, the block runs at once instead of deadlocking.
ZRVKIT_EXPORT void performOnMainThreadWaitUntilDone(bool wait, std::function<void()> block);

/// Hops to the main thread (waiting or not), then schedules `block` there after `seconds`.
/// With `wait` the caller waits only for the scheduling, not for the block.
ZRVKIT_EXPORT void performOnMainThreadWaitUntilDone(bool wait, double seconds, std::function<void()> block);

}  // namespace PerformBlock
