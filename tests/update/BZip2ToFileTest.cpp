// Decompressing bzip2 straight into a file, including the deliberate "damaged input counts as success".

#include "support/TemporaryDirectory.h"
#include "tests/update/PatchBuilder.h"

#include <ZRVKit/ZRVExtensions.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <random>

namespace {

ZRVData someBytes(std::size_t length) {
  ZRVData bytes(length);
  std::mt19937 random(7);
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(i % 97 < 60 ? i % 13 : random());
  return bytes;
}

std::string text(const ZRVData& bytes) { return std::string(bytes.begin(), bytes.end()); }

TEST(BZip2ToFile, writesTheDecompressedBytesOverAnyOldFile) {
  TemporaryDirectory folder;
  const ZRVData contents = someBytes(100000);  // several output chunks
  writeFile(folder / "file", "old contents that are longer than nothing");
  std::optional<ZRVError> error = ZRVError("stale", 1);
  EXPECT_TRUE(ZRVExtensions::decompressBZIP2CompressedDataToURL(bzip2(contents), folder / "file", &error));
  EXPECT_FALSE(error);
  EXPECT_EQ(readFile(folder / "file"), text(contents));
}

TEST(BZip2ToFile, damagedInputStillCountsAsSuccess) {
  TemporaryDirectory folder;
  ZRVData truncated = bzip2(someBytes(100000));
  truncated.resize(truncated.size() / 2);
  struct Case {
    const char* name;
    ZRVData input;
  } cases[] = {{"not bzip2", ZRVData{'h', 'e', 'l', 'l', 'o'}}, {"empty", {}}, {"cut in half", truncated}};
  for (const Case& c : cases) {
    std::optional<ZRVError> error;
    EXPECT_TRUE(ZRVExtensions::decompressBZIP2CompressedDataToURL(c.input, folder / c.name, &error)) << c.name;
    EXPECT_FALSE(error) << c.name;
    EXPECT_TRUE(std::filesystem::exists(folder / c.name)) << c.name;
  }
  EXPECT_EQ(std::filesystem::file_size(folder / "not bzip2"), 0u);
}

TEST(BZip2ToFile, unopenableDestinationIsAnErrorWithErrno) {
  TemporaryDirectory folder;
  std::optional<ZRVError> error;
  EXPECT_FALSE(ZRVExtensions::decompressBZIP2CompressedDataToURL(bzip2({1, 2}), folder / "missing" / "file", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "BZip2");
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_FALSE(ZRVExtensions::decompressBZIP2CompressedDataToURL(bzip2({1, 2}), folder / "missing" / "file"));
}

}  // namespace
