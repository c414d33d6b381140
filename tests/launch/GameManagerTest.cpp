#include <ZRVKit/SSZipArchive.h>
#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVGameManager.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVMainQueue.h>

#include <support/LogCapture.h>
#include <support/TemporaryDirectory.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// A container in a temporary data folder holding the stand-in game as "Quillmoor".
class GameManagerTest : public testing::Test {
 protected:
  TemporaryDirectory temporary;
  ScopedEnvironment dataHome{"XDG_DATA_HOME", temporary.path().string()};
  fs::path container = temporary / "Quillmoor";
  fs::path report = temporary / "report.json";
  ScopedEnvironment reportFile{"ZRV_FAKE_GAME_REPORT", report.string()};

  void installGame() {
    fs::create_directories(container);
    fs::copy_file(ZRV_FAKE_GAME, container / "Quillmoor");
  }

  struct Run {
    std::vector<std::string> events;
    int status = -1;
  };

  // Starts the game and pumps the main queue until it is reported as ended.
  Run startAndWait(ZRVGameManager& manager, std::optional<std::string> cookie, std::optional<std::string> server,
                   bool persistent) {
    Run run;
    bool ended = false;
    manager.startGameWithCookie(
        std::move(cookie), std::move(server), persistent,
        [&](bool started) {
          EXPECT_TRUE(ZRVMainQueue::isMainThread());
          run.events.push_back(started ? "started" : "started(false)");
        },
        [&](bool exited, int status) {
          EXPECT_TRUE(ZRVMainQueue::isMainThread());
          run.events.push_back(exited ? "exited" : "exited(false)");
          run.status = status;
          ended = true;
        });
    EXPECT_TRUE(ZRVOperationQueue::mainQueue().runUntil([&] { return ended; }, 20s));
    return run;
  }

  ZRVJSON readReport() const { return ZRVJSON::parse(readFile(report)); }
};

// A launcher bundle in a temporary folder, optionally holding "Frameworks.zip", and a container beside it.
class OneTimeSetupTest : public GameManagerTest {
 protected:
  fs::path resources = temporary / "Resources";
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

TEST_F(GameManagerTest, GameGetsItsEnvironmentFolderAndOnlyTheStandardDescriptorsAndItsStatusIsReported) {
  installGame();
  ScopedEnvironment inheritedLoaderPath("LD_LIBRARY_PATH", "/inherited/lib");
  ScopedEnvironment inheritedDyld("DYLD_LIBRARY_PATH", "/inherited/dyld");
  ScopedEnvironment inheritedCookie("ZRV_PLAYCOOKIE", "stale");
  ScopedEnvironment unrelated("ZRV_UNRELATED", "passed on");
  // A descriptor the launcher leaves open without close-on-exec must still not reach the game.
  int leaked = open("/dev/null", O_RDONLY);
  ASSERT_GE(leaked, 3);
  const std::string root = container.string();
  const ZRVJSON always = {{"DYLD_LIBRARY_PATH", root + "/Libraries.bundle"},
                          {"DYLD_FRAMEWORK_PATH", root + "/Frameworks"},
                          {"LD_LIBRARY_PATH", root + "/Libraries.bundle:" + root + "/Frameworks"},
                          {"ZRV_UNRELATED", "passed on"}};
  const struct {
    const char *variable, *value;  // how the game ends
    std::optional<std::string> cookie, server;
    bool persistent;
    int status;
    ZRVJSON environment;  // null: absent
  } cases[] = {
      {"ZRV_FAKE_GAME_EXIT", "0", "the-cookie", "game.example:7000", true, 0,
       {{"ZRV_PLAYCOOKIE", "the-cookie"}, {"ZRV_GAMESERVER", "game.example:7000"}, {"ZRV_PERSISTCOOKIE", "1"}}},
      {"ZRV_FAKE_GAME_EXIT", "7", std::nullopt, std::nullopt, false, 7,
       {{"ZRV_PLAYCOOKIE", nullptr}, {"ZRV_GAMESERVER", nullptr}, {"ZRV_PERSISTCOOKIE", "0"}}},
      {"ZRV_FAKE_GAME_SIGNAL", "15", std::nullopt, std::nullopt, false, 128 + 15, {{"ZRV_PLAYCOOKIE", nullptr}}},
  };
  for (const auto& c : cases) {
    ScopedEnvironment outcome(c.variable, c.value);
    ZRVGameManager manager;
    Run run = startAndWait(manager, c.cookie, c.server, c.persistent);
    EXPECT_EQ(run.events, (std::vector<std::string>{"started", "exited"})) << c.value;
    EXPECT_EQ(run.status, c.status);
    EXPECT_GT(manager.task(), 0);
    ZRVJSON game = readReport();
    for (const auto& expected : {always, c.environment}) {
      for (const auto& [name, value] : expected.items()) EXPECT_EQ(game["environment"][name], value) << name;
    }
    EXPECT_EQ(game["directory"], root);
    EXPECT_EQ(game["descriptors"], (ZRVJSON{0, 1, 2}));
  }
  close(leaked);
}

TEST_F(GameManagerTest, GamesThatEndAtOnceStillReportStartedFirst) {
  installGame();
  ZRVGameManager manager;
  constexpr int kGames = 6;
  std::vector<std::vector<std::string>> events(kGames);
  int ended = 0;
  for (int i = 0; i < kGames; ++i) {
    manager.startGameWithCookie(
        "cookie", "server", false, [&, i](bool) { events[i].push_back("started"); },
        [&, i](bool, int) { events[i].push_back("exited"); ++ended; });
  }
  ASSERT_TRUE(ZRVOperationQueue::mainQueue().runUntil([&] { return ended == kGames; }, 20s));
  for (const auto& game : events) EXPECT_EQ(game, (std::vector<std::string>{"started", "exited"}));
}

TEST_F(GameManagerTest, GamesThatCannotStartReport1000WithoutStarted) {
  for (const char* what : {"missing", "not executable"}) {
    fs::remove_all(container);
    fs::create_directories(container);
    if (what[0] == 'n') writeFile(container / "Quillmoor", "#!/bin/sh\nexit 0\n");
    LogCapture log;
    ZRVGameManager manager;
    manager.setTask(4242);  // an earlier game
    Run run = startAndWait(manager, "cookie", "server", false);
    EXPECT_EQ(manager.task(), 0) << what;
    EXPECT_EQ(run.events, (std::vector<std::string>{"exited"})) << what;
    EXPECT_EQ(run.status, 1000) << what;
    ASSERT_EQ(log.lines().size(), 1u) << what;
    EXPECT_TRUE(log.lines()[0].starts_with(
        "-[ZRVGameManager startGameWithCookie:andGameserver:andPersistent:started:exited:]+"))
        << log.lines()[0];
    EXPECT_NE(log.lines()[0].find(": exception "), std::string::npos) << log.lines()[0];
    EXPECT_EQ(log.lines()[0].find("cookie"), std::string::npos) << "never log the cookie";
  }
}

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
