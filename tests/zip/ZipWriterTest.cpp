#include "ZipPeers.h"
#include "ZipTestSupport.h"

#include <ZRVKit/SSZipArchive.h>

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

// Folder archives against other tools: ZipPeerTest. Here: an archive of listed files holds them by their names
// alone, with their permissions, and needs every one of them.
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
