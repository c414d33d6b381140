// The launcher layer's own decisions: when a download counts as stalled, what the progress line says and how
// it fits, which manifest entries are checked, and where folders may be made.

#include "flows/GameManifest.h"
#include "flows/GameUpdate.h"
#include "flows/ProgressText.h"
#include "flows/StallGuard.h"

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <fstream>

using namespace std::chrono_literals;
namespace fs = std::filesystem;

TEST(StallGuard, GivesUpOnlyWhenNoFileFinishedTooFewBytesMovedAndNoWorkWasDoneForTheWholeTimeOut) {
  struct Step {
    std::chrono::milliseconds at;
    std::size_t files;
    std::uint64_t bytes;
    std::chrono::milliseconds work;  // processor time used so far
    bool stalled;
  };
  struct Case {
    const char* name;
    std::vector<Step> steps;
  } cases[] = {
      {"nothing moves", {{1s, 0, 0, 0ms, false}, {4s, 0, 0, 0ms, false}, {5s, 0, 0, 0ms, true}}},
      {"a byte a second trickles", {{1s, 0, 1, 0ms, false}, {3s, 0, 3, 0ms, false}, {5s, 0, 5, 0ms, true}}},
      {"a slow healthy link", {{1s, 0, 20'000, 0ms, false}, {5s, 0, 100'000, 0ms, false}, {10s, 0, 200'000, 0ms, false}}},
      {"a finished file starts the window again", {{4s, 1, 0, 0ms, false}, {8s, 1, 0, 0ms, false}, {9s, 1, 0, 0ms, true}}},
      {"the floor reached late still counts", {{4900ms, 0, 5 * 1024, 0ms, false}, {9800ms, 0, 5 * 1024, 0ms, false},
                                               {9900ms, 0, 5 * 1024, 0ms, true}}},
      // All bytes are in and a large file is decoded: the process works, on a crowded machine at a tenth of a core.
      {"decoding after the last byte", {{5s, 0, 0, 500ms, false}, {10s, 0, 0, 1000ms, false}, {15s, 0, 0, 1500ms, false}}},
      {"pumping and waiting is no work", {{5s, 0, 0, 50ms, true}}},
      {"work that stopped", {{5s, 0, 0, 800ms, false}, {10s, 0, 0, 820ms, true}}},
  };
  for (const auto& c : cases) {
    auto start = StallGuard::Clock::time_point{};
    StallGuard guard(5s, start);
    for (const Step& step : c.steps) {
      EXPECT_EQ(guard.stalled(start + step.at, step.files, step.bytes, step.work), step.stalled)
          << c.name << " at " << step.at.count() << " ms";
    }
  }
  StallGuard off(0s, StallGuard::Clock::time_point{});
  EXPECT_FALSE(off.stalled(StallGuard::Clock::time_point{} + 24h, 0, 0, 0ms));
}

TEST(ProgressText, TheStatusLineFitsTheTerminalCarriesNoControlBytesAndIsCutNeverInACharacter) {
  ProgressFigures figures{3, 10, 3 * 1024 * 1024 / 2, 300 * 1024, 65, "Downloading data/level\x1b[2J1.bin"};
  const std::string full = statusLine(figures, 200);
  EXPECT_EQ(full.find('\x1b'), std::string::npos);
  EXPECT_EQ(plainLine(figures).find('\x1b'), std::string::npos);
  for (std::size_t columns : {80u, 40u, 20u, 1u}) {
    std::string line = statusLine(figures, columns);
    std::size_t characters = 0;
    for (char c : line) characters += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    EXPECT_LE(characters, columns - 1) << columns;
    EXPECT_EQ(full.rfind(line, 0), 0u) << columns;  // cut at the end, never in a character
  }
}

TEST(ProgressText, RatesAreMeasuredOverTheRecentWindow) {
  RateMeter meter(4s);
  auto start = RateMeter::Clock::time_point{};
  meter.add(start, 0);
  EXPECT_EQ(meter.bytesPerSecond(), 0);
  meter.add(start + 2s, 2000);
  EXPECT_DOUBLE_EQ(meter.bytesPerSecond(), 1000);
  meter.add(start + 10s, 2000);  // nothing for a while: the old samples go, the rate falls to nothing
  meter.add(start + 11s, 2000);
  EXPECT_DOUBLE_EQ(meter.bytesPerSecond(), 0);
}

namespace {

ZRVData dataOf(std::string_view text) { return ZRVData(text.begin(), text.end()); }

}  // namespace

TEST(GameManifest, KeepsThePlatformsCompleteEntriesAndRefusesNamesOutsideTheInstall) {
  auto manifest = parseManifestDocument(dataOf(R"({
    "Quillmoor": {"only": ["darwin"], "hash": "h1", "compHash": "c1", "dl": "files/Quillmoor.bz2",
                  "patches": {"old": {"filename": "patches/q.bz2"}, "bad": 7}},
    "data/level1.bin": {"only": ["linux", "darwin"], "hash": "h2", "compHash": "c2", "dl": "files/data/level1.bin.bz2"},
    "other.bin": {"only": ["linux"], "hash": "h3", "compHash": "c3", "dl": "x"},
    "partial.bin": {"only": ["darwin"], "hash": "h4", "dl": "x"},
    "typed.bin": {"only": ["darwin"], "hash": 4, "compHash": "c", "dl": "x"},
    "../escape.bin": {"only": ["darwin"], "hash": "h5", "compHash": "c5", "dl": "x"},
    "/etc/absolute": {"only": ["darwin"], "hash": "h6", "compHash": "c6", "dl": "x"},
    "odd": "not an object",
    "noplatform": {"hash": "h7", "compHash": "c7", "dl": "x"}
  })"));
  ASSERT_TRUE(manifest);
  GameManifest game = gameFilesOf(*manifest, "darwin");
  ASSERT_EQ(game.files.size(), 2u);
  EXPECT_EQ(game.files[0].name, "Quillmoor");
  EXPECT_TRUE(game.files[0].updated);
  EXPECT_EQ(game.files[0].patchFiles, std::vector<std::string>{"patches/q.bz2"});
  EXPECT_EQ(game.files[1].name, "data/level1.bin");
  EXPECT_FALSE(game.files[1].updated);  // no "patches": the updater never touches it, the check still does
  EXPECT_EQ(game.refusedNames, (std::vector<std::string>{"../escape.bin", "/etc/absolute"}));

  for (const char* broken : {"[]", "{", "\"text\"", "", "{\"a\": 1} trailing"}) {
    EXPECT_FALSE(parseManifestDocument(dataOf(broken))) << broken;
  }
}

TEST(GameManifest, FoldersAreMadeInsideTheInstallAndNeverThroughALink) {
  TemporaryDirectory root;
  fs::path install = root / "install";
  fs::create_directories(install);
  fs::create_directories(root / "outside");
  fs::create_directory_symlink(root / "outside", install / "linked");
  std::ofstream(install / "plain") << "a file";

  auto problems = createFoldersFor(install, {"data/maps/level1.bin", "data/level2.bin", "top.bin", "../up/x.bin",
                                             "/abs/x.bin", "linked/inside/x.bin", "plain/x.bin"});
  EXPECT_TRUE(fs::is_directory(install / "data" / "maps"));
  EXPECT_FALSE(fs::exists(root / "up"));
  EXPECT_FALSE(fs::exists("/abs"));
  EXPECT_FALSE(fs::exists(root / "outside" / "inside"));  // the link was not followed
  ASSERT_EQ(problems.size(), 2u);
  EXPECT_NE(problems[0].find("linked/inside/x.bin"), std::string::npos);
  EXPECT_NE(problems[1].find("plain/x.bin"), std::string::npos);
}
