// Fuzzes the patch streams' decoder against libbz2 alone: whatever the input and however it is read, it must
// end the same way (finished with the same bytes, or failed), whether its own block decoder kept it or libbz2
// took over halfway.

#include "update/bzip2/BZip2StreamDecoder.h"

#include <bzlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

using namespace zrv::bzip2;  // the codec's internals under test

namespace {

constexpr std::size_t kOutputCap = 16 << 20;  // both decoders stop here; a bomb need not be decoded in full

using State = BZip2StreamDecoder::State;

State libbz2Decode(const std::uint8_t* data, std::size_t size, std::string& out) {
  bz_stream stream{};
  if (BZ2_bzDecompressInit(&stream, 0, 0) != BZ_OK) std::abort();
  stream.next_in = const_cast<char*>(reinterpret_cast<const char*>(data));
  stream.avail_in = static_cast<unsigned int>(size);
  State state = State::decoding;
  while (state == State::decoding && out.size() < kOutputCap) {
    char buffer[65536];
    stream.next_out = buffer;
    stream.avail_out = sizeof buffer;
    const int result = BZ2_bzDecompress(&stream);
    const std::size_t made = sizeof buffer - stream.avail_out;
    out.append(buffer, made);
    if (result == BZ_STREAM_END) state = State::finished;
    else if (result != BZ_OK || (made == 0 && stream.avail_in == 0)) state = State::failed;
  }
  BZ2_bzDecompressEnd(&stream);
  out.resize(std::min(out.size(), kOutputCap));
  return state;
}

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
  std::string reference;
  const State expected = libbz2Decode(data, size, reference);
  // Where a stream fails, how much libbz2 puts out before it says so depends on its output buffer; what comes
  // out must agree as far as both go.
  const std::size_t common = std::min(own.size(), reference.size());
  if (own.compare(0, common, reference, 0, common) != 0) std::abort();
  if (own.size() < kOutputCap && reference.size() < kOutputCap) {
    if (decoder.state() != expected) std::abort();
    if (expected == State::finished && own.size() != reference.size()) std::abort();
  }
  return 0;
}
