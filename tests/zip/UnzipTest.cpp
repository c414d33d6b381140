#include "ZipTestSupport.h"

#include <ZRVKit/SSZipArchive.h>

#include <support/LogCapture.h>
#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

TEST(Unzip, InfoZipArchiveUnpacksLikeInfoZip) {
  TemporaryDirectory temporary;
  const fs::path tree = temporary / "source" / "tree";
  writeFile(tree / "readme.txt", "hello\n");
  writeFile(tree / "bin" / "tool", "#!/bin/sh\nexit 0\n");
  writeFile(tree / "bin" / "setuid", "runs as its owner\n");
  writeFile(tree / "private" / "secret", std::string(100000, 'x'));
  writeFile(tree / "empty", "");
  fs::create_directories(tree / "nested" / "deeper" / "deepest");
  for (const auto& [name, mode] : std::vector<std::pair<const char*, unsigned>>{
           {"bin/tool", 0755}, {"bin/setuid", 04750}, {"private/secret", 0600}, {"private", 0700},
           {"readme.txt", 0444}}) {
    fs::permissions(tree / name, fs::perms(mode));
  }
  // DOS dates keep even seconds only; Info-ZIP also stores exact times, so the tree uses even seconds.
  std::time_t when = localTime(2021, 3, 4, 10, 20, 30);
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree)) {
    setModificationTime(entry.path(), when += 3600 * 24 + 62);
  }
  setModificationTime(tree, when);
  const fs::path archive = temporary / "tree.zip";
  ASSERT_EQ(runCommand("cd " + quoted(temporary / "source") + " && zip -qr " + quoted(archive) + " tree"), 0);

  ASSERT_EQ(runCommand("unzip -qo " + quoted(archive) + " -d " + quoted(temporary / "infozip")), 0);
  LogCapture log;
  EXPECT_TRUE(SSZipArchive::unzipFileAtPath(archive, temporary / "ours"));
  EXPECT_EQ(describeTree(temporary / "ours"), describeTree(temporary / "infozip"));
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(fs::status(temporary / "ours" / "tree" / "bin" / "setuid").permissions(), fs::perms(0750));
}

TEST(Unzip, DOSDatesDecodeAsLocalTime) {
  const struct {
    unsigned long dosDate;
    std::time_t expected;
  } cases[] = {
      {(44ul << 25) | (5 << 21) | (1 << 16) | (12 << 11) | (32 << 5) | 15, localTime(2024, 5, 1, 12, 32, 30)},
      {(0ul << 25) | (1 << 21) | (1 << 16), localTime(1980, 1, 1, 0, 0, 0)},
      {(43ul << 25) | (12 << 21) | (31 << 16) | (23 << 11) | (59 << 5) | 29, localTime(2023, 12, 31, 23, 59, 58)},
  };
  for (const auto& c : cases) {
    TemporaryDirectory temporary;
    craftArchive(temporary / "dated.zip", {{"folder/", "", 0, 0, c.dosDate}, {"folder/file", "x", 8, 0, c.dosDate}});
    ASSERT_TRUE(SSZipArchive::unzipFileAtPath(temporary / "dated.zip", temporary / "out"));
    EXPECT_EQ(modificationTime(temporary / "out" / "folder" / "file"), c.expected) << std::hex << c.dosDate;
    EXPECT_EQ(modificationTime(temporary / "out" / "folder"), c.expected) << std::hex << c.dosDate;
  }
}

TEST(Unzip, OnlyStoredEntriesMarkedInTheLowBitsAreLinks) {
  TemporaryDirectory temporary;
  const fs::path out = temporary / "out";
  craftArchive(temporary / "links.zip", {
                                            {"target.txt", "the target"},
                                            {"stored-link", "target.txt", 0, 0x4000},
                                            {"deflated-link", "target.txt", 8, 0x4000},
                                            {"empty-link", "", 0, 0x4000},
                                            {"upper-bits-link", "target.txt", 0, 0xA1FFul << 16},
                                        });
  ASSERT_TRUE(SSZipArchive::unzipFileAtPath(temporary / "links.zip", out));
  EXPECT_EQ(fs::read_symlink(out / "stored-link"), "target.txt");
  EXPECT_EQ(readFile(out / "stored-link"), "the target");
  for (const char* file : {"deflated-link", "upper-bits-link"}) {
    EXPECT_FALSE(fs::is_symlink(out / file)) << file;
    EXPECT_EQ(readFile(out / file), "target.txt") << file;
  }
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(out / "empty-link")));
}

