#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVOptionsManager.h>

#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

// What the game writes: further members at every level, in the game's own order.
constexpr const char* kGameSettings = R"({
  "version": 3,
  "video": {"resolution": "1280x800", "antialiasing": 8},
  "audio": {"volume": 0.7, "music": false, "sfx": true},
  "controls": {"jump": "space"}
})";

}  // namespace

TEST(OptionsManager, LoadsAndSavesKeepingTheGamesOwnSettings) {
  TemporaryDirectory folder;
  writeFile(folder / "settings.json", kGameSettings);
  ZRVOptionsManager options(folder / "settings.json");
  EXPECT_EQ(options.antialiasing(), 0);  // nothing is read before loadSettings
  options.loadSettings();
  EXPECT_EQ(options.antialiasing(), 8);
  EXPECT_FALSE(options.isMusicEnabled());
  EXPECT_TRUE(options.areSoundEffetcsEnabled());

  LogCapture log;
  options.setEnableMusic(true);
  ZRVJSON saved = ZRVJSON::parse(readFile(folder / "settings.json"));
  ZRVJSON expected = ZRVJSON::parse(kGameSettings);
  expected["audio"]["music"] = true;
  EXPECT_EQ(saved.dump(), expected.dump());  // member order included
  EXPECT_NE(readFile(folder / "settings.json").find("\n  \"video\""), std::string::npos);  // pretty-printed
  EXPECT_TRUE(log.contains("-[ZRVOptionsManager saveSettings]+"));
  EXPECT_TRUE(log.contains(": error  writing " + (folder / "settings.json").string() + "."));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()), 1);
}

TEST(OptionsManager, AntialiasingLevels) {
  struct Case {
    std::int64_t level;
    bool enable;
    std::int64_t result;
  } cases[] = {{0, true, 4}, {8, true, 8}, {1, true, 1}, {-2, true, 4}, {8, false, 0}, {0, false, 0}};
  TemporaryDirectory folder;
  writeFile(folder / "settings.json", kGameSettings);
  ZRVOptionsManager options(folder / "settings.json");
  for (const auto& c : cases) {
    options.setAntialiasing(c.level);
    EXPECT_EQ(options.isAntialiasingEnabled(), c.level > 0) << c.level;
    options.setAntialiasingEnabled(c.enable);
    EXPECT_EQ(options.antialiasing(), c.result) << c.level << " " << c.enable;
    EXPECT_EQ(ZRVJSON::parse(readFile(folder / "settings.json"))["video"]["antialiasing"], c.result);
  }
}

TEST(OptionsManager, SavingNeedsTheGamesFileWithBothSections) {
  TemporaryDirectory folder;
  fs::path file = folder / "settings.json";
  ZRVOptionsManager options(file);
  options.loadSettings();
  EXPECT_EQ(options.antialiasing(), 0);
  EXPECT_FALSE(options.isMusicEnabled());
  try {
    options.setEnableSoundEffects(true);
    FAIL() << "saved without a settings file";
  } catch (const ZRVException& error) {
    EXPECT_EQ(error.name(), ZRVOptionsManager::kInvalidArgumentException);
  }
  EXPECT_FALSE(fs::exists(file));

  for (const char* partial : {R"({"video": {"antialiasing": 2}})", R"({"audio": {}, "video": 3})", "[1]"}) {
    writeFile(file, partial);
    EXPECT_THROW(options.setAntialiasing(6), ZRVException) << partial;
    EXPECT_EQ(readFile(file), partial);
  }
}

TEST(OptionsManager, DamagedFilesReadAsOptionsOff) {
  TemporaryDirectory folder;
  fs::path file = folder / "settings.json";
  ZRVOptionsManager options(file);
  writeFile(file, kGameSettings);
  options.loadSettings();

  LogCapture log;
  writeFile(file, "{\"video\": ");
  options.loadSettings();
  EXPECT_EQ(options.antialiasing(), 0);
  EXPECT_FALSE(options.areSoundEffetcsEnabled());
  EXPECT_TRUE(log.contains("-[ZRVOptionsManager loadSettings]+"));
  EXPECT_TRUE(log.contains(" parsing " + file.string() + "."));
  EXPECT_EQ(options.initialSettings(), ZRVJSON::object());
  EXPECT_TRUE(log.contains(" reading " + file.string() + "."));

  // Loosely typed members are read by their value.
  writeFile(file, R"({"video": {"antialiasing": "2"}, "audio": {"music": 1, "sfx": "YES"}})");
  options.loadSettings();
  EXPECT_EQ(options.antialiasing(), 2);
  EXPECT_TRUE(options.isMusicEnabled());
  EXPECT_TRUE(options.areSoundEffetcsEnabled());
}
