#include "BZip2BlockPipeline.h"

#include "BZip2Blocks.h"
#include "BZip2TablePool.h"

#include <ZRVKit/ZRVOperationQueue.h>

#include <bzlib.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>

namespace zrv::bzip2 {

std::atomic<std::size_t> BZip2BlockPipeline::minimumInputLength{32 * 1024};

namespace {

constexpr std::size_t kChunkLength = BZip2BlockDecoder::kChunkLength;
// Decoded bytes waiting for the reader beyond which no further block is started. One block can expand to
// some 45 MB (runs of a byte), so this, not the count of blocks, is what bounds memory.
constexpr std::size_t kBufferedLimit = 32 << 20;

/// Decodes a one-block stream; false unless libbz2 reaches its end using every byte of it.
bool decodeBlockStream(const ZRVData& stream, std::vector<BZip2BlockPipeline::Chunk>& chunks) {
  // libbz2 would allocate its block-sized tables afresh for every stream, and here every block is a stream of
  // its own: they come from the pool instead.
  BZip2TablePool::Lease tables;
  bz_stream decoder{};
  decoder.bzalloc = BZip2TablePool::Tables::allocate;
  decoder.bzfree = BZip2TablePool::Tables::release;
  decoder.opaque = &*tables;
  if (BZ2_bzDecompressInit(&decoder, 0, 0) != BZ_OK) return false;
  decoder.next_in = const_cast<char*>(reinterpret_cast<const char*>(stream.data()));
  decoder.avail_in = static_cast<unsigned int>(stream.size());
  bool decoded = false;
  for (;;) {
    BZip2BlockPipeline::Chunk chunk{std::unique_ptr<std::uint8_t[]>(new std::uint8_t[kChunkLength]), 0};
    decoder.next_out = reinterpret_cast<char*>(chunk.bytes.get());
    decoder.avail_out = kChunkLength;
    int result = BZ2_bzDecompress(&decoder);
    chunk.length = kChunkLength - decoder.avail_out;
    if (chunk.length > 0) chunks.push_back(std::move(chunk));
    if (result == BZ_STREAM_END) {
      decoded = decoder.avail_in == 0;
      break;
    }
    if (result != BZ_OK || (chunk.length == 0 && decoder.avail_in == 0)) break;
  }
  BZ2_bzDecompressEnd(&decoder);
  return decoded;
}

std::size_t helperCount() {
  unsigned cores = std::thread::hardware_concurrency();
  return std::clamp<std::size_t>(cores > 1 ? cores - 1 : 1, 1, 3);
}

}  // namespace

struct BZip2BlockPipeline::Shared : std::enable_shared_from_this<Shared> {
  enum class SlotState { waiting, decoding, decoded, failed };
  struct Slot {
    std::uint64_t startBit, endBit;
    std::uint32_t crc;
    SlotState state = SlotState::waiting;
    std::vector<Chunk> chunks;
  };
  enum class Scan { going, ended, broken };

  const std::uint8_t* input;
  std::size_t length;
  std::uint8_t levelDigit = 0;
  std::size_t helperLimit = helperCount();
  std::size_t window = helperLimit + 2;

  std::mutex mutex;
  std::condition_variable changed;
  Scan scan = Scan::going;
  std::uint64_t nextBlockBit = BZip2Blocks::kHeaderBits;  ///< the magic of the next block not yet located
  std::uint32_t storedCombinedCRC = 0;
  std::deque<Slot> slots;      ///< located blocks not yet handed out, from index `firstSlot`
  std::size_t firstSlot = 0;   ///< index of the next block to hand out
  std::size_t nextClaim = 0;   ///< index of the next block nobody decodes yet
  std::uint32_t combinedCRC = 0;
  bool stopped = false;        ///< a block failed or the pipeline closed: claim nothing more
  bool closed = false;
  std::size_t decoding = 0;    ///< blocks being decoded right now
  std::size_t buffered = 0;    ///< decoded bytes not yet handed out
  std::size_t helpers = 0;

