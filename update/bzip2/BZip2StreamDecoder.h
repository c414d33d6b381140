#pragma once
// Incremental decoding of one bzip2 stream held in memory. The patch reader pulls exactly as many bytes as the
// patch's control triples ask for, so a stream is never held decoded in full.

#include <bzlib.h>

#include <cstddef>
#include <cstdint>

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

 private:
  bz_stream stream_{};
  const std::uint8_t* pending_;  ///< input not yet handed to libbz2 (its counters are 32-bit)
  std::size_t pendingLength_;
  State state_ = State::decoding;
  bool initialised_ = false;
};

}  // namespace zrv::bzip2
