// Fuzzes our own bzip2 block decoder against libbz2, block by block: it may leave any block to libbz2, but must
// never accept one libbz2 refuses nor decode one to other bytes. Random damage nearly always breaks a block's
// CRC, which hides everything behind it, so each block is also tried with its CRC set to that of the bytes
// libbz2 put out before it noticed, and our decoder's bytes are compared with those even when the CRC is wrong.

#include "update/bzip2/BZip2BlockDecoder.h"
#include "update/bzip2/BZip2CRC.h"
#include "update/bzip2/BZip2Blocks.h"

#include <bzlib.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

using namespace zrv::bzip2;  // the codec's internals under test

namespace {

constexpr int kBlocksTried = 4;

struct Decoded {
  bool accepted = false;
  std::string bytes;
};

Decoded libbz2Decode(const ZRVData& framed) {
  bz_stream decoder{};
  Decoded decoded;
  if (BZ2_bzDecompressInit(&decoder, 0, 0) != BZ_OK) std::abort();
  decoder.next_in = const_cast<char*>(reinterpret_cast<const char*>(framed.data()));
  decoder.avail_in = static_cast<unsigned int>(framed.size());
  int result;
  do {
    char buffer[65536];
    decoder.next_out = buffer;
    decoder.avail_out = sizeof buffer;
    result = BZ2_bzDecompress(&decoder);
    decoded.bytes.append(buffer, sizeof buffer - decoder.avail_out);
  } while (result == BZ_OK && (decoder.avail_in > 0 || decoder.avail_out == 0));
  decoded.accepted = result == BZ_STREAM_END && decoder.avail_in == 0;
  BZ2_bzDecompressEnd(&decoder);
  return decoded;
}

/// Compares both decoders on one block; returns what libbz2 put out.
std::string compare(const ZRVData& stream, std::uint64_t start, std::uint64_t end) {
  const Decoded reference =
      libbz2Decode(BZip2Blocks::singleBlockStream(stream.data(), stream.size(), start, end, stream[3]));
  std::vector<BZip2BlockDecoder::Chunk> chunks;
  if (BZip2BlockDecoder::decode(stream.data(), stream.size(), start, end, stream[3], chunks) ==
      BZip2BlockDecoder::Result::decoded) {
    std::string own;
    for (const auto& chunk : chunks) own.append(reinterpret_cast<const char*>(chunk.bytes.get()), chunk.length);
    if (!reference.accepted || own != reference.bytes) std::abort();
  } else if (!chunks.empty()) {
    std::abort();
  }
  // Whatever passes our checks short of the CRC, libbz2 puts out to the same bytes before it checks theirs;
  // otherwise a block made to carry the CRC of our bytes would be one we accept and libbz2 refuses.
  chunks.clear();
  if (BZip2BlockDecoder::decode(stream.data(), stream.size(), start, end, stream[3], chunks,
                                BZip2BlockDecoder::CRCCheck::skipped) == BZip2BlockDecoder::Result::decoded) {
    std::string own;
    for (const auto& chunk : chunks) own.append(reinterpret_cast<const char*>(chunk.bytes.get()), chunk.length);
    if (own != reference.bytes) std::abort();
  }
  return reference.bytes;
}

void setBits(ZRVData& stream, std::uint64_t bit, std::uint32_t value) {
  for (unsigned i = 0; i < 32; ++i, ++bit) {
    const auto mask = static_cast<std::uint8_t>(0x80 >> (bit % 8));
    if (value & (0x80000000u >> i)) {
      stream[bit / 8] |= mask;
    } else {
      stream[bit / 8] &= static_cast<std::uint8_t>(~mask);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 4 || data[0] != 'B' || data[1] != 'Z' || data[2] != 'h') return 0;
  const ZRVData input(data, data + size);
  auto magic = BZip2Blocks::findMagic(input.data(), input.size(), BZip2Blocks::kHeaderBits);
  for (int tried = 0; tried < kBlocksTried && magic && !magic->end; ++tried) {
    auto following = BZip2Blocks::findMagic(input.data(), input.size(), magic->bit + BZip2Blocks::kMagicBits);
    if (!following) break;
    const std::string put = compare(input, magic->bit, following->bit);
    if (magic->bit + BZip2Blocks::kMagicBits + BZip2Blocks::kCRCBits <= following->bit) {
      ZRVData repaired = input;
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(put.data());
      setBits(repaired, magic->bit + BZip2Blocks::kMagicBits,
              ~BZip2CRC::update(0xFFFFFFFF, bytes, put.size()));
      compare(repaired, magic->bit, following->bit);
    }
    magic = following;
  }
  return 0;
}