  Shared(const std::uint8_t* data, std::size_t size) : input(data), length(size) {}

  std::size_t locatedEnd() const { return firstSlot + slots.size(); }

  /// Finds where the next block ends; false when no further block can be located.
  bool locateNextLocked() {
    if (scan != Scan::going) return false;
    const std::uint64_t start = nextBlockBit;
    const std::uint64_t totalBits = std::uint64_t{length} * 8;
    std::optional<BZip2Blocks::Magic> following;
    if (start + BZip2Blocks::kMagicBits + BZip2Blocks::kCRCBits <= totalBits) {
      following = BZip2Blocks::findMagic(input, length, start + BZip2Blocks::kMagicBits);
    }
    if (!following) {
      scan = Scan::broken;  // cut off before its end-of-stream mark
      return false;
    }
    auto crc = static_cast<std::uint32_t>(BZip2Blocks::bitsAt(input, length, start + BZip2Blocks::kMagicBits, 32));
    slots.push_back(Slot{start, following->bit, crc, SlotState::waiting, {}});
    nextBlockBit = following->bit;
    if (following->end) endStreamAtLocked(following->bit);
    return true;
  }

  void endStreamAtLocked(std::uint64_t endBit) {
    if (endBit + BZip2Blocks::kMagicBits + BZip2Blocks::kCRCBits > std::uint64_t{length} * 8) {
      scan = Scan::broken;  // no combined CRC behind the mark
      return;
    }
    storedCombinedCRC =
        static_cast<std::uint32_t>(BZip2Blocks::bitsAt(input, length, endBit + BZip2Blocks::kMagicBits, 32));
    scan = Scan::ended;
  }

  /// Takes the next block nobody decodes yet, if the window allows; its bounds go to `slotIndex`.
  bool claimLocked(std::size_t& slotIndex) {
    if (stopped || nextClaim >= firstSlot + window || buffered >= kBufferedLimit) return false;
    if (nextClaim == locatedEnd() && !locateNextLocked()) return false;
    slotIndex = nextClaim++;
    slots[slotIndex - firstSlot].state = SlotState::decoding;
    ++decoding;
    return true;
  }

  bool claimableLocked() const {
    return !stopped && nextClaim < firstSlot + window && buffered < kBufferedLimit &&
           (nextClaim < locatedEnd() || scan == Scan::going);
  }

  /// Decodes a claimed block with the lock released and files the result.
  void decodeClaimed(std::unique_lock<std::mutex>& lock, std::size_t index) {
    const Slot& slot = slots[index - firstSlot];
    const std::uint64_t start = slot.startBit, end = slot.endBit;
    lock.unlock();
    std::vector<Chunk> chunks;
    bool decoded = false;
    try {
      decoded = BZip2BlockDecoder::decode(input, length, start, end, levelDigit, chunks) ==
                BZip2BlockDecoder::Result::decoded;
    } catch (...) {
      // libbz2 gets its chance with the block, as with any other it is unsure of.
    }
    try {
      if (!decoded) {
        decoded = decodeBlockStream(BZip2Blocks::singleBlockStream(input, length, start, end, levelDigit), chunks);
      }
    } catch (...) {
      // Out of memory here is no failure of the stream: the sequential decoder gets its chance.
    }
    lock.lock();
    Slot& filed = slots[index - firstSlot];
    filed.state = decoded ? SlotState::decoded : SlotState::failed;
    if (decoded) {
      for (const Chunk& chunk : chunks) buffered += chunk.length;
      filed.chunks = std::move(chunks);
    }
    if (!decoded) stopped = true;
    --decoding;
    changed.notify_all();
  }

  void startHelpersLocked() {
    while (!closed && helpers < helperLimit && claimableLocked()) {
      ++helpers;
      try {
        ZRVOperationQueue::workQueue().addOperationWithBlock([self = shared_from_this()] { self->help(); });
      } catch (...) {
        --helpers;  // the reader's thread decodes on its own
        return;
      }
    }
  }

