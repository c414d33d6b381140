#include "ZipTestSupport.h"

#include <ZRVKit/SSZipArchive.h>

#include <support/LogCapture.h>
#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

constexpr unsigned long kLink = 0x4000;

// Each archive unpacks into temporary/"root"/"out"; "root" holds nothing else, so anything that lands in
// "root" beside "out" (or in the folder "outside") escaped.
struct Sandbox {
  TemporaryDirectory temporary;
  fs::path root = temporary / "root";
  fs::path out = root / "out";
  fs::path outside = temporary / "outside";
  Sandbox() {
    fs::create_directories(out);
    fs::create_directories(outside);
  }
  bool nothingEscaped() const {
    for (const fs::directory_entry& entry : fs::directory_iterator(root)) {
      if (entry.path() != out) return false;
    }
    return fs::is_empty(outside);
  }
};

}  // namespace

TEST(UnzipSafety, HostileArchivesLeaveNothingOutside) {
  Sandbox box;
  const std::string outsideText = box.outside.string();
  struct Case {
    const char* what;
    std::vector<CraftedEntry> entries;
  };
  const std::vector<Case> cases = {
      {"climbing name", {{"../escaped", "x"}}},
      {"climbing folder", {{"a/../../escaped/", ""}, {"a/../../escaped/file", "x"}}},
      {"absolute name", {{outsideText + "/absolute", "x"}}},
      {"backslash climb", {{"..\\escaped", "x"}, {"a\\..\\..\\escaped", "x"}}},
      {"absolute backslash name", {{"\\" + outsideText.substr(1) + "\\absolute", "x"}}},
      {"absolute link then file through it", {{"abs", outsideText, 0, kLink}, {"abs/through", "x"}}},
      {"relative link then file through it", {{"rel", "../../outside", 0, kLink}, {"rel/through", "x"}}},
      {"link climbing through another link",
       {{"s/", ""}, {"s/p", "..", 0, kLink}, {"t", "s/p/../../outside", 0, kLink}, {"t/through", "x"}}},
      {"inner link then climb", {{"s/p", "..", 0, kLink}, {"u", "s/p/..", 0, kLink}, {"u/through", "x"}}},
      {"link then file at the link's place", {{"same", "../../outside/victim", 0, kLink}, {"same", "x"}}},
  };
  for (const Case& c : cases) {
    fs::remove_all(box.out);
    fs::create_directories(box.out);
    craftArchive(box.temporary / "hostile.zip", c.entries);
    LogCapture log;
    SSZipArchive::unzipFileAtPath(box.temporary / "hostile.zip", box.out);
    EXPECT_TRUE(box.nothingEscaped()) << c.what;
    EXPECT_FALSE(fs::exists(box.outside / "through")) << c.what;
    EXPECT_TRUE(log.contains("[SSZipArchive] Refused")) << c.what;
  }
}

TEST(UnzipSafety, LinksAlreadyOnDiskAreNeverWrittenThrough) {
  Sandbox box;
  writeFile(box.outside / "victim", "untouched");
  fs::create_directory_symlink(box.outside, box.out / "folder-link");
  fs::create_symlink(box.outside / "victim", box.out / "file-link");
  fs::create_hard_link(box.outside / "victim", box.out / "hard-link");
  craftArchive(box.temporary / "a.zip",
               {{"folder-link/victim", "overwritten"}, {"file-link", "replaced"}, {"hard-link", "replaced too"}});
  LogCapture log;
  EXPECT_FALSE(SSZipArchive::unzipFileAtPath(box.temporary / "a.zip", box.out));
  EXPECT_EQ(readFile(box.outside / "victim"), "untouched");
  // A link or a shared file standing where a file goes is replaced by the file instead.
  EXPECT_FALSE(fs::is_symlink(box.out / "file-link"));
  EXPECT_EQ(readFile(box.out / "file-link"), "replaced");
  EXPECT_EQ(readFile(box.out / "hard-link"), "replaced too");
  EXPECT_EQ(fs::directory_iterator(box.outside)->path().filename(), "victim");
}

TEST(UnzipSafety, InsideLinksAreMadeAndSpecialBitsDropped) {
  Sandbox box;
  craftArchive(box.temporary / "a.zip", {
                                            {"Versions/A/Library", "code", 8, 0100755ul << 16},
                                            {"Versions/Current", "A", 0, kLink},
                                            {"Library", "Versions/Current/Library", 0, kLink},
                                            {"Versions/A/Helpers/up", "../Library", 0, kLink},
                                            {"setuid", "x", 8, 0104755ul << 16},
                                            {"setgid-sticky", "x", 8, 0103775ul << 16},
                                            {"special-folder/", "", 0, 043777ul << 16},
                                        });
  EXPECT_TRUE(SSZipArchive::unzipFileAtPath(box.temporary / "a.zip", box.out));
  EXPECT_EQ(readFile(box.out / "Library"), "code");
  EXPECT_EQ(fs::read_symlink(box.out / "Versions" / "A" / "Helpers" / "up"), "../Library");
  EXPECT_EQ(fs::status(box.out / "setuid").permissions(), fs::perms(0755));
  EXPECT_EQ(fs::status(box.out / "setgid-sticky").permissions(), fs::perms(0775));
  EXPECT_EQ(fs::status(box.out / "special-folder").permissions(), fs::perms(0777));
}

// Refused entries fail the unpack but not the entries after them, and leave no error record (only the opening
// failures have those).
TEST(UnzipSafety, NamesWithNULOverlongLinkTargetsAndClimbingNamesAreRefusedAlone) {
  Sandbox box;
  craftArchive(box.temporary / "a.zip", {{"visible?hidden", "x"},
                                         {"long-link", std::string(5000, 'a'), 0, kLink},
                                         {"../bad", "x"},
                                         {"fine", "fine"}});
  // minizip takes names as C strings: put the NUL in afterwards, in both the local and the central header.
  std::string bytes = readFile(box.temporary / "a.zip");
  for (std::size_t at = bytes.find("visible?hidden"); at != std::string::npos; at = bytes.find("visible?hidden")) {
    bytes[at + 7] = '\0';
  }
  writeFile(box.temporary / "a.zip", bytes);

  LogCapture log;
  std::optional<ZRVError> error;
  EXPECT_FALSE(SSZipArchive::unzipFileAtPath(box.temporary / "a.zip", box.out, true, std::nullopt, &error));
  EXPECT_FALSE(error);
  EXPECT_FALSE(fs::exists(box.out / "visible"));
  EXPECT_FALSE(fs::exists(fs::symlink_status(box.out / "long-link")));
  EXPECT_EQ(readFile(box.out / "fine"), "fine");
  EXPECT_TRUE(box.nothingEscaped());
  EXPECT_TRUE(log.contains("NUL"));
  EXPECT_TRUE(log.contains("too long"));
}

TEST(UnzipSafety, DamagedDataEndsTheUnpack) {
  Sandbox box;
  craftArchive(box.temporary / "a.zip", {{"first", std::string(50000, 'a') + "tail"}, {"second", "b"}});
  std::string bytes = readFile(box.temporary / "a.zip");
  bytes[60] = static_cast<char>(bytes[60] ^ 0x55);  // inside the first entry's deflated data
  writeFile(box.temporary / "a.zip", bytes);
  EXPECT_FALSE(SSZipArchive::unzipFileAtPath(box.temporary / "a.zip", box.out));
  EXPECT_FALSE(fs::exists(box.out / "second"));
}
