#pragma once
// Incremental decoding of one bzip2 stream held in memory. The patch reader pulls exactly as many bytes as the
// patch's control triples ask for; the blocks are decoded in parallel a few blocks ahead of it, so a stream is
// never held decoded in full.

#include "BZip2BlockPipeline.h"

#include <bzlib.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

class BZip2StreamDecoder {
 public:
  enum class State { decoding, finished, failed };

  /// Decodes the bzip2 stream at the start of `input`; bytes behind its end-of-stream mark are never read.
  BZip2StreamDecoder(const std::uint8_t* input, std::size_t length);
  ~BZip2StreamDecoder();
  BZip2StreamDecoder(const BZip2StreamDecoder&) = delete;
  BZip2StreamDecoder& operator=(const BZip2StreamDecoder&) = delete;

  /// Decodes up to `capacity` bytes into `out` and returns how many it made. Fewer than `capacity` only once
  /// the stream has finished or failed.
  std::size_t read(std::uint8_t* out, std::size_t capacity);
  State state() const { return state_; }

 private:
  std::size_t readFromBlocks(std::uint8_t* out, std::size_t capacity);
  std::size_t readSequentially(std::uint8_t* out, std::size_t capacity);
  void startSequential();

  const std::uint8_t* input_;
  std::size_t length_;
  State state_ = State::decoding;

  std::unique_ptr<BZip2BlockPipeline> pipeline_;  ///< until the stream ends or the pipeline gives up
  std::vector<BZip2BlockPipeline::Chunk> chunks_;  ///< the current block
  std::size_t chunkIndex_ = 0;
  std::size_t chunkOffset_ = 0;
  std::uint64_t delivered_ = 0;  ///< bytes handed out so far

  // The sequential decoder, which defines the result: for small streams, and from the start again whenever the
  // pipeline gives up (skipping what the pipeline already delivered, which it decodes identically).
  bz_stream stream_{};
  const std::uint8_t* pending_ = nullptr;  ///< input not yet handed to libbz2 (its counters are 32-bit)
  std::size_t pendingLength_ = 0;
  std::uint64_t skip_ = 0;
  bool initialised_ = false;
};
