#include "PatchStream.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace zrv::bsdiff {

PatchStream::PatchStream(const std::uint8_t* begin, std::size_t length, bool compressed)
    : raw_(begin), rawLength_(length) {
  if (compressed) decoder_ = std::make_unique<bzip2::BZip2StreamDecoder>(begin, length);
}

std::size_t PatchStream::read(std::uint8_t* out, std::size_t count) {
  if (decoder_) return decoder_->read(out, count);
  std::size_t taken = std::min(count, rawLength_);
  if (taken > 0) std::memcpy(out, raw_, taken);
  raw_ += taken;
  rawLength_ -= taken;
  return taken;
}

bool PatchStream::validate(const std::function<void()>& release) {
  if (!decoder_) return true;
  std::vector<std::uint8_t> scratch;
  constexpr std::size_t kReleaseEvery = 256;  // reads of 64 KiB: 16 MiB decoded
  for (std::size_t reads = 1; decoder_->state() == bzip2::BZip2StreamDecoder::State::decoding; ++reads) {
    if (scratch.empty()) scratch.resize(64 * 1024);
    decoder_->read(scratch.data(), scratch.size());
    if (release && reads % kReleaseEvery == 0) release();
  }
  return decoder_->state() == bzip2::BZip2StreamDecoder::State::finished;
}

}  // namespace zrv::bsdiff
