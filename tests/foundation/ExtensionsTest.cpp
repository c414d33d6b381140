#include <ZRVKit/ZRVExtensions.h>

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

using namespace ZRVExtensions;

namespace {
ZRVData bytesOf(std::string_view text) { return ZRVData(text.begin(), text.end()); }
}  // namespace

TEST(Digest, HexTextOfBuffersAndFiles) {
  EXPECT_EQ(sha1Hash(ZRVData{}), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(sha1Hash(bytesOf("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");

  TemporaryDirectory folder;
  std::string large(3 * 1024 * 1024 + 17, 'q');  // spans several read chunks
  writeFile(folder / "game.bin", large);
  EXPECT_EQ(sha1Hash(folder / "game.bin"), sha1Hash(bytesOf(large)));
  writeFile(folder / "empty.bin", "");
  EXPECT_EQ(sha1Hash(folder / "empty.bin"), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(sha1Hash(folder / "missing.bin"), "");
  EXPECT_EQ(sha1Hash(folder.path()), "");  // a folder cannot be read as a file
}

TEST(Digest, StringDigestHashesOnlyAsManyBytesAsUTF16Units) {
  EXPECT_EQ(ac_sha1("abc"), sha1Hash(bytesOf("abc")));
  // "é" is two UTF-8 bytes but one UTF-16 unit: only the first byte is hashed.
  EXPECT_EQ(ac_sha1("\xC3\xA9"), sha1Hash(bytesOf("\xC3")));
  // "7 Ärger 50": ten units, eleven bytes; the last byte is left out.
  EXPECT_EQ(ac_sha1("7 \xC3\x84rger 50"), sha1Hash(bytesOf("7 \xC3\x84rger 5")));
  // An emoji is four bytes and two units.
  EXPECT_EQ(ac_sha1("a\xF0\x9F\x98\x80"), sha1Hash(bytesOf("a\xF0\x9F")));
  EXPECT_EQ(utf16Length("a\xF0\x9F\x98\x80\xE2\x82\xAC"), 4u);
}

TEST(Extensions, ContainsStringAndSlices) {
  struct Case {
    const char* haystack;
    const char* needle;
    bool expected;
  } cases[] = {{"Quillmoor", "moor", true}, {"Quillmoor", "", false}, {"", "", false}, {"abc", "abcd", false}};
  for (const auto& c : cases) EXPECT_EQ(containsString(c.haystack, c.needle), c.expected) << c.needle;

  ZRVData data = bytesOf("0123456789");
  EXPECT_EQ(subdata(data, 2, 3), bytesOf("234"));
  EXPECT_EQ(subdata(data, 10, 0), ZRVData{});
  EXPECT_THROW(subdata(data, 8, 3), std::out_of_range);
  EXPECT_THROW(subdata(data, 11, 0), std::out_of_range);
  EXPECT_THROW(subdata(data, 1, SIZE_MAX), std::out_of_range);
}
