// The patch streams' decoder ends exactly as libbz2 does (finished with its bytes, or failed), however it is
// read, including where its own block decoder gives up halfway through a stream and libbz2 takes over.

#include "tests/update/PatchBuilder.h"
#include "update/bzip2/BZip2StreamDecoder.h"

#include <bzlib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

using namespace zrv::bzip2;  // the codec's internals under test

namespace {

using State = BZip2StreamDecoder::State;

std::pair<std::string, State> libbz2Decode(const ZRVData& stream) {
  bz_stream decoder{};
  EXPECT_EQ(BZ2_bzDecompressInit(&decoder, 0, 0), BZ_OK);
  decoder.next_in = const_cast<char*>(reinterpret_cast<const char*>(stream.data()));
  decoder.avail_in = static_cast<unsigned int>(stream.size());
  std::string out;
  State state = State::decoding;
  while (state == State::decoding) {
    char buffer[65536];
    decoder.next_out = buffer;
    decoder.avail_out = sizeof buffer;
    const int result = BZ2_bzDecompress(&decoder);
    const std::size_t made = sizeof buffer - decoder.avail_out;
    out.append(buffer, made);
    if (result == BZ_STREAM_END) state = State::finished;
    else if (result != BZ_OK || (made == 0 && decoder.avail_in == 0)) state = State::failed;
  }
  BZ2_bzDecompressEnd(&decoder);
  return {out, state};
}

TEST(BZip2StreamDecoder, endsAsLibbz2DoesWhateverTheDamage) {
  const ZRVData clean = bzip2(gameLikeBytes(700000, 1), 1);
  const auto blocks = blocksOf(clean);
  ASSERT_GE(blocks.size(), 4u);
  auto flipped = [&](std::uint64_t bit) {
    ZRVData stream = clean;
    stream[bit / 8] ^= static_cast<std::uint8_t>(0x80 >> (bit % 8));
    return stream;
  };
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
    const auto [expected, expectedState] = libbz2Decode(c.stream);
    for (std::size_t piece : {std::size_t{24}, std::size_t{4093}, std::size_t{1} << 20}) {
      BZip2StreamDecoder decoder(c.stream.data(), c.stream.size());
      std::string out, buffer(piece, '\0');
      while (decoder.state() == State::decoding) {
        const std::size_t made = decoder.read(reinterpret_cast<std::uint8_t*>(buffer.data()), piece);
        EXPECT_TRUE(made == piece || decoder.state() != State::decoding) << c.name << ": short read before the end";
        out.append(buffer, 0, made);
      }
      EXPECT_EQ(decoder.state(), expectedState) << c.name << ", pieces of " << piece;
      // A failing stream's bytes before the failure depend on libbz2's output buffer: they agree, but their
      // number need not.
      const bool finished = expectedState == State::finished;
      const std::size_t common = finished ? expected.size() : std::min(out.size(), expected.size());
      EXPECT_TRUE(out.size() >= common && out.compare(0, common, expected, 0, common) == 0 &&
                  (!finished || out.size() == expected.size()))
          << c.name << ", pieces of " << piece << ": " << out.size() << " bytes, libbz2 " << expected.size();
      EXPECT_EQ(!decoder.handedToLibbz2(), c.ownAllTheWay) << c.name << ", pieces of " << piece;
    }
  }
}

}  // namespace
