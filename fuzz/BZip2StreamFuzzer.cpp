// Fuzzes the patch streams' decoder against libbz2 alone: whatever the input and however it is read, it must
// end the same way (finished with the same bytes, or failed), whether its own block decoder kept it or libbz2
// took over halfway.

#include "tests/support/Libbz2Reference.h"
#include "update/bzip2/BZip2StreamDecoder.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

using namespace zrv::bzip2;  // the codec's internals under test

namespace {

constexpr std::size_t kOutputCap = 16 << 20;  // both decoders stop here; a bomb need not be decoded in full
using State = BZip2StreamDecoder::State;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The input's length says how the reader asks for bytes: as the control triples do (24), or in other pieces.
  static const std::size_t kPieces[] = {1, 24, 4096, 1 << 20};
  const std::size_t piece = kPieces[size % 4];

  BZip2StreamDecoder decoder(data, size);
  std::string own;
  std::string buffer(piece, '\0');
  while (decoder.state() == State::decoding && own.size() < kOutputCap) {
    const std::size_t made = decoder.read(reinterpret_cast<std::uint8_t*>(buffer.data()), piece);
    own.append(buffer, 0, made);
  }
  own.resize(std::min(own.size(), kOutputCap));
  const bool capped = decoder.state() == State::decoding;
  if (!libbz2::endsAlike(own, decoder.state() == State::finished, capped, libbz2::decode(data, size, kOutputCap))) {
    std::abort();
  }
  return 0;
}
