#include "BZip2Blocks.h"

#include <array>
#include <cstring>

namespace zrv::bzip2 {

namespace BZip2Blocks {

namespace {

/// Whether a 16-bit value can be bits 8..23 of a magic that starts 0..7 bits into a byte: a cheap filter
/// before the full comparison, since those bits always fill the two bytes after the magic's first byte.
class MagicFilter {
 public:
  MagicFilter() {
    for (std::uint64_t magic : {kBlockMagic, kEndMagic}) {
      for (unsigned shift = 0; shift < 8; ++shift) {
        auto middle = static_cast<std::uint16_t>((magic >> (24 + shift)) & 0xFFFF);
        bits_[middle / 64] |= std::uint64_t{1} << (middle % 64);
      }
    }
  }
  bool mayHold(std::uint16_t middle) const { return (bits_[middle / 64] >> (middle % 64)) & 1; }

 private:
  std::array<std::uint64_t, 1024> bits_{};
};

const MagicFilter& filter() {
  static const MagicFilter instance;
  return instance;
}

std::optional<Magic> magicAt(const std::uint8_t* data, std::size_t length, std::uint64_t bit) {
  std::uint64_t word = bitsAt(data, length, bit, kMagicBits);
  if (word == kBlockMagic) return Magic{bit, false};
  if (word == kEndMagic) return Magic{bit, true};
  return std::nullopt;
}

/// Appends bits most significant first.
class BitWriter {
 public:
  explicit BitWriter(ZRVData& out) : out_(out) {}
  void put(std::uint64_t value, unsigned count) {
    while (count > 0) {
      unsigned take = count < 8 ? count : 8;
      count -= take;
      std::uint32_t bits = static_cast<std::uint32_t>(value >> count) & ((1u << take) - 1);
      pending_ = (pending_ << take) | bits;
      pendingCount_ += take;
      if (pendingCount_ >= 8) {
        pendingCount_ -= 8;
        out_.push_back(static_cast<std::uint8_t>(pending_ >> pendingCount_));
      }
    }
  }
  void flush() {
    if (pendingCount_ > 0) out_.push_back(static_cast<std::uint8_t>(pending_ << (8 - pendingCount_)));
    pendingCount_ = 0;
  }

 private:
  ZRVData& out_;
  std::uint32_t pending_ = 0;
  unsigned pendingCount_ = 0;
};

}  // namespace

std::uint64_t bitsAt(const std::uint8_t* data, std::size_t length, std::uint64_t bit, unsigned count) {
  std::uint64_t word = 0;
  std::uint64_t first = bit / 8;
  for (std::uint64_t i = 0; i < 8; ++i) word = (word << 8) | (first + i < length ? data[first + i] : 0);
  return (word << (bit % 8)) >> (64 - count);
}

std::optional<Magic> findMagic(const std::uint8_t* data, std::size_t length, std::uint64_t fromBit) {
  const std::uint64_t totalBits = std::uint64_t{length} * 8;
  if (fromBit + kMagicBits > totalBits) return std::nullopt;
  const MagicFilter& candidates = filter();
  // Byte by byte while the seven bytes a magic can touch are all there; the last few bits one at a time.
  std::uint64_t byte = fromBit / 8;
  for (; byte + 7 <= length; ++byte) {
    auto middle = static_cast<std::uint16_t>((data[byte + 1] << 8) | data[byte + 2]);
    if (!candidates.mayHold(middle)) continue;
    for (std::uint64_t bit = byte * 8; bit < byte * 8 + 8; ++bit) {
      if (bit < fromBit) continue;
      if (auto magic = magicAt(data, length, bit)) return magic;
    }
  }
  for (std::uint64_t bit = std::max(fromBit, byte * 8); bit + kMagicBits <= totalBits; ++bit) {
    if (auto magic = magicAt(data, length, bit)) return magic;
  }
  return std::nullopt;
}

ZRVData singleBlockStream(const std::uint8_t* data, std::size_t length, std::uint64_t startBit, std::uint64_t endBit,
                          std::uint8_t levelDigit) {
  const std::uint64_t blockBits = endBit - startBit;
  const std::uint64_t wholeBytes = blockBits / 8;
  ZRVData out;
  out.reserve(4 + wholeBytes + 12);
  out.insert(out.end(), {'B', 'Z', 'h', levelDigit});
  const std::uint8_t* from = data + startBit / 8;
  const unsigned shift = startBit % 8;
  if (shift == 0) {
    out.insert(out.end(), from, from + wholeBytes);
  } else {
    // Every byte read here lies before endBit's byte, so inside the data.
    out.resize(4 + wholeBytes);
    std::uint8_t* into = out.data() + 4;
    for (std::uint64_t i = 0; i < wholeBytes; ++i) {
      into[i] = static_cast<std::uint8_t>((from[i] << shift) | (from[i + 1] >> (8 - shift)));
    }
  }
  BitWriter writer(out);
  const auto restBits = static_cast<unsigned>(blockBits % 8);
  if (restBits > 0) writer.put(bitsAt(data, length, startBit + wholeBytes * 8, restBits), restBits);
  writer.put(kEndMagic, kMagicBits);
  writer.put(bitsAt(data, length, startBit + kMagicBits, kCRCBits), kCRCBits);
  writer.flush();
  return out;
}

}  // namespace BZip2Blocks

}  // namespace zrv::bzip2