TEST(Unzip, OpeningFailuresProduceErrors) {
  TemporaryDirectory temporary;
  SSZipArchive empty(temporary / "empty.zip");
  ASSERT_TRUE(empty.open());
  empty.close();
  writeFile(temporary / "garbage.zip", "this is not a zip archive at all, not even close to one");
  // An end record behind other bytes (a self-extractor's stub) is still an archive of no entries.
  writeFile(temporary / "stub.zip", std::string("stub") + readFile(temporary / "empty.zip"));
  const struct {
    fs::path archive;
    long code;
    const char* description;
  } cases[] = {{temporary / "missing.zip", -1, "failed to open zip file"},
                        {temporary / "garbage.zip", -1, "failed to open zip file"},
                        {temporary / "empty.zip", -2, "failed to open first file in zip file"},
                        {temporary / "stub.zip", -2, "failed to open first file in zip file"}};
  for (const auto& c : cases) {
    std::optional<ZRVError> error;
    EXPECT_FALSE(SSZipArchive::unzipFileAtPath(c.archive, temporary / "out", true, std::nullopt, &error));
    ASSERT_TRUE(error) << c.archive;
    EXPECT_EQ(error->domain(), "SSZipArchiveErrorDomain");
    EXPECT_EQ(error->code(), c.code);
    EXPECT_EQ(error->userInfo().value("NSLocalizedDescription", ""), c.description);
    EXPECT_FALSE(SSZipArchive::unzipFileAtPath(c.archive, temporary / "out"));
    EXPECT_FALSE(fs::exists(temporary / "out"));  // nothing to unpack, nothing created
  }
}

TEST(Unzip, BackslashNamesOverwriteOffAndDelegateNotices) {
  TemporaryDirectory temporary;
  craftArchive(temporary / "a.zip", {{"dir\\sub\\file.txt", "deep"}, {"exists", "x"}, {"second", "y"}});
  writeFile(temporary / "out" / "exists", "keep");
  std::vector<std::string> notices;
  const auto entry = [&](const char* what) {
    return [&, what](long index, long total, const fs::path&, const unz_file_info&) {
      notices.push_back(what + std::to_string(index) + "/" + std::to_string(total));
    };
  };
  SSZipArchiveDelegate delegate;
  delegate.zipArchiveWillUnzipArchiveAtPath = [&](const fs::path&, const unz_global_info& info) {
    notices.push_back("will archive " + std::to_string(info.number_entry));
  };
  delegate.zipArchiveWillUnzipFileAtIndex = entry("will ");
  delegate.zipArchiveDidUnzipFileAtIndex = entry("did ");
  delegate.zipArchiveDidUnzipArchiveAtPath = [&](const fs::path&, const unz_global_info&, const fs::path& path) {
    notices.push_back("did archive " + path.filename().string());
  };
  ASSERT_TRUE(SSZipArchive::unzipFileAtPath(temporary / "a.zip", temporary / "out", false, std::nullopt, nullptr,
                                            delegate));
  EXPECT_EQ(readFile(temporary / "out" / "dir" / "sub" / "file.txt"), "deep");
  EXPECT_EQ(readFile(temporary / "out" / "exists"), "keep");  // overwrite off: an existing file stays
  // A skipped entry gets no notice of its own and does not use up an index.
  EXPECT_EQ(notices, (std::vector<std::string>{"will archive 3", "will 0/3", "did 0/3", "will 1/3", "will 1/3",
                                               "did 1/3", "did archive out"}));
}
