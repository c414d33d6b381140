// Our own block decoder must never accept a block libbz2 refuses, nor decode one to other bytes; on the blocks
// bzip2 itself writes it must not need libbz2 at all.

#include "tests/support/Libbz2Reference.h"
#include "tests/update/PatchBuilder.h"
#include "update/bzip2/BZip2BlockDecoder.h"
#include "update/bzip2/BZip2CRC.h"
#include "update/bzip2/BZip2Blocks.h"

#include <gtest/gtest.h>

#include <string>

using namespace zrv::bzip2;  // the codec's internals under test

namespace {

/// libbz2's answer for the block framed as a stream of its own: what it put out, and whether it finished.
libbz2::Decoded libbz2Decode(const ZRVData& stream, Block block) {
  const ZRVData framed = BZip2Blocks::singleBlockStream(stream.data(), stream.size(), block.start, block.end, stream[3]);
  return libbz2::decode(framed.data(), framed.size());
}

std::optional<std::string> ownDecode(const ZRVData& stream, Block block,
                                     BZip2BlockDecoder::CRCCheck check = BZip2BlockDecoder::CRCCheck::required) {
  std::vector<BZip2BlockDecoder::Chunk> chunks;
  if (BZip2BlockDecoder::decode(stream.data(), stream.size(), block.start, block.end, stream[3], chunks, check) !=
      BZip2BlockDecoder::Result::decoded) {
    EXPECT_TRUE(chunks.empty());
    return std::nullopt;
  }
  std::string out;
  for (const auto& chunk : chunks) out.append(reinterpret_cast<const char*>(chunk.bytes.get()), chunk.length);
  return out;
}

/// Compares both decoders on one block; true when ours decoded it.
bool decodesLikeLibbz2(const ZRVData& stream, Block block, const std::string& label) {
  auto own = ownDecode(stream, block);
  if (!own) return false;
  const auto reference = libbz2Decode(stream, block);
  EXPECT_TRUE(reference.finished) << label << ": accepted a block libbz2 refuses";
  EXPECT_TRUE(reference.finished && reference.bytes == *own) << label << ": bytes differ from libbz2's";
  return true;
}

ZRVData runsOfEveryLength() {
  ZRVData bytes;
  for (std::size_t run : {1, 2, 3, 4, 5, 6, 254, 255, 258, 259, 260, 263, 517, 4000, 70000}) {
    for (std::uint8_t byte : {0x00, 0xFF, 0x41}) {
      bytes.insert(bytes.end(), run, byte);
      bytes.push_back(0x42);
    }
  }
  bytes.insert(bytes.end(), 4, 0x00);  // ends on a run of four: its count of zero ends the block
  return bytes;
}

ZRVData everyByteValue() {
  ZRVData bytes = randomBytes(300000, 2, 256);
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<std::uint8_t>(i));
  return bytes;
}

ZRVData words() {
  static const char* const vocabulary[] = {"quill ", "moor ", "patch ", "the ", "launcher ", "\n", "game "};
  std::mt19937 random(3);
  ZRVData bytes;
  while (bytes.size() < 1300000) {
    const std::string word = vocabulary[random() % 7];
    bytes.insert(bytes.end(), word.begin(), word.end());
  }
  return bytes;
}

TEST(BZip2BlockDecoder, decodesWhatBzip2WritesAsLibbz2Does) {
  const struct {
    const char* name;
    ZRVData input;
    int level;
    std::size_t minimumBlocks;
  } cases[] = {
      {"game-like, level 1", gameLikeBytes(700000, 1), 1, 4},
      {"words, level 9", words(), 9, 2},
      {"runs of every length, level 1", runsOfEveryLength(), 1, 1},
      {"every byte value, level 9", everyByteValue(), 9, 1},
      {"one byte", ZRVData{'q'}, 9, 1},
      {"four equal bytes", ZRVData(4, 'q'), 9, 1},
      {"one long run of zeros", ZRVData(2000000, 0), 9, 1},
      {"no bytes", ZRVData{}, 9, 0},
  };
  for (const auto& c : cases) {
    const ZRVData stream = bzip2(c.input, c.level);
    const auto blocks = blocksOf(stream);
    EXPECT_GE(blocks.size(), c.minimumBlocks) << c.name;
    std::string decoded;
    for (Block block : blocks) {
      EXPECT_TRUE(decodesLikeLibbz2(stream, block, c.name)) << c.name << ": left a good block to libbz2";
      if (auto own = ownDecode(stream, block)) decoded += *own;
    }
    EXPECT_TRUE(decoded == std::string(c.input.begin(), c.input.end())) << c.name;
  }
}

