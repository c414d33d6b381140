#pragma once
// One timer thread that hands blocks to operation queues when their delay has passed.

#include <ZRVKit/ZRVOperation.h>

#include <chrono>

class ZRVOperationQueue;

namespace zrv::detail {

void scheduleAfterDelay(std::chrono::steady_clock::duration delay, ZRVOperationQueue& queue,
                        ZRVOperation::Block block);

}  // namespace zrv::detail
