#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVGlobals.h>

#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class GlobalsTest : public ::testing::Test {
 protected:
  TemporaryDirectory home;
  ScopedEnvironment data{"XDG_DATA_HOME", home.path().string()};
  ZRVGlobals& globals = ZRVGlobals::defaultGlobals();
  void TearDown() override { globals.setServerType(0); }
};

TEST_F(GlobalsTest, ContainerFollowsTheServerType) {
  const struct {
    long type;
    const char* folder;
    bool developer, test;
  } cases[] = {{0, "Quillmoor", false, false}, {1, "Quillmoor", false, true}, {2, "Quillmoor Development", true, false},
               {7, "Quillmoor", false, false}};
  for (const auto& c : cases) {
    globals.setServerType(c.type);
    const fs::path folder = home / c.folder;
    EXPECT_EQ(globals.containerURL(), folder) << c.type;
    EXPECT_TRUE(fs::is_directory(folder)) << c.type;
    EXPECT_EQ(globals.isDeveloperLauncher(), c.developer);
    EXPECT_EQ(globals.isTestLauncher(), c.test);
    EXPECT_EQ(
        (std::vector{globals.gameSettingsFileURL(), globals.logsDirectoryURL(), globals.screenshotsDirectoryURL()}),
        (std::vector{folder / "settings.json", folder / "logs", folder / "screenshots"}));
  }
  EXPECT_FALSE(fs::exists(home / "Quillmoor" / "logs"));  // sub-locations are not created
}

TEST_F(GlobalsTest, WithoutADataFolderTheContainerIsCorrupt) {
  ScopedEnvironment noData("XDG_DATA_HOME", std::nullopt);
  ScopedEnvironment noHome("HOME", "/proc/zrvkit-cannot-exist");
  try {
    FAIL() << globals.containerURL() << " instead of an exception";
  } catch (const ZRVException& exception) {
    EXPECT_EQ(exception.name(), "Application Corruption");
    EXPECT_EQ(exception.reason(), "The application has been corrupted and resources are missing.");
  }
}

TEST_F(GlobalsTest, LogFilesNewestFirstWithoutFolders) {
  EXPECT_TRUE(globals.logURLs().empty());  // no logs folder
  fs::path logs = globals.logsDirectoryURL();
  writeFile(logs / "older.log", "1");
  std::this_thread::sleep_for(20ms);
  writeFile(logs / "newer.txt", "2");
  writeFile(logs / ".hidden", "3");
  fs::create_directories(logs / "sub");
  writeFile(logs / "sub" / "inner.log", "4");
  auto records = globals.logURLs();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].url, logs / "newer.txt");
  EXPECT_EQ(records[1].url, logs / "older.log");
  EXPECT_GE(records[0].created, records[1].created);
}

TEST_F(GlobalsTest, CopyIntoContainerOnlyWhenMissing) {
  TemporaryDirectory source;
  writeFile(source / "Frameworks.zip", "first");
  int calls = 0;
  auto count = [&](bool success, std::optional<ZRVError> error) {
    ++calls;
    EXPECT_TRUE(success);
    EXPECT_FALSE(error);
  };
  globals.checkCopyItemAtURLToContainer(source / "Frameworks.zip", count);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(readFile(globals.containerURL() / "Frameworks.zip"), "first");

  writeFile(source / "Frameworks.zip", "second");
  globals.checkCopyItemAtURLToContainer(source / "Frameworks.zip", count);
  EXPECT_EQ(calls, 1);  // already there: nothing happens, no callback
  EXPECT_EQ(readFile(globals.containerURL() / "Frameworks.zip"), "first");

  std::optional<ZRVError> failure;
  globals.checkCopyItemAtURLToContainer(source / "missing.zip", [&](bool success, std::optional<ZRVError> error) {
    EXPECT_FALSE(success);
    failure = error;
  });
  ASSERT_TRUE(failure);
  EXPECT_TRUE(failure->hasUnderlyingPOSIX(ENOENT));
}

TEST_F(GlobalsTest, RemoveReportsEveryOutcome) {
  fs::path file = globals.containerURL() / "Frameworks.zip";
  writeFile(file, "x");
  std::vector<std::pair<bool, std::optional<ZRVError>>> outcomes;
  auto record = [&](bool success, std::optional<ZRVError> error) { outcomes.emplace_back(success, error); };
  globals.removeItemAtURLFromContainer(file, record);
  globals.removeItemAtURLFromContainer(file, record);
  EXPECT_FALSE(fs::exists(file));
  ASSERT_EQ(outcomes.size(), 2u);
  EXPECT_TRUE(outcomes[0].first && !outcomes[0].second);
  EXPECT_TRUE(!outcomes[1].first && outcomes[1].second && outcomes[1].second->hasUnderlyingPOSIX(ENOENT));
}
