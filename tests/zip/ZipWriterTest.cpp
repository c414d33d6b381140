#include "ZipTestSupport.h"

#include <ZRVKit/SSZipArchive.h>

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

TEST(ZipWriter, ArchivesPassInfoZipsTestAndRoundTrip) {
  TemporaryDirectory temporary;
  const fs::path tree = temporary / "tree";
  writeFile(tree / "top.txt", "top");
  writeFile(tree / "folder" / "inner.bin", std::string(70000, '\x7f') + "end");
  writeFile(tree / "folder" / "deeper" / "run.sh", "#!/bin/sh\n");
  fs::create_directories(tree / "empty-folder");
  fs::permissions(tree / "folder" / "deeper" / "run.sh", fs::perms(0755));
  fs::permissions(tree / "top.txt", fs::perms(0600));
  std::time_t when = 1700000000;  // even: DOS dates keep two-second steps
  for (const char* file : {"top.txt", "folder/inner.bin", "folder/deeper/run.sh"}) {
    setModificationTime(tree / file, when += 86400 * 40);
  }

  const fs::path fromDirectory = temporary / "directory.zip";
  ASSERT_TRUE(SSZipArchive::createZipFileAtPath(fromDirectory, tree));
  EXPECT_EQ(runCommand("unzip -tq " + quoted(fromDirectory) + " > /dev/null"), 0);
  // Folders get no entries of their own: compare the files only.
  ASSERT_EQ(runCommand("unzip -qo " + quoted(fromDirectory) + " -d " + quoted(temporary / "infozip")), 0);
  ASSERT_TRUE(SSZipArchive::unzipFileAtPath(fromDirectory, temporary / "ours"));
  for (const char* file : {"top.txt", "folder/inner.bin", "folder/deeper/run.sh"}) {
    for (const fs::path& root : {temporary / "infozip", temporary / "ours"}) {
      struct stat original {}, unpacked {};
      stat((tree / file).c_str(), &original);
      stat((root / file).c_str(), &unpacked);
      EXPECT_EQ(readFile(root / file), readFile(tree / file)) << root / file;
      EXPECT_EQ(unpacked.st_mode & 07777, original.st_mode & 07777) << root / file;
      EXPECT_EQ(unpacked.st_mtim.tv_sec, original.st_mtim.tv_sec) << root / file;
    }
  }

  const fs::path fromFiles = temporary / "files.zip";
  ASSERT_TRUE(SSZipArchive::createZipFileAtPath(fromFiles, {tree / "top.txt", tree / "folder" / "inner.bin"}));
  EXPECT_EQ(runCommand("unzip -tq " + quoted(fromFiles) + " > /dev/null"), 0);
  ASSERT_TRUE(SSZipArchive::unzipFileAtPath(fromFiles, temporary / "flat"));
  EXPECT_EQ(readFile(temporary / "flat" / "inner.bin"), readFile(tree / "folder" / "inner.bin"));
  EXPECT_FALSE(SSZipArchive::createZipFileAtPath(temporary / "bad.zip", {temporary / "missing"}));
}

TEST(ZipWriter, WriterEntriesAndMisuse) {
  TemporaryDirectory temporary;
  writeFile(temporary / "file.txt", "contents");
  SSZipArchive archive(temporary / "written.zip");
  EXPECT_FALSE(archive.writeData(ZRVData{'x'}, "before-open"));
  EXPECT_FALSE(archive.writeFile(temporary / "file.txt"));
  ASSERT_TRUE(archive.open());
  EXPECT_TRUE(archive.writeFile(temporary / "file.txt"));
  EXPECT_TRUE(archive.writeFileAtPath(temporary / "file.txt", std::string("renamed/file.txt")));
  EXPECT_TRUE(archive.writeData(ZRVData{'d', 'a', 't', 'a'}, "data.bin"));
  EXPECT_TRUE(archive.writeData(ZRVData{}, "empty.bin"));
  EXPECT_FALSE(archive.writeData(std::nullopt, "absent.bin"));
  EXPECT_FALSE(archive.writeFile(temporary / "missing.txt"));
  EXPECT_FALSE(archive.writeFile(temporary.path()));  // a folder is not a file
  EXPECT_TRUE(archive.close());
  EXPECT_EQ(runCommand("unzip -tq " + quoted(temporary / "written.zip") + " > /dev/null"), 0);

  ASSERT_TRUE(SSZipArchive::unzipFileAtPath(temporary / "written.zip", temporary / "out"));
  EXPECT_EQ(readFile(temporary / "out" / "file.txt"), "contents");
  EXPECT_EQ(readFile(temporary / "out" / "renamed" / "file.txt"), "contents");
  EXPECT_EQ(readFile(temporary / "out" / "data.bin"), "data");
  EXPECT_TRUE(fs::exists(temporary / "out" / "empty.bin"));
  // Data entries are dated now (to the two seconds of DOS dates).
  auto age = fs::file_time_type::clock::now() - fs::last_write_time(temporary / "out" / "data.bin");
  EXPECT_LT(std::chrono::abs(age), std::chrono::seconds(5));
}
