#pragma once
// Incremental decoding of one bzip2 stream held in memory. The patch reader pulls exactly as many bytes as the
// patch's control triples ask for, so a stream is never held decoded in full.
//
// Blocks go through the library's own block decoder one at a time, and only as far as a reader asks: a block
// costs its undecoded size (at most 900 kB) until its bytes are read, however far it expands. At the first
// doubt (a block the own decoder is unsure of, a CRC that does not match, an unexpected end) libbz2 starts
// again from the stream's beginning, skips what was already handed out and decides the rest, so the bytes
// and the failures are libbz2's own.

#include "BZip2BlockDecoder.h"
#include "BZip2RunExpansion.h"

#include <bzlib.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zrv::bzip2 {

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
  /// Whether libbz2 had to take over (for tests: bzip2's own streams never need it).
  bool handedToLibbz2() const { return !own_; }

 private:
  /// Moves the own decoder to the next block or to the stream's end; false when it is unsure.
  bool advance();
  void fallBack();
  std::size_t readWithLibbz2(std::uint8_t* out, std::size_t capacity);

  const std::uint8_t* input_;
  std::size_t length_;
  State state_ = State::decoding;
  std::uint64_t delivered_ = 0;  ///< bytes handed out so far, by either decoder

  // The own decoder, while it is sure.
  bool own_ = true;
  std::uint8_t levelDigit_ = 0;
  std::uint64_t nextBit_ = 0;  ///< where the next block's (or the end's) magic must start
  std::uint32_t combinedCRC_ = 0;
  std::uint32_t blockCRC_ = 0;
  std::vector<std::uint8_t> blockBytes_;
  BZip2RunExpansion expansion_;
  bool inBlock_ = false;

  // libbz2, once it has taken over.
  bz_stream stream_{};
  const std::uint8_t* pending_ = nullptr;  ///< input not yet handed to libbz2 (its counters are 32-bit)
  std::size_t pendingLength_ = 0;
  std::uint64_t toSkip_ = 0;  ///< bytes libbz2 makes again that were handed out before it took over
  bool initialised_ = false;
};

}  // namespace zrv::bzip2
