#include <ZRVKit/SSZipArchive.h>
#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVGameManager.h>

#include <support/LogCapture.h>
#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

// A launcher bundle in a temporary folder, optionally holding "Frameworks.zip", and a container beside it.
class OneTimeSetupTest : public testing::Test {
 protected:
  TemporaryDirectory temporary;
  ScopedEnvironment dataHome{"XDG_DATA_HOME", (temporary / "data").string()};
  fs::path resources = temporary / "Resources";
  fs::path container = temporary / "data" / "Quillmoor";
  std::optional<fs::path> previousResources = ZRVBundle::mainBundle().resourceDirectory();

  OneTimeSetupTest() {
    fs::create_directories(resources);
    ZRVBundle::mainBundle().setResourceDirectory(resources);
  }
  ~OneTimeSetupTest() override { ZRVBundle::mainBundle().setResourceDirectory(previousResources); }

  void makeFrameworksArchive(bool withResourceForks) {
    const fs::path tree = temporary / "tree";
    writeFile(tree / "Frameworks" / "Cg.framework" / "Cg", "framework");
    writeFile(tree / "Libraries.bundle" / "libextra.so", "library");
    if (withResourceForks) writeFile(tree / "__MACOSX" / "Frameworks" / "._Cg", "fork");
    ASSERT_TRUE(SSZipArchive::createZipFileAtPath(resources / "Frameworks.zip", tree));
  }
};

}  // namespace

TEST_F(OneTimeSetupTest, UnpacksTheFrameworksIntoTheContainerAndTidiesUp) {
  for (bool withResourceForks : {true, false}) {
    fs::remove_all(container);
    makeFrameworksArchive(withResourceForks);
    LogCapture log;
    ZRVGameManager manager(ZRVGameManager::SetUp::frameworks);
    EXPECT_EQ(readFile(container / "Frameworks" / "Cg.framework" / "Cg"), "framework");
    EXPECT_EQ(readFile(container / "Libraries.bundle" / "libextra.so"), "library");
    EXPECT_FALSE(fs::exists(container / "Frameworks.zip"));
    EXPECT_FALSE(fs::exists(container / "__MACOSX"));
    // A missing resource-fork folder is no failure worth a line.
    EXPECT_TRUE(log.lines().empty()) << withResourceForks << ": " << log.lines().front();
  }
}

TEST_F(OneTimeSetupTest, NothingHappensWithoutAnArchiveOrWithALeftOverCopy) {
  {
    ZRVGameManager manager(ZRVGameManager::SetUp::frameworks);
    EXPECT_FALSE(fs::exists(container / "Frameworks"));
  }
  makeFrameworksArchive(false);
  fs::create_directories(container);
  writeFile(container / "Frameworks.zip", "left over from a failed unpacking");
  ZRVGameManager manager(ZRVGameManager::SetUp::frameworks);
  EXPECT_FALSE(fs::exists(container / "Frameworks"));
  EXPECT_EQ(readFile(container / "Frameworks.zip"), "left over from a failed unpacking");
}

TEST_F(OneTimeSetupTest, AFailedUnpackingIsLoggedAndKeepsTheCopy) {
  writeFile(resources / "Frameworks.zip", "not an archive");
  LogCapture log;
  ZRVGameManager manager(ZRVGameManager::SetUp::frameworks);
  EXPECT_TRUE(fs::exists(container / "Frameworks.zip"));
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.contains("-[ZRVGameManager sharedManager]+"));
  EXPECT_TRUE(log.contains(": error (null)."));
}
