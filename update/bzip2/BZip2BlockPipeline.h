#pragma once
// Decodes the blocks of one bzip2 stream in parallel, in order, a few blocks ahead of the reader. The reader's
// own thread decodes too, so the pipeline finishes even when the work queue has no thread to spare; helpers on
// the work queue only speed it up. Memory stays bounded (a few blocks in flight, and no new block started while
// too many decoded bytes wait for the reader), whatever the stream or a patch header claims.
//
// The result is trusted only as far as libbz2 would vouch for it: every block is decoded on its own (block CRC
// checked), by our own decoder where it is sure libbz2 agrees and by libbz2 otherwise, and must use exactly the
// bits up to the next magic, and the blocks' CRCs must add up to the stream's combined CRC. Anything else,
// including a magic that turns up inside compressed data by chance, is a failure, and the caller then decodes
// sequentially from the start, which defines the result.

#include "BZip2BlockDecoder.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace zrv::bzip2 {

class BZip2BlockPipeline {
 public:
  using Chunk = BZip2BlockDecoder::Chunk;
  enum class Next { block, end, failure };

  /// Inputs shorter than this are not worth the threads; decode them sequentially.
  static std::atomic<std::size_t> minimumInputLength;
  static bool worthwhile(std::size_t inputLength) { return inputLength >= minimumInputLength.load(); }

  /// Starts decoding the stream at the start of `input`, which must outlive the pipeline.
  BZip2BlockPipeline(const std::uint8_t* input, std::size_t length);
  /// Waits for blocks still being decoded; queued helpers find nothing left to do.
  ~BZip2BlockPipeline();
  BZip2BlockPipeline(const BZip2BlockPipeline&) = delete;
  BZip2BlockPipeline& operator=(const BZip2BlockPipeline&) = delete;

  /// The next block's decoded bytes (replacing `chunks`); `end` once the stream has ended with a matching
  /// combined CRC; `failure` for anything else, and from then on.
  Next next(std::vector<Chunk>& chunks);

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;
};

}  // namespace zrv::bzip2
