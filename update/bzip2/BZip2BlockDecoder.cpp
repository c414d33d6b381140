#include "BZip2BlockDecoder.h"

#include "BZip2Blocks.h"
#include "BZip2InverseTransform.h"
#include "BZip2RunExpansion.h"
#include "BZip2TablePool.h"

#include <algorithm>
#include <cstring>

namespace zrv::bzip2 {

namespace BZip2BlockDecoder {

namespace {

constexpr unsigned kMaxGroups = 6;
constexpr unsigned kMaxAlphabet = 258;
// libbz2 1.0.8 reads but ignores selectors beyond this, and some of its versions refuse the block: never ours.
constexpr unsigned kMaxSelectors = 18002;
constexpr unsigned kGroupSize = 50;
constexpr unsigned kMaxCodeLength = 20;
constexpr unsigned kLookupBits = 10;
// libbz2 refuses a run whose RUNA/RUNB digits reach this weight.
constexpr std::uint32_t kMaxRunWeight = 2 * 1024 * 1024;

/// Reads bits most significant first; bits past the end of the data read as zero.
class BitReader {
 public:
  BitReader(const std::uint8_t* data, std::size_t length, std::uint64_t bit)
      : data_(data), length_(length), next_(bit / 8) {
    refill();
    consume(static_cast<unsigned>(bit % 8));
  }

  std::uint64_t position() const { return next_ * 8 - available_; }
  unsigned available() const { return available_; }

  /// At least 56 bits available afterwards.
  void refill() {
    if (next_ + 8 <= length_) {
      std::uint64_t word;
      std::memcpy(&word, data_ + next_, 8);
      // Bits below the whole bytes taken are the following bytes' own, so a later refill ORs in the same.
      window_ |= __builtin_bswap64(word) >> available_;
      const unsigned bytes = (63 - available_) / 8;
      next_ += bytes;
      available_ += bytes * 8;
      return;
    }
    while (available_ <= 56) {
      const std::uint64_t byte = next_ < length_ ? data_[next_] : 0;
      window_ |= byte << (56 - available_);
      ++next_;
      available_ += 8;
    }
  }
  /// The next `count` (1 to 32) bits without taking them; needs that many available.
  std::uint32_t peek(unsigned count) const { return static_cast<std::uint32_t>(window_ >> (64 - count)); }
  void consume(unsigned count) {
    window_ <<= count;
    available_ -= count;
  }
  std::uint32_t get(unsigned count) {
    if (available_ < count) refill();
    const std::uint32_t value = peek(count);
    consume(count);
    return value;
  }

 private:
  const std::uint8_t* data_;
  std::size_t length_;
  std::uint64_t next_;  ///< the next byte not yet in the window
  std::uint64_t window_ = 0;
  unsigned available_ = 0;
};

/// A canonical Huffman code as bzip2 assigns it (by length, then by symbol), decoded through a table of the
/// first bits and, for the rare longer codes, length by length.
struct HuffmanCode {
  std::uint16_t lookup[1 << kLookupBits];  ///< symbol | length << 9; 0 for a longer code
  std::uint32_t firstCode[kMaxCodeLength + 1];
  std::uint32_t count[kMaxCodeLength + 1];
  std::uint32_t offset[kMaxCodeLength + 1];
  std::uint16_t symbols[kMaxAlphabet];  ///< by length, then by symbol

  /// False unless the lengths make a complete prefix code. libbz2 decodes others too, its own way; they never
  /// come out of a Huffman tree, so they are left to it.
  bool build(const std::uint8_t* lengths, unsigned alphabetSize) {
    std::fill(std::begin(count), std::end(count), 0);
    for (unsigned symbol = 0; symbol < alphabetSize; ++symbol) ++count[lengths[symbol]];
    std::uint32_t kraft = 0;
    for (unsigned length = 1; length <= kMaxCodeLength; ++length) kraft += count[length] << (kMaxCodeLength - length);
    if (kraft != 1u << kMaxCodeLength) return false;
    std::uint32_t code = 0, index = 0;
    std::uint32_t next[kMaxCodeLength + 1];
    for (unsigned length = 1; length <= kMaxCodeLength; ++length) {
      firstCode[length] = code;
      offset[length] = next[length] = index;
      index += count[length];
      code = (code + count[length]) << 1;
    }
    for (unsigned symbol = 0; symbol < alphabetSize; ++symbol) {
      symbols[next[lengths[symbol]]++] = static_cast<std::uint16_t>(symbol);
    }
    std::fill(std::begin(lookup), std::end(lookup), 0);
    for (unsigned length = 1; length <= kLookupBits; ++length) {
      for (std::uint32_t i = 0; i < count[length]; ++i) {
        const std::uint32_t first = (firstCode[length] + i) << (kLookupBits - length);
        const auto entry = static_cast<std::uint16_t>(symbols[offset[length] + i] | length << 9);
        std::fill(lookup + first, lookup + first + (1u << (kLookupBits - length)), entry);
      }
    }
    return true;
  }

