#pragma once
// The block-sized tables that decoding one bzip2 block needs (some 6 MiB for our decoder at the largest block
// size, some 3.5 MiB more for libbz2's), from one pool for the process with about one set per core. A set is
// made on first need and kept for the next block, so tables come warm from the caches rather than cold from
// the kernel. Decoding more blocks at once than there are cores gains nothing and makes the decoders evict
// each other's tables from the caches, so a decoder that finds every set in use waits for one: the sets are
// held only while a block is decoded, by threads that need nothing else to finish it.

#include "BZip2InverseTransform.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace zrv::bzip2 {

namespace BZip2TablePool {

struct Tables {
  Tables() = default;
  ~Tables();
  Tables(const Tables&) = delete;
  Tables& operator=(const Tables&) = delete;

  /// Our decoder's tables, for blocks of up to `length` bytes.
  void reserve(std::size_t length);
  std::unique_ptr<std::uint32_t[]> links;  ///< the BWT's last column (low byte) and the inverse links above it
  BZip2InverseTransform::Workspace walks;  ///< for following the links
  std::unique_ptr<std::uint8_t[]> bytes;   ///< the block before its runs are expanded
  std::size_t capacity = 0;

  /// libbz2's allocator pair (bzalloc, bzfree) with a set as the opaque pointer: what libbz2 gives back is
  /// kept in the set for the next stream, which asks for the same sizes.
  static void* allocate(void* set, int items, int size);
  static void release(void* set, void* address);
  std::vector<void*> spare;
};

/// One set, for as long as the lease lives.
class Lease {
 public:
  /// Takes a free set, makes one while fewer than `capacity()` exist, or waits until one is given back.
  Lease();
  ~Lease();
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  Tables& operator*() const { return *tables_; }
  Tables* operator->() const { return tables_.get(); }

 private:
  std::unique_ptr<Tables> tables_;
};

/// How many sets exist at most: one per core.
std::size_t capacity();
/// How many sets exist now (for tests and diagnostics).
std::size_t setsMade();

}  // namespace BZip2TablePool

}  // namespace zrv::bzip2
