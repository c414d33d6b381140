// Archives written here against Info-ZIP, 7-Zip and Python's zipfile, and theirs unpacked here; the writer's own
// entries and misuse.
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
  for (const auto& [target, link] : std::vector<std::pair<fs::path, fs::path>>{
           {"real.txt", "to-file"}, {"../outside.txt", "to-outside"}, {"sub", "to-sub"}, {".", "to-itself"},
           {"..", "sub/to-parent"}, {tree, "sub/to-top"}, {"ring-b", "ring-a"}, {"ring-a", "ring-b"},
           {"missing", "broken"}}) {
    fs::create_symlink(target, tree / link);
  }
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

// An archive of listed files holds them by their names alone, with their permissions, and needs every one of them.
TEST(ZipWriter, FileListArchivesAreFlatKeepPermissionsAndNeedEveryFile) {
  TemporaryDirectory temporary;
  const fs::path tree = temporary / "tree";
  writeFile(tree / "top.txt", "top");
  writeFile(tree / "folder" / "inner.bin", std::string(70000, '\x7f') + "end");
  fs::permissions(tree / "top.txt", fs::perms(0600));
  const fs::path archive = temporary / "files.zip";
  ASSERT_TRUE(SSZipArchive::createZipFileAtPath(archive, {tree / "top.txt", tree / "folder" / "inner.bin"}));
  EXPECT_EQ(runCommand("unzip -tq " + quoted(archive) + " > /dev/null"), 0);
  ASSERT_EQ(runCommand("unzip -qo " + quoted(archive) + " -d " + quoted(temporary / "infozip")), 0);
  ASSERT_TRUE(SSZipArchive::unzipFileAtPath(archive, temporary / "ours"));
  for (const fs::path& out : {temporary / "infozip", temporary / "ours"}) {
    EXPECT_EQ(readFile(out / "inner.bin"), readFile(tree / "folder" / "inner.bin")) << out;
    EXPECT_EQ(modeOf(out / "top.txt"), 0600u) << out;
  }
  EXPECT_FALSE(SSZipArchive::createZipFileAtPath(temporary / "bad.zip", {temporary / "missing"}));
}

TEST(ZipWriter, WriterEntriesGetFileAndFolderPermissionsAndMisuseFails) {
  TemporaryDirectory temporary;
  writeFile(temporary / "file.txt", "contents");
  const fs::path written = temporary / "written.zip";
  SSZipArchive archive(written);
  EXPECT_FALSE(archive.writeData(ZRVData{'x'}, "before-open"));
  EXPECT_FALSE(archive.writeFile(temporary / "file.txt"));
  ASSERT_TRUE(archive.open());
  EXPECT_TRUE(archive.writeFile(temporary / "file.txt"));
  EXPECT_TRUE(archive.writeFileAtPath(temporary / "file.txt", std::string("renamed/file.txt")));
  EXPECT_TRUE(archive.writeData(ZRVData{'d', 'a', 't', 'a'}, "data.bin"));
  EXPECT_TRUE(archive.writeData(ZRVData{}, "empty.bin"));
  EXPECT_TRUE(archive.writeData(ZRVData{}, "folder/"));
  EXPECT_FALSE(archive.writeData(std::nullopt, "absent.bin"));
  EXPECT_FALSE(archive.writeFile(temporary / "missing.txt"));
  EXPECT_FALSE(archive.writeFile(temporary.path()));  // a folder is not a file
  EXPECT_TRUE(archive.close());
  for (const ZipPeer& peer : zipPeers()) EXPECT_EQ(peer.test(written), 0) << peer.name;

  // Info-ZIP applies the archived permissions as they stand, whatever the umask.
  ASSERT_EQ(runCommand("umask 077 && unzip -qo " + quoted(written) + " -d " + quoted(temporary / "infozip")), 0);
  EXPECT_EQ(modeOf(temporary / "infozip" / "data.bin"), 0644u);
  EXPECT_EQ(modeOf(temporary / "infozip" / "folder"), 0755u);
  const fs::path out = temporary / "out";
  ASSERT_TRUE(SSZipArchive::unzipFileAtPath(written, out));
  EXPECT_EQ(readFile(out / "file.txt"), "contents");
  EXPECT_EQ(readFile(out / "renamed" / "file.txt"), "contents");
  EXPECT_EQ(readFile(out / "data.bin"), "data");
  EXPECT_EQ(modeOf(out / "data.bin"), 0644u);
  EXPECT_TRUE(fs::exists(out / "empty.bin"));
  EXPECT_TRUE(fs::is_directory(out / "folder"));
  // Data entries are dated now (to the two seconds of DOS dates).
  auto age = fs::file_time_type::clock::now() - fs::last_write_time(out / "data.bin");
  EXPECT_LT(std::chrono::abs(age), std::chrono::seconds(5));
}