  /// The next symbol; needs 20 bits available. The code is complete, so the search below always ends early.
  unsigned decode(BitReader& in) const {
    const std::uint16_t entry = lookup[in.peek(kLookupBits)];
    if (entry != 0) {
      in.consume(entry >> 9);
      return entry & 0x1FF;
    }
    for (unsigned length = kLookupBits + 1; length <= kMaxCodeLength; ++length) {
      const std::uint32_t index = in.peek(length) - firstCode[length];
      if (index < count[length]) {
        in.consume(length);
        return symbols[offset[length] + index];
      }
    }
    return kMaxAlphabet;
  }
};

struct Tables {
  std::uint8_t selectors[kMaxSelectors];
  HuffmanCode codes[kMaxGroups];
};

}  // namespace

namespace {

/// Everything up to the first run-length stage: the Huffman codes, the move-to-front indices and the inverse
/// BWT. `use(bytes, length, storedCRC)` gets the block's bytes while the tables that hold them are still
/// leased, and its answer is the block's.
template <typename Use>
Result transformBlock(const std::uint8_t* data, std::size_t length, std::uint64_t startBit, std::uint64_t endBit,
                      std::uint8_t levelDigit, Use&& use) {
  if (levelDigit < '1' || levelDigit > '9' || endBit > std::uint64_t{length} * 8) return Result::unsure;
  if (startBit + BZip2Blocks::kMagicBits + BZip2Blocks::kCRCBits > endBit) return Result::unsure;
  if (BZip2Blocks::bitsAt(data, length, startBit, BZip2Blocks::kMagicBits) != BZip2Blocks::kBlockMagic) {
    return Result::unsure;
  }
  const std::uint32_t blockLimit = 100000u * static_cast<std::uint32_t>(levelDigit - '0');
  BitReader in(data, length, startBit + BZip2Blocks::kMagicBits);

  const std::uint32_t storedCRC = in.get(32);
  if (in.get(1) != 0) return Result::unsure;  // randomised: only very old encoders did that
  const std::uint32_t origin = in.get(24);
  if (origin > blockLimit) return Result::unsure;

  // The byte values the block uses, in 16 groups of 16.
  std::uint8_t byteOfSymbol[256];
  unsigned bytesUsed = 0;
  const std::uint32_t groupsUsed = in.get(16);
  for (unsigned group = 0; group < 16; ++group) {
    if (!(groupsUsed & (0x8000u >> group))) continue;
    const std::uint32_t used = in.get(16);
    for (unsigned i = 0; i < 16; ++i) {
      if (used & (0x8000u >> i)) byteOfSymbol[bytesUsed++] = static_cast<std::uint8_t>(group * 16 + i);
    }
  }
  if (bytesUsed == 0) return Result::unsure;
  const unsigned alphabetSize = bytesUsed + 2;
  const unsigned endOfBlock = bytesUsed + 1;

  const unsigned codeCount = in.get(3);
  if (codeCount < 2 || codeCount > kMaxGroups) return Result::unsure;
  const unsigned selectorCount = in.get(15);
  if (selectorCount < 1 || selectorCount > kMaxSelectors) return Result::unsure;

  auto tables = std::make_unique<Tables>();
  std::uint8_t order[kMaxGroups];
  for (unsigned i = 0; i < codeCount; ++i) order[i] = static_cast<std::uint8_t>(i);
  for (unsigned i = 0; i < selectorCount; ++i) {
    unsigned position = 0;
    while (in.get(1) != 0) {
      if (++position >= codeCount) return Result::unsure;
    }
    const std::uint8_t code = order[position];
    std::memmove(order + 1, order, position);
    order[0] = code;
    tables->selectors[i] = code;
  }

  for (unsigned code = 0; code < codeCount; ++code) {
    std::uint8_t lengths[kMaxAlphabet];
    unsigned current = in.get(5);
    for (unsigned symbol = 0; symbol < alphabetSize; ++symbol) {
      for (;;) {
        if (current < 1 || current > kMaxCodeLength) return Result::unsure;
        if (in.get(1) == 0) break;
        if (in.get(1) == 0) {
          ++current;
        } else {
          --current;
        }
      }
      lengths[symbol] = static_cast<std::uint8_t>(current);
    }
    if (!tables->codes[code].build(lengths, alphabetSize)) return Result::unsure;
  }

  BZip2TablePool::Lease workspace;  // from here on the block-sized tables are needed
  workspace->reserve(blockLimit);
  std::uint32_t* const links = workspace->links.get();

  // Huffman symbols to move-to-front indices and runs (RUNA/RUNB digits of a bijective base 2) to bytes.
  std::uint32_t byteCounts[256] = {};
  std::uint8_t recent[256];
  std::memcpy(recent, byteOfSymbol, bytesUsed);
  std::uint32_t filled = 0;
  std::uint32_t runLength = 0, runWeight = 1;
  unsigned nextSelector = 0, leftInGroup = 0;
  const HuffmanCode* code = nullptr;
  for (;;) {
    if (leftInGroup == 0) {
      if (nextSelector >= selectorCount) return Result::unsure;  // no end of block
      code = &tables->codes[tables->selectors[nextSelector++]];
      leftInGroup = kGroupSize;
    }
    --leftInGroup;
    if (in.available() < kMaxCodeLength) in.refill();
    const unsigned symbol = code->decode(in);
    if (symbol <= 1) {
      if (runWeight >= kMaxRunWeight) return Result::unsure;
      runLength += runWeight << symbol;
      runWeight <<= 1;
      continue;
    }
    if (runWeight > 1) {
      if (runLength > blockLimit - filled) return Result::unsure;
      const std::uint8_t byte = recent[0];
      std::fill(links + filled, links + filled + runLength, byte);
      byteCounts[byte] += runLength;
      filled += runLength;
      runLength = 0;
      runWeight = 1;
    }
    if (symbol == endOfBlock) break;
    if (symbol > endOfBlock) return Result::unsure;
    if (filled >= blockLimit) return Result::unsure;
    const unsigned index = symbol - 1;
    const std::uint8_t byte = recent[index];
    std::memmove(recent + 1, recent, index);
    recent[0] = byte;
    links[filled++] = byte;
    ++byteCounts[byte];
  }
  if (in.position() != endBit || origin >= filled) return Result::unsure;

  // Inverse BWT: each byte of the last column links to the next one in the block, as libbz2 follows them.
  std::uint32_t next[256];
  for (std::uint32_t byte = 0, sum = 0; byte < 256; ++byte) {
    next[byte] = sum;
    sum += byteCounts[byte];
  }
  for (std::uint32_t i = 0; i < filled; ++i) links[next[links[i] & 0xFF]++] |= i << 8;
  std::uint8_t* const bytes = workspace->bytes.get();
  if (!BZip2InverseTransform::follow(links, filled, links[origin] >> 8, bytes, workspace->walks)) {
    return Result::unsure;
  }
  return use(bytes, filled, storedCRC);
}

}  // namespace

Result decode(const std::uint8_t* data, std::size_t length, std::uint64_t startBit, std::uint64_t endBit,
              std::uint8_t levelDigit, std::vector<Chunk>& chunks, CRCCheck check) {
  return transformBlock(data, length, startBit, endBit, levelDigit,
                        [&](const std::uint8_t* bytes, std::uint32_t filled, std::uint32_t storedCRC) {
                          BZip2RunExpansion expansion;
                          expansion.start(bytes, filled);
                          std::vector<Chunk> decoded;
                          while (!expansion.finished() && !expansion.malformed()) {
                            Chunk chunk{std::unique_ptr<std::uint8_t[]>(new std::uint8_t[kChunkLength]), 0};
                            chunk.length = expansion.expand(chunk.bytes.get(), kChunkLength);
                            if (chunk.length > 0) decoded.push_back(std::move(chunk));
                          }
                          if (expansion.malformed()) return Result::unsure;
                          if (expansion.crc() != storedCRC && check == CRCCheck::required) return Result::unsure;
                          for (Chunk& piece : decoded) chunks.push_back(std::move(piece));
                          return Result::decoded;
                        });
}

Result decodeRunLengthBytes(const std::uint8_t* data, std::size_t length, std::uint64_t startBit,
                            std::uint64_t endBit, std::uint8_t levelDigit, std::vector<std::uint8_t>& bytes,
                            std::uint32_t& storedCRC) {
  return transformBlock(data, length, startBit, endBit, levelDigit,
                        [&](const std::uint8_t* decoded, std::uint32_t filled, std::uint32_t crc) {
                          bytes.assign(decoded, decoded + filled);
                          storedCRC = crc;
                          return Result::decoded;
                        });
}

}  // namespace BZip2BlockDecoder

}  // namespace zrv::bzip2
