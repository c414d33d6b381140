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

bool PatchStream::validate() {
  if (!decoder_) return true;
  std::vector<std::uint8_t> scratch;
  while (decoder_->state() == bzip2::BZip2StreamDecoder::State::decoding) {
    if (scratch.empty()) scratch.resize(64 * 1024);
    decoder_->read(scratch.data(), scratch.size());
  }
  return decoder_->state() == bzip2::BZip2StreamDecoder::State::finished;
}

}  // namespace zrv::bsdiff
