// The patch streams' decoder ends exactly as libbz2 does (finished with its bytes, or failed), however it is
// read, including where its own block decoder gives up halfway through a stream and libbz2 takes over.

#include "tests/support/Libbz2Reference.h"
#include "tests/update/PatchBuilder.h"
#include "update/bzip2/BZip2StreamDecoder.h"

#include <gtest/gtest.h>

#include <string>

using namespace zrv::bzip2;  // the codec's internals under test

namespace {

using State = BZip2StreamDecoder::State;

TEST(BZip2StreamDecoder, endsAsLibbz2DoesWhateverTheDamage) {
  const ZRVData clean = bzip2(gameLikeBytes(700000, 1), 1);
  const auto blocks = blocksOf(clean);
  ASSERT_GE(blocks.size(), 4u);
  auto flipped = [&](std::uint64_t bit) { return withBitFlipped(clean, bit); };
  auto cut = [&](std::uint64_t bit) { return ZRVData(clean.begin(), clean.begin() + static_cast<long>(bit / 8)); };
  ZRVData trailing = clean;
  trailing.insert(trailing.end(), {'B', 'Z', 'h', '9', 0xFF});
  ZRVData runs(2000000, 0);
  runs.insert(runs.end(), {1, 2, 3, 3, 3, 3});
  const struct {
    const char* name;
    ZRVData stream;
    bool ownAllTheWay;
  } cases[] = {
      {"clean, several blocks", clean, true},
      {"blocks that end in runs", bzip2(runs, 1), true},
      {"no bytes", bzip2(ZRVData{}, 9), true},
      {"trailing bytes", trailing, true},
      {"second block's CRC", flipped(blocks[1].start + 60), false},
      {"second block randomised", flipped(blocks[1].start + 80), false},
      {"third block's tables", flipped(blocks[2].start + 400), false},
      {"combined CRC", flipped(blocks.back().end + 48 + 5), false},
      {"cut inside the third block", cut(blocks[2].start + 5000), false},
      {"cut before the end mark", cut(blocks.back().end), false},
      {"cut inside the combined CRC", cut(blocks.back().end + 60), false},
      {"block-size digit 0", [&] { ZRVData s = clean; s[3] = '0'; return s; }(), false},
      {"not bzip2", ZRVData{'B', 'Z', 'x'}, false},
  };
  for (const auto& c : cases) {
    const libbz2::Decoded expected = libbz2::decode(c.stream.data(), c.stream.size());
    for (std::size_t piece : {std::size_t{24}, std::size_t{4093}, std::size_t{1} << 20}) {
      BZip2StreamDecoder decoder(c.stream.data(), c.stream.size());
      std::string out, buffer(piece, '\0');
      while (decoder.state() == State::decoding) {
        const std::size_t made = decoder.read(reinterpret_cast<std::uint8_t*>(buffer.data()), piece);
        EXPECT_TRUE(made == piece || decoder.state() != State::decoding) << c.name << ": short read before the end";
        out.append(buffer, 0, made);
      }
      EXPECT_TRUE(libbz2::endsAlike(out, decoder.state() == State::finished, false, expected))
          << c.name << ", pieces of " << piece << ": " << out.size() << " bytes, libbz2 " << expected.bytes.size()
          << (expected.finished ? ", finished" : ", failed");
      EXPECT_EQ(!decoder.handedToLibbz2(), c.ownAllTheWay) << c.name << ", pieces of " << piece;
    }
  }
}

}  // namespace
