// Archives that need the 64-bit extension of the format: more than 65,535 entries, and an entry of more
// than 4 GiB. The large entry is a sparse file, streamed through every reader and writer, never held whole.
#include "ZipTestSupport.h"

#include <ZRVKit/SSZipArchive.h>

#include <support/TemporaryDirectory.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace fs = std::filesystem;

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr bool kUnderSanitizer = true;
#else
constexpr bool kUnderSanitizer = false;
#endif

constexpr int kManyEntries = 66000;
constexpr std::uint64_t kLargeSize = 4'700'000'011;

fs::path manyEntryName(int index) {
  return fs::path("folder" + std::to_string(index / 1000)) / ("file" + std::to_string(index) + ".txt");
}

void expectManyEntries(const fs::path& root) {
  int found = 0;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) found += entry.is_regular_file();
  EXPECT_EQ(found, kManyEntries);
  for (int index = 0; index < kManyEntries; ++index) {
    if (readFile(root / manyEntryName(index)) != std::to_string(index)) {
      ADD_FAILURE() << manyEntryName(index) << " differs";
      return;
    }
  }
}

// Mostly a hole, with text at the start, across the 4 GiB boundary (where 32-bit sizes and offsets wrap)
// and at the end, so that a reader that stops or wraps at 4 GiB cannot pass.
void makeLargeFile(const fs::path& path) {
  fs::create_directories(path.parent_path());
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(file, 0);
  ASSERT_EQ(::ftruncate(file, static_cast<off_t>(kLargeSize)), 0);
  for (const auto& [mark, offset] : {std::pair<std::string, std::uint64_t>{"start", 0},
                                      {"across 4 GiB", 0x100000000ull - 6}, {"end", kLargeSize - 3}}) {
    ASSERT_EQ(::pwrite(file, mark.data(), mark.size(), static_cast<off_t>(offset)), static_cast<ssize_t>(mark.size()));
  }
  ::close(file);
}

// Our archive of `tree` passes every peer's own test; it and every peer's archive of `tree` unpack here to what
// `expectUnpacked` looks for.
void expectBothWays(const fs::path& tree, const fs::path& work,
                    const std::function<void(const fs::path&)>& expectUnpacked) {
  const fs::path ours = work / "ours.zip";
  ASSERT_TRUE(SSZipArchive::createZipFileAtPath(ours, tree));
  for (const ZipPeer& peer : zipPeers()) EXPECT_EQ(peer.test(ours), 0) << peer.name;
  std::vector<const ZipPeer*> writers = {nullptr};  // none: this library
  for (const ZipPeer& peer : zipPeers()) writers.push_back(&peer);
  for (const ZipPeer* writer : writers) {
    SCOPED_TRACE(writer ? writer->name : "ours");
    const fs::path archive = writer ? work / "peer.zip" : ours;
    if (writer) {
      ASSERT_EQ(writer->archiveFolder(archive, tree), 0);
    }
    const fs::path out = work / "out";
    ASSERT_TRUE(SSZipArchive::unzipFileAtPath(archive, out));
    expectUnpacked(out);
    fs::remove_all(out);
    fs::remove(archive);
  }
}

}  // namespace

TEST(ZipLarge, MoreThan65535EntriesBothWays) {
  TemporaryDirectory temporary;
  const fs::path tree = temporary / "tree";
  for (int index = 0; index < kManyEntries; ++index) writeFile(tree / manyEntryName(index), std::to_string(index));

  expectBothWays(tree, temporary.path(), expectManyEntries);
}

// minizip on its own (as this library wrote them before) counts 0xFFFF entries in the end record and writes no
// Zip64 end record: such archives still unpack whole.
TEST(ZipLarge, ArchivesCountingAtMost0xFFFFEntriesWithoutZip64RecordUnpackWhole) {
  TemporaryDirectory temporary;
  std::vector<CraftedEntry> entries;
  for (int index = 0; index < kManyEntries; ++index) {
    entries.push_back(CraftedEntry{manyEntryName(index).generic_string(), std::to_string(index)});
  }
  craftArchive(temporary / "minizip.zip", entries);
  ASSERT_TRUE(SSZipArchive::unzipFileAtPath(temporary / "minizip.zip", temporary / "out"));
  expectManyEntries(temporary / "out");
}

TEST(ZipLarge, EntryOfMoreThan4GiBBothWays) {
  if (kUnderSanitizer) {
    GTEST_SKIP() << "a 4.5 GB entry is compressed four times and read eight: left to the release build, where it "
                    "takes a fraction of the time (the sanitizers see nothing of zlib, which does the work)";
  }
  TemporaryDirectory temporary;
  const fs::path tree = temporary / "tree";
  makeLargeFile(tree / "large.bin");
  writeFile(tree / "small.txt", "after the large entry");

  expectBothWays(tree, temporary.path(), [&](const fs::path& out) {
    EXPECT_TRUE(sameContents(out / "large.bin", tree / "large.bin"));
    EXPECT_EQ(readFile(out / "small.txt"), "after the large entry");
  });
}
