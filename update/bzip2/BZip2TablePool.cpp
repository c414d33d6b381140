#include "BZip2TablePool.h"

#include <ZRVKit/ZRVOperationQueue.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace zrv::bzip2 {

namespace BZip2TablePool {

namespace {

constexpr std::size_t kHeader = 64;  // keeps libbz2's tables as aligned as malloc's own
constexpr std::size_t kKeptPerSet = 3;  // libbz2 makes two allocations per stream

std::size_t lengthOf(void* block) { return *static_cast<std::size_t*>(block); }

struct Pool {
  std::mutex mutex;
  std::condition_variable returned;
  std::vector<std::unique_ptr<Tables>> free;
  std::size_t made = 0;
};

Pool& pool() {
  static auto* shared = new Pool();  // lives as long as the process; decoders may run during exit
  return *shared;
}

}  // namespace

Tables::~Tables() {
  for (void* block : spare) std::free(block);
}

void Tables::reserve(std::size_t length) {
  if (capacity >= length) return;
  links.reset();
  bytes.reset();
  capacity = 0;
  links.reset(new std::uint32_t[length]);
  walks.reserve(length);
  bytes.reset(new std::uint8_t[length]);
  capacity = length;
}

void* Tables::allocate(void* set, int items, int size) {
  const std::size_t length = static_cast<std::size_t>(items) * static_cast<std::size_t>(size);
  auto& spare = static_cast<Tables*>(set)->spare;
  for (std::size_t i = 0; i < spare.size(); ++i) {
    if (lengthOf(spare[i]) == length) {
      void* block = spare[i];
      spare.erase(spare.begin() + static_cast<long>(i));
      return static_cast<char*>(block) + kHeader;
    }
  }
  void* block = std::malloc(length + kHeader);
  if (!block) return nullptr;
  *static_cast<std::size_t*>(block) = length;
  return static_cast<char*>(block) + kHeader;
}

void Tables::release(void* set, void* address) {
  if (!address) return;
  void* block = static_cast<char*>(address) - kHeader;
  auto& spare = static_cast<Tables*>(set)->spare;
  if (spare.size() == kKeptPerSet) {
    std::free(spare.front());
    spare.erase(spare.begin());
  }
  spare.push_back(block);
}

std::size_t capacity() { return std::max(1u, std::thread::hardware_concurrency()); }

std::size_t setsMade() {
  std::lock_guard lock(pool().mutex);
  return pool().made;
}

Lease::Lease() {
  Pool& shared = pool();
  std::unique_lock lock(shared.mutex);
  if (shared.free.empty() && shared.made >= capacity()) {
    // Every set is in use by a thread that is decoding a block: the wait ends without any queued work.
    ZRVOperationQueue::HeldBackScope heldBack;
    shared.returned.wait(lock, [&] { return !shared.free.empty() || shared.made < capacity(); });
  }
  if (!shared.free.empty()) {
    tables_ = std::move(shared.free.back());
    shared.free.pop_back();
    return;
  }
  ++shared.made;
  lock.unlock();
  try {
    tables_ = std::make_unique<Tables>();
  } catch (...) {
    lock.lock();
    --shared.made;
    shared.returned.notify_one();
    throw;
  }
}

Lease::~Lease() {
  if (!tables_) return;
  Pool& shared = pool();
  {
    std::lock_guard lock(shared.mutex);
    shared.free.push_back(std::move(tables_));
  }
  shared.returned.notify_one();
}

}  // namespace BZip2TablePool

}  // namespace zrv::bzip2
