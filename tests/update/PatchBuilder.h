#pragma once
// Hand-made patches for the tests: a header and the three streams, raw or bzip2-compressed.

#include <ZRVKit/ZRVData.h>

#include "update/bzip2/BZip2Blocks.h"

#include <bzlib.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

struct Triple {
  std::int64_t add, copy, seek;
};

inline void appendField(ZRVData& out, std::int64_t value) {
  std::uint64_t magnitude = value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<std::uint8_t>(magnitude >> (8 * i)));
  if (value < 0) out.back() |= 0x80;
}

inline ZRVData bzip2(const ZRVData& input, int level = 9) {
  ZRVData output(input.size() + input.size() / 100 + 600);
  static char nothing;  // libbz2 refuses a null source even for no bytes
  char* source = input.empty() ? &nothing : const_cast<char*>(reinterpret_cast<const char*>(input.data()));
  auto length = static_cast<unsigned int>(output.size());
  if (BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(output.data()), &length,
                               source,
                               static_cast<unsigned int>(input.size()), level, 0, 0) != BZ_OK) {
    throw std::runtime_error("bzip2 compression failed");
  }
  output.resize(length);
  return output;
}

/// A block of a bzip2 stream, in bits: from its magic to the next magic.
struct Block {
  std::uint64_t start, end;
};

inline std::vector<Block> blocksOf(const ZRVData& stream) {
  std::vector<Block> blocks;
  for (auto magic = zrv::bzip2::BZip2Blocks::findMagic(stream.data(), stream.size(), 32); magic && !magic->end;) {
    auto following = zrv::bzip2::BZip2Blocks::findMagic(stream.data(), stream.size(), magic->bit + 48);
    if (!following) break;
    blocks.push_back({magic->bit, following->bit});
    magic = following;
  }
  return blocks;
}

/// `stream` with one bit inverted, counted from the highest bit of the first byte.
inline ZRVData withBitFlipped(ZRVData stream, std::uint64_t bit) {
  stream[bit / 8] ^= static_cast<std::uint8_t>(0x80 >> (bit % 8));
  return stream;
}

inline ZRVData randomBytes(std::size_t length, unsigned seed, unsigned range = 256) {
  std::mt19937 random(seed);
  ZRVData bytes(length);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random() % range);
  return bytes;
}

/// Runs of zeros between bytes of a small range: at level 1, several 100 kB blocks, about half their size.
inline ZRVData gameLikeBytes(std::size_t length, unsigned seed) {
  ZRVData bytes(length);
  std::mt19937 random(seed);
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(i % 512 < 200 ? 0 : random() % 40);
  return bytes;
}

struct PatchParts {
  std::vector<Triple> triples;
  ZRVData diff;
  ZRVData extra;
  std::int64_t newSize = 0;

  ZRVData control() const {
    ZRVData out;
    for (const Triple& triple : triples) {
      appendField(out, triple.add);
      appendField(out, triple.copy);
      appendField(out, triple.seek);
    }
    return out;
  }

  /// The patch with the given streams behind a header; the stored lengths are those of the streams.
  static ZRVData assemble(const std::string& magic, const ZRVData& control, const ZRVData& diff, const ZRVData& extra,
                          std::int64_t newSize) {
    ZRVData patch(magic.begin(), magic.end());
    appendField(patch, static_cast<std::int64_t>(control.size()));
    appendField(patch, static_cast<std::int64_t>(diff.size()));
    appendField(patch, newSize);
    for (const ZRVData* stream : {&control, &diff, &extra}) patch.insert(patch.end(), stream->begin(), stream->end());
    return patch;
  }

  ZRVData raw() const { return assemble("BSDIFN40", control(), diff, extra, newSize); }
  ZRVData compressed() const { return assemble("BSDIFF40", bzip2(control()), bzip2(diff), bzip2(extra), newSize); }
};