  void help() {
    std::unique_lock lock(mutex);
    try {
      std::size_t index;
      while (!closed && claimLocked(index)) decodeClaimed(lock, index);
    } catch (...) {
      stopped = true;  // out of memory while locating a block: the reader falls back to sequential decoding
      changed.notify_all();
    }
    --helpers;
  }
};

BZip2BlockPipeline::BZip2BlockPipeline(const std::uint8_t* input, std::size_t length)
    : shared_(std::make_shared<Shared>(input, length)) {
  Shared& shared = *shared_;
  if (length < 4 || input[0] != 'B' || input[1] != 'Z' || input[2] != 'h' || input[3] < '1' || input[3] > '9') {
    shared.scan = Shared::Scan::broken;
    return;
  }
  shared.levelDigit = input[3];
  const std::uint64_t first = BZip2Blocks::bitsAt(input, length, BZip2Blocks::kHeaderBits, BZip2Blocks::kMagicBits);
  if (length * 8 < BZip2Blocks::kHeaderBits + BZip2Blocks::kMagicBits) {
    shared.scan = Shared::Scan::broken;
  } else if (first == BZip2Blocks::kEndMagic) {
    shared.endStreamAtLocked(BZip2Blocks::kHeaderBits);
  } else if (first != BZip2Blocks::kBlockMagic) {
    shared.scan = Shared::Scan::broken;
  }
  std::lock_guard lock(shared.mutex);
  shared.startHelpersLocked();
}

BZip2BlockPipeline::~BZip2BlockPipeline() {
  Shared& shared = *shared_;
  std::unique_lock lock(shared.mutex);
  shared.closed = true;
  shared.stopped = true;
  if (shared.decoding > 0) {
    ZRVOperationQueue::HeldBackScope heldBack;  // the blocks are being decoded right now, by running threads
    shared.changed.wait(lock, [&] { return shared.decoding == 0; });
  }
}

BZip2BlockPipeline::Next BZip2BlockPipeline::next(std::vector<Chunk>& chunks) {
  Shared& shared = *shared_;
  std::unique_lock lock(shared.mutex);
  for (;;) {
    if (shared.firstSlot < shared.locatedEnd()) {
      Shared::Slot& slot = shared.slots.front();
      if (slot.state == Shared::SlotState::decoded) {
        chunks = std::move(slot.chunks);
        for (const Chunk& chunk : chunks) shared.buffered -= chunk.length;
        shared.combinedCRC = BZip2Blocks::combineCRC(shared.combinedCRC, slot.crc);
        shared.slots.pop_front();
        ++shared.firstSlot;
        shared.startHelpersLocked();
        return Next::block;
      }
    } else if (shared.scan == Shared::Scan::ended) {
      return shared.combinedCRC == shared.storedCombinedCRC ? Next::end : Next::failure;
    } else if (shared.scan == Shared::Scan::broken) {
      return Next::failure;
    }
    // A block failed, here or further on: the stream cannot be finished this way.
    if (shared.stopped) return Next::failure;
    // The block wanted is not ready: decode the next free one here rather than wait.
    std::size_t index;
    if (shared.claimLocked(index)) {
      shared.startHelpersLocked();
      shared.decodeClaimed(lock, index);
      continue;
    }
    if (shared.firstSlot == shared.locatedEnd()) continue;  // locating found the end or a break
    // Every block that could be handed out next is being decoded right now by a running thread (claimed
    // blocks are never left to queued work), so this wait needs no thread of the queue's.
    ZRVOperationQueue::HeldBackScope heldBack;
    shared.changed.wait(lock, [&] {
      return shared.slots.front().state == Shared::SlotState::decoded || shared.stopped || shared.claimableLocked();
    });
  }
}

}  // namespace zrv::bzip2