TEST(BZip2BlockDecoder, leavesDamagedAndUnusualBlocksToLibbz2) {
  const ZRVData clean = bzip2(words(), 1);
  const Block first = blocksOf(clean).at(0), second = blocksOf(clean).at(1);
  auto flipped = [&](std::uint64_t bit) { return withBitFlipped(clean, bit); };
  const struct {
    const char* name;
    ZRVData stream;
    Block block;
  } cases[] = {
      {"randomised", flipped(first.start + 80), first},
      {"block CRC", flipped(first.start + 60), first},
      {"origin pointer", flipped(first.start + 100), first},
      {"symbol map", flipped(first.start + 110), first},
      {"last bits of the block", flipped(first.end - 1), first},
      {"ends a bit early", clean, {first.start, first.end - 1}},
      {"ends a bit late", clean, {first.start, first.end + 1}},
      {"ends a byte early", clean, {second.start, second.end - 8}},
      {"too short for a header", clean, {first.start, first.start + 60}},
      {"does not start at a block magic", clean, {first.start + 1, first.end}},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(decodesLikeLibbz2(c.stream, c.block, c.name)) << c.name;
  }
}

/// The block with its stored CRC replaced by that of what libbz2 puts out for it, so that damage behind the CRC
/// is not hidden by the CRC mismatch.
ZRVData withRepairedCRC(ZRVData stream, Block block) {
  const std::string putOut = libbz2Decode(stream, block).bytes;
  const std::uint32_t crc =
      ~BZip2CRC::update(0xFFFFFFFF, reinterpret_cast<const std::uint8_t*>(putOut.data()), putOut.size());
  for (unsigned i = 0; i < 32; ++i) {
    const std::uint64_t bit = block.start + 48 + i;
    const auto mask = static_cast<std::uint8_t>(0x80 >> (bit % 8));
    stream[bit / 8] = static_cast<std::uint8_t>((crc & (0x80000000u >> i)) ? stream[bit / 8] | mask
                                                                           : stream[bit / 8] & ~mask);
  }
  return stream;
}

TEST(BZip2BlockDecoder, neverDisagreesWithLibbz2OnSingleBitDamage) {
  // Small blocks, so that every part of the header and the tables is hit many times.
  int repairedAccepted = 0;
  for (int level : {1, 9}) {
    const ZRVData clean = bzip2(randomBytes(3000, 4, 9), level);
    const Block block = blocksOf(clean).at(0);
    for (std::uint64_t bit = block.start + 80; bit < block.end; bit += 3) {
      const ZRVData stream = withBitFlipped(clean, bit);
      const std::string label = "bit " + std::to_string(bit);
      decodesLikeLibbz2(stream, block, label);
      repairedAccepted += decodesLikeLibbz2(withRepairedCRC(stream, block), block, "repaired, " + label);
      // Whatever passes our checks short of the CRC, libbz2 puts out to the same bytes: otherwise a block made
      // to carry the CRC of our bytes would be one we accept and libbz2 refuses.
      if (auto own = ownDecode(stream, block, BZip2BlockDecoder::CRCCheck::skipped)) {
        EXPECT_TRUE(libbz2Decode(stream, block).bytes == *own) << label << ": bytes differ from libbz2's";
      }
    }
  }
  // Damage to the origin pointer or the symbols gives other bytes that are still a block libbz2 accepts.
  EXPECT_GT(repairedAccepted, 20);
}

}  // namespace
