#include "BZip2StreamDecoder.h"

#include <algorithm>
#include <climits>

namespace zrv::bzip2 {

namespace {
constexpr std::size_t kLargestPass = std::size_t{1} << 30;  // well within libbz2's unsigned int counters
}

BZip2StreamDecoder::BZip2StreamDecoder(const std::uint8_t* input, std::size_t length)
    : pending_(input), pendingLength_(length) {
  initialised_ = BZ2_bzDecompressInit(&stream_, 0, 0) == BZ_OK;
  if (!initialised_) state_ = State::failed;
}

BZip2StreamDecoder::~BZip2StreamDecoder() {
  if (initialised_) BZ2_bzDecompressEnd(&stream_);
}

std::size_t BZip2StreamDecoder::read(std::uint8_t* out, std::size_t capacity) {
  std::size_t produced = 0;
  while (produced < capacity && state_ == State::decoding) {
    if (stream_.avail_in == 0 && pendingLength_ > 0) {
      std::size_t pass = std::min(pendingLength_, kLargestPass);
      stream_.next_in = const_cast<char*>(reinterpret_cast<const char*>(pending_));
      stream_.avail_in = static_cast<unsigned int>(pass);
      pending_ += pass;
      pendingLength_ -= pass;
    }
    std::size_t room = std::min(capacity - produced, kLargestPass);
    stream_.next_out = reinterpret_cast<char*>(out + produced);
    stream_.avail_out = static_cast<unsigned int>(room);
    int result = BZ2_bzDecompress(&stream_);
    std::size_t made = room - stream_.avail_out;
    produced += made;
    if (result == BZ_STREAM_END) {
      state_ = State::finished;
    } else if (result != BZ_OK) {
      state_ = State::failed;
    } else if (made == 0 && stream_.avail_in == 0 && pendingLength_ == 0) {
      // A stream cut off before its end-of-stream mark: libbz2 keeps answering BZ_OK without making progress,
      // so waiting for BZ_STREAM_END would never end. It is a damaged stream like any other.
      state_ = State::failed;
    }
  }
  return produced;
}

}  // namespace zrv::bzip2
