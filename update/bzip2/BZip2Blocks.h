#pragma once
// The block structure of a bzip2 stream, read without decoding it: blocks start with a 48-bit magic at any
// bit offset and the stream ends with another magic and the combined CRC of its blocks. A single block cut out
// of a stream and framed as a stream of its own decodes with libbz2 exactly as it would in place.

#include <ZRVKit/ZRVData.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace zrv::bzip2 {

namespace BZip2Blocks {

constexpr std::uint64_t kBlockMagic = 0x314159265359;
constexpr std::uint64_t kEndMagic = 0x177245385090;
constexpr std::uint64_t kHeaderBits = 32;  ///< "BZh" and the block-size digit
constexpr unsigned kMagicBits = 48;
constexpr unsigned kCRCBits = 32;

/// Up to 57 bits at `bit`, most significant first; bits past the end read as zero.
std::uint64_t bitsAt(const std::uint8_t* data, std::size_t length, std::uint64_t bit, unsigned count);

struct Magic {
  std::uint64_t bit;  ///< where it starts
  bool end;           ///< end-of-stream rather than block
};

/// The first block or end-of-stream magic starting at or after `fromBit` and lying wholly inside the data.
std::optional<Magic> findMagic(const std::uint8_t* data, std::size_t length, std::uint64_t fromBit);

/// The block whose bits run from `startBit` (its magic) to `endBit` (the next magic), framed as a one-block
/// stream with the original block-size digit; the block's own CRC stands in as the combined CRC.
ZRVData singleBlockStream(const std::uint8_t* data, std::size_t length, std::uint64_t startBit, std::uint64_t endBit,
                          std::uint8_t levelDigit);

/// The combined CRC after one more block, as libbz2 computes it.
inline std::uint32_t combineCRC(std::uint32_t combined, std::uint32_t blockCRC) {
  return ((combined << 1) | (combined >> 31)) ^ blockCRC;
}

}  // namespace BZip2Blocks

}  // namespace zrv::bzip2
