// Archives written here against Info-ZIP, 7-Zip and Python's zipfile, and theirs unpacked here.
#include "ZipPeers.h"
#include "ZipTestSupport.h"

#include <ZRVKit/SSZipArchive.h>

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

// Files of the sizes and contents that matter to deflate and to the checksums: empty, one byte, every byte
// value, a long run and data across several chunks.
std::vector<std::pair<std::string, std::string>> sampleFiles() {
  std::string everyByte;
  for (int i = 0; i < 256 * 3; ++i) everyByte += static_cast<char>(i & 0xff);
  std::string large;
  for (std::uint32_t i = 0, state = 1; i < 700000; ++i) {
    state = state * 1103515245u + 12345u;
    large += static_cast<char>('a' + (state >> 16) % 7);
  }
  return {{"empty.txt", ""}, {"one.txt", "1"}, {"bytes.bin", everyByte},
          {"folder/run.bin", std::string(300000, '\0') + "end"}, {"folder/deeper/large.txt", large},
          {"name with spaces.txt", "spaces"}};
}

}  // namespace

TEST(ZipPeers, ArchivesGoBothWaysBetweenUsAndEveryPeerByteForByte) {
  TemporaryDirectory temporary;
  const fs::path tree = temporary / "tree";
  for (const auto& [name, contents] : sampleFiles()) writeFile(tree / name, contents);
  fs::permissions(tree / "folder" / "run.bin", fs::perms(0755));
  fs::create_directories(tree / "empty-folder");
  ASSERT_TRUE(SSZipArchive::createZipFileAtPath(temporary / "ours.zip", tree));

  for (const ZipPeer& peer : zipPeers()) {
    SCOPED_TRACE(peer.name);
    EXPECT_EQ(peer.test(temporary / "ours.zip"), 0);
    const fs::path theirs = temporary / ("by " + peer.name), peerArchive = temporary / (peer.name + ".zip");
    ASSERT_EQ(peer.extract(temporary / "ours.zip", theirs), 0);
    ASSERT_EQ(peer.archiveFolder(peerArchive, tree), 0);
    const fs::path ours = temporary / ("from " + peer.name);
    ASSERT_TRUE(SSZipArchive::unzipFileAtPath(peerArchive, ours));
    for (const auto& [name, contents] : sampleFiles()) {
      EXPECT_EQ(readFile(theirs / name), contents) << name;
      EXPECT_EQ(readFile(ours / name), contents) << name;
    }
  }
  EXPECT_EQ(modeOf(temporary / "by Info-ZIP" / "folder" / "run.bin"), 0755u);
}

TEST(ZipPeers, FolderArchivesHoldLinkedFilesAndNeverLoop) {
  TemporaryDirectory temporary;
  const fs::path tree = temporary / "tree";
  writeFile(tree / "real.txt", "real");
  writeFile(tree / "sub" / "inner.txt", "inner");
  writeFile(temporary / "outside.txt", "outside");
  fs::create_symlink("real.txt", tree / "to-file");
  fs::create_symlink("../outside.txt", tree / "to-outside");
  fs::create_symlink("sub", tree / "to-sub");
  fs::create_symlink(".", tree / "to-itself");
  fs::create_symlink("..", tree / "sub" / "to-parent");
  fs::create_symlink(tree, tree / "sub" / "to-top");
  fs::create_symlink("ring-b", tree / "ring-a");
  fs::create_symlink("ring-a", tree / "ring-b");
  fs::create_symlink("missing", tree / "broken");
  ASSERT_EQ(mkfifo((tree / "pipe").c_str(), 0600), 0);

  const fs::path archive = temporary / "links.zip";
  ASSERT_TRUE(SSZipArchive::createZipFileAtPath(archive, tree));
  for (const ZipPeer& peer : zipPeers()) EXPECT_EQ(peer.test(archive), 0) << peer.name;

  const fs::path out = temporary / "out";
  ASSERT_TRUE(SSZipArchive::unzipFileAtPath(archive, out));
  EXPECT_EQ(describeTree(out).size(), 7u);  // five files and the folders "sub" and "to-sub"
  EXPECT_EQ(readFile(out / "real.txt"), "real");
  EXPECT_EQ(readFile(out / "to-file"), "real");
  EXPECT_EQ(readFile(out / "to-outside"), "outside");
  EXPECT_EQ(readFile(out / "sub" / "inner.txt"), "inner");
  EXPECT_EQ(readFile(out / "to-sub" / "inner.txt"), "inner");
  EXPECT_FALSE(fs::is_symlink(out / "to-file"));
}

TEST(ZipPeers, DatesADosDateCannotHoldBecomeTheNearestItCan) {
  struct Case {
    std::time_t modified;
    std::time_t archived;
  };
  const std::vector<Case> cases{
      {0, localTime(1980, 1, 1, 0, 0, 0)},
      {localTime(1980, 1, 1, 0, 0, 0), localTime(1980, 1, 1, 0, 0, 0)},
      {localTime(2150, 1, 1, 0, 0, 0), localTime(2107, 12, 31, 23, 59, 58)},
  };
  TemporaryDirectory temporary;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.modified);
    const fs::path file = temporary / "file.txt";
    writeFile(file, "dated");
    setModificationTime(file, c.modified);
    const fs::path archive = temporary / "dated.zip";
    ASSERT_TRUE(SSZipArchive::createZipFileAtPath(archive, std::vector<fs::path>{file}));
    for (const ZipPeer& peer : zipPeers()) EXPECT_EQ(peer.test(archive), 0) << peer.name;
    const fs::path out = temporary / "out";
    ASSERT_TRUE(SSZipArchive::unzipFileAtPath(archive, out));
    EXPECT_EQ(modificationTime(out / "file.txt"), c.archived);
    fs::remove_all(out);
  }
}
