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

// Every outcome as "success" or the error's POSIX code, one per callback: none when nothing happened.
TEST_F(GlobalsTest, CopyIntoContainerOnlyWhenMissingAndRemoveReportEveryOutcome) {
  TemporaryDirectory source;
  const fs::path copy = globals.containerURL() / "Frameworks.zip";
  std::vector<std::string> outcomes;
  auto record = [&](bool success, std::optional<ZRVError> error) {
    const bool missing = !success && error && error->hasUnderlyingPOSIX(ENOENT);
    outcomes.push_back(success && !error ? "success" : missing ? "ENOENT" : "something else");
  };
  writeFile(source / "Frameworks.zip", "first");
  globals.checkCopyItemAtURLToContainer(source / "Frameworks.zip", record);
  writeFile(source / "Frameworks.zip", "second");
  globals.checkCopyItemAtURLToContainer(source / "Frameworks.zip", record);  // already there: nothing happens
  EXPECT_EQ(readFile(copy), "first");
  globals.checkCopyItemAtURLToContainer(source / "missing.zip", record);
  globals.removeItemAtURLFromContainer(copy, record);
  EXPECT_FALSE(fs::exists(copy));
  globals.removeItemAtURLFromContainer(copy, record);
  EXPECT_EQ(outcomes, (std::vector<std::string>{"success", "ENOENT", "success", "ENOENT"}));
}
