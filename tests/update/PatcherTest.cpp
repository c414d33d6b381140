#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVGlobals.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVManagedFile.h>
#include <ZRVKit/ZRVOperationQueue.h>
#include <ZRVKit/ZRVPatcher.h>

#include "support/BusyProcesses.h"
#include "support/LogCapture.h"
#include "support/NestedJSON.h"
#include "support/TemporaryDirectory.h"
#include "update/UpdateServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// One update run, started at construction and observed: every report, and the outcome.
struct UpdateRun {
  std::mutex mutex;
  std::vector<std::pair<std::string, double>> reports;
  std::optional<std::string> completed;
  std::optional<ZRVError> failed;
  std::atomic<int> outcomes{0};

  UpdateRun(ZRVPatcher& patcher, const std::optional<fs::path>& location) {
    // The outcome is counted after the lock is given back: the test may end the run as soon as it sees it.
    auto ended = [this](auto& slot, const auto& value) {
      std::unique_lock lock(mutex);
      slot = value;
      lock.unlock();
      ++outcomes;
    };
    patcher.checkForGameUpdates(
        location,
        [this](const std::string& status, double progress) {
          std::lock_guard lock(mutex);
          reports.emplace_back(status, progress);
        },
        [=, this](const std::string& message) { ended(completed, message); },
        [=, this](const ZRVError& error) { ended(failed, error); });
  }

  /// Pumps the main queue (the framework's unzip reports there) until an outcome or the time-out.
  bool finish(std::chrono::milliseconds timeout = 20s) {
    return ZRVOperationQueue::mainQueue().runUntil([this] { return outcomes.load() > 0; }, timeout);
  }
};

class PatcherTest : public ::testing::Test {
 protected:
  TemporaryDirectory install;
  UpdateServer content;
  ZRVPatcher patcher;

  void SetUp() override { fs::create_directories(install / "Frameworks" / "Cg.framework"); }
  void TearDown() override { ZRVGlobals::defaultGlobals().setServerType(0); }

  std::string installed(const std::string& name) { return readFile(install / name); }
  std::size_t extraThreadsForTwoThousandFiles();
};

}  // namespace

TEST_F(PatcherTest, NoLocationFailsAtOnceWithoutARequest) {
  UpdateRun run(patcher, std::nullopt);
  ASSERT_EQ(run.outcomes.load(), 1);  // synchronously, on this thread
  ASSERT_TRUE(run.failed);
  EXPECT_EQ(run.failed->domain(), ZRVBundle::mainBundle().bundleIdentifier() + ".InvalidLocation");
  EXPECT_EQ(run.failed->code(), 1);
  EXPECT_EQ(run.failed->userInfo()["error"],
            "(null) is an invalid location. Make sure to specify a destination for the game files.");
  EXPECT_TRUE(content.server().requests().empty());
}

TEST_F(PatcherTest, UnreadableManifestStillEndsUpToDateAndExecutable) {
  writeFile(install / "Quillmoor", "#!/bin/sh\n");
  fs::permissions(install / "Quillmoor", fs::perms::owner_read | fs::perms::owner_write);
  writeFile(install / ".tmp" / "leftover.bz2", "x");
  content.server().on("GET", "/api/mirrors", ScriptedResponse::json("[]"));
  content.server().on("GET", "/content/patchmanifest.txt", ScriptedResponse::text("<html>not found</html>", 404));
  UpdateRun run(patcher, install.path());
  ASSERT_TRUE(run.finish());
  EXPECT_EQ(run.completed, "Everything is up to date");
  EXPECT_TRUE((fs::status(install / "Quillmoor").permissions() & fs::perms::owner_exec) != fs::perms::none);
  EXPECT_FALSE(fs::exists(install / ".tmp"));
}

TEST_F(PatcherTest, MirrorListFallsBackFromPrimaryToBackupToSafe) {
  struct Case {
    const char* name;
    long serverType;
    std::optional<ScriptedResponse> primary;  // absent: not served (unexpected if asked)
    std::optional<ScriptedResponse> backup;
    std::vector<std::string> expected;  // relative to the server's base
  } cases[] = {
      {"empty primary list wins", 0, ScriptedResponse::json("[]"), std::nullopt, {}},
      {"primary JSON but no list: still no fallback", 0, ScriptedResponse::json(R"({"mirrors": ["MIRROR/a/"]})"),
       std::nullopt, {}},
      {"primary not JSON, backup used", 0, ScriptedResponse::text("oops", 500),
       ScriptedResponse::json(R"(["/ignored", "MIRROR/a/", 7, "MIRROR/b/"])"), {"/a/", "/b/"}},
      {"both unreachable: the safe mirror", 0, ScriptedResponse::text("", 503), ScriptedResponse::text("", 503),
       {"/content/"}},
      {"development list unreachable: production backup", 2, ScriptedResponse::text("x", 404),
       ScriptedResponse::json(R"(["MIRROR/backup/"])"), {"/backup/"}},
  };
  for (auto& c : cases) {
    UpdateServer server;
    std::string primaryPath = c.serverType == 2 ? "/1136/dev-mirrors.text" : "/api/mirrors";
    auto withBase = [&](ScriptedResponse response) {
      for (std::size_t at; (at = response.body.find("MIRROR")) != std::string::npos;) {
        response.body.replace(at, 6, server.base());
      }
      return response;
    };
    if (c.primary) server.server().on("GET", primaryPath, withBase(*c.primary));
    if (c.backup) server.server().on("GET", "/mirrors.txt", withBase(*c.backup));
    server.server().on("GET", "/content/patchmanifest.txt", ScriptedResponse::json("{}"));
    ZRVGlobals::defaultGlobals().setServerType(c.serverType);
    ZRVPatcher fresh;
    UpdateRun run(fresh, install.path());
    ASSERT_TRUE(run.finish()) << c.name;
    std::vector<std::string> mirrors;
    for (const auto& url : fresh.mirrorURLs()) mirrors.push_back(url.absoluteString().substr(server.base().size()));
    EXPECT_EQ(mirrors, c.expected) << c.name;
  }
}

TEST_F(PatcherTest, DeeplyNestedManifestsAndMirrorListsAreNotJSON) {
  // A deep manifest means no files; a deep primary list means the backup list. Neither ends the launcher.
  writeFile(install / "game.bin", "kept");
  for (const auto& document : nestedDocuments(ZRVPatcher::kMaxDocumentSize, R"({"game.bin": )", "}")) {
    UpdateServer server;
    server.server().on("GET", "/api/mirrors", ScriptedResponse::json(document.text));
    server.server().on("GET", "/mirrors.txt", ScriptedResponse::json(R"(["http://127.0.0.1:1/backup/"])"));
    server.server().on("GET", "/content/patchmanifest.txt", ScriptedResponse::json(document.text));
    ZRVPatcher fresh;
    UpdateRun run(fresh, install.path());
    ASSERT_TRUE(run.finish()) << document.name;
    EXPECT_EQ(run.completed, "Everything is up to date") << document.name;
    ASSERT_EQ(fresh.mirrorURLs().size(), 1u) << document.name;
    EXPECT_EQ(fresh.mirrorURLs()[0].absoluteString(), "http://127.0.0.1:1/backup/") << document.name;
    EXPECT_EQ(installed("game.bin"), "kept") << document.name;
  }
}

TEST_F(PatcherTest, FilesArePatchedOrDownloadedByTheirInstalledContents) {
  std::string v1 = std::string(40000, 'a') + "version one of the map";
  std::string v2 = std::string(40000, 'a') + "version two of the map, longer";
  std::string v3 = std::string(40000, 'b') + "version three";
  content.publish("maps.pak", v3);
  content.addPatch("maps.pak", v1);  // patch from v1: not the installed content, ignored
  content.addPatch("maps.pak", v2);  // patch from v2: chosen
  content.publish("sounds.pak", "new sounds");
  content.addPatch("sounds.pak", "old sounds", std::string(40, '0'));  // wrong compressed hash: applied anyway
  content.publish("textures.pak", "new textures");
  content.addPatch("textures.pak", "old textures", std::nullopt, "BSDIFF40 but nothing else");  // corrupt
  content.publish("missing.pak", "brand new");
  content.publish("same.pak", "unchanged");
  content.publish("data/level.dat", "new level");
  content.addPatch("data/level.dat", "old level");  // its .tmp folder is never made: downloaded whole
  content.publish("frozen.pak", "server copy").erase("patches");  // never updated
  content.manifest["other-platform.pak"] = {{"only", {"win32"}}, {"hash", "x"}, {"compHash", "y"}, {"dl", "z"}};
  content.serveManifestAndMirrors();

  for (const auto& [name, before] : std::map<std::string, std::string>{
           {"maps.pak", v2}, {"sounds.pak", "old sounds"}, {"textures.pak", "old textures"}, {"same.pak", "unchanged"},
           {"data/level.dat", "old level"}, {"frozen.pak", "local copy"}}) {
    writeFile(install / name, before);
  }
  fs::permissions(install / "maps.pak", fs::perms::owner_exec, fs::perm_options::add);  // kept through the patch

  LogCapture log;
  UpdateRun run(patcher, install.path());
  ASSERT_TRUE(run.finish());
  EXPECT_EQ(run.completed, "Everything is up to date");
  EXPECT_NE(fs::status(install / "maps.pak").permissions() & fs::perms::owner_exec, fs::perms::none);
  for (const auto& [name, expected] : std::map<std::string, std::string>{
           {"maps.pak", v3}, {"sounds.pak", "new sounds"}, {"textures.pak", "new textures"}, {"missing.pak", "brand new"},
           {"same.pak", "unchanged"}, {"data/level.dat", "new level"}, {"frozen.pak", "local copy"}}) {
    EXPECT_EQ(installed(name), expected) << name;
  }
  EXPECT_FALSE(fs::exists(install / "other-platform.pak"));
  const std::string patches = "/content/patches/", files = "/content/files/";
  for (const auto& [path, count] : std::map<std::string, std::size_t>{
           {patches + sha1(v1).substr(0, 8) + "-maps.pak.bz2", 0}, {patches + sha1(v2).substr(0, 8) + "-maps.pak.bz2", 1},
           {files + "maps.pak.bz2", 0}, {files + "sounds.pak.bz2", 0}, {files + "textures.pak.bz2", 1},
           {files + "frozen.pak.bz2", 0}}) {
    EXPECT_EQ(content.server().requestCount("GET", path), count) << path;
  }
  EXPECT_TRUE(log.contains("exception"));
  EXPECT_FALSE(fs::exists(install / ".tmp"));
  for (const auto& [status, progress] : run.reports) EXPECT_NEAR(progress, 7 * ZRVPatcher::kBaseProgress, 1e-9) << status;
}

TEST_F(PatcherTest, TwentySixUpToDateFilesReportNearlyOneHundred) {
  for (int i = 0; i < 26; ++i) {
    std::string name = "file" + std::to_string(i);
    content.publish(name, name);
    writeFile(install / name, name);
  }
  content.manifest["no-hash"] = {{"only", {"darwin"}}, {"compHash", "x"}, {"dl", "y"}};  // counted, not updated
  content.serveManifestAndMirrors();
  UpdateRun run(patcher, install.path());
  ASSERT_TRUE(run.finish());
  ASSERT_EQ(run.reports.size(), 26u);
  for (const auto& report : run.reports) EXPECT_NEAR(report.second, 27 * 3.846, 1e-9);
  EXPECT_NEAR(patcher.progress(), 27 * 3.846, 1e-9);
}

TEST_F(PatcherTest, AFileThatCannotBeDownloadedAnywhereSilencesTheRun) {
  content.publish("lost.pak", "x");
  for (int i = 0; i < 20; ++i) content.publish("ok" + std::to_string(i), "fine");
  content.serveManifestAndMirrors();
  auto cutOff = ScriptedResponse::text(std::string(1000, 'z'));
  cutOff.dropConnection = true;
  content.server().on("GET", "/content/files/lost.pak.bz2", cutOff);  // fails on the one mirror
  UpdateRun run(patcher, install.path());
  EXPECT_FALSE(run.finish(3s));  // no handler at all: the launcher's own guard has to notice
  EXPECT_EQ(run.outcomes.load(), 0);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(installed("ok" + std::to_string(i)), "fine");  // the others went on
}

TEST_F(PatcherTest, FilesWhoseDownloadNameDoesNotDecodeDoNotHoldUpTheOthers) {
  // More silent files than are worked on at once: each must still give its place to the next file.
  for (std::size_t i = 0; i < 3 * ZRVPatcher::kFilesInFlight; ++i) {
    content.publish("undecodable" + std::to_string(i), "x")["dl"] = "bad%zzname";
  }
  for (int i = 0; i < 5; ++i) content.publish("ok" + std::to_string(i), "fine");
  content.serveManifestAndMirrors();
  UpdateRun run(patcher, install.path());
  // Waits for every report (one per silent file, two per good one) rather than for the files, so that the
  // run does not outlive the test while it still reports.
  const std::size_t expected = 3 * ZRVPatcher::kFilesInFlight + 2 * 5;
  ASSERT_TRUE(ZRVOperationQueue::mainQueue().runUntil(
      [&] {
        std::lock_guard lock(run.mutex);
        return run.reports.size() >= expected;
      },
      20s));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(installed("ok" + std::to_string(i)), "fine");
  EXPECT_EQ(run.outcomes.load(), 0);
}

TEST_F(PatcherTest, TheFrameworkComesFirstAndASecondRunCarriesOnFromTheFirst) {
  fs::remove_all(install / "Frameworks");
  content.serveFramework("framework binary");
  content.publish("game.pak", "new game");
  content.serveManifestAndMirrors();
  for (const double share : {ZRVPatcher::kBaseProgressWithFramework,
                             ZRVPatcher::kBaseProgressWithFramework + ZRVPatcher::kBaseProgress}) {
    const bool first = share == ZRVPatcher::kBaseProgressWithFramework;
    UpdateRun run(patcher, install.path());
    ASSERT_TRUE(!first || !run.reports.empty());  // the first framework status comes at once
    ASSERT_TRUE(run.finish());
    EXPECT_EQ(run.completed, "Everything is up to date");
    EXPECT_DOUBLE_EQ(patcher.baseProgress(), first ? share : ZRVPatcher::kBaseProgress);
    EXPECT_NEAR(run.reports.back().second, share, 1e-9);  // the file's reports: progress is never reset between runs
  }
  EXPECT_EQ(readFile(install / "Frameworks" / "Cg.framework" / "Cg"), "framework binary");
  EXPECT_FALSE(fs::exists(install / "Frameworks" / "Cg.framework.zip"));
  EXPECT_EQ(installed("game.pak"), "new game");
  std::vector<std::string> paths;
  for (const auto& request : content.server().requests()) paths.push_back(request.path);
  const std::vector<std::string> expected = {
      "/launcher/mac/aditional-libraries/Cg.framework.zip", "/api/mirrors", "/content/patchmanifest.txt",
      "/content/files/game.pak.bz2",  // the first run: framework → mirrors → manifest → files
      "/api/mirrors", "/content/patchmanifest.txt"};  // the second: the framework and the file are in place
  EXPECT_EQ(paths, expected);
  EXPECT_EQ(patcher.mirrorURLs().size(), 1u);
}

TEST_F(PatcherTest, AMissingFrameworkArchiveFailsTheRun) {
  fs::remove_all(install / "Frameworks");
  content.server().on("GET", "/launcher/mac/aditional-libraries/Cg.framework.zip", ScriptedResponse::text("nope", 404));
  UpdateRun run(patcher, install.path());
  ASSERT_TRUE(run.finish());
  ASSERT_TRUE(run.failed);
  EXPECT_EQ(run.failed->code(), 2);  // the 404 page was "downloaded", then could not be unpacked
  EXPECT_EQ(run.failed->domain(), ZRVBundle::mainBundle().bundleIdentifier() + ".unzipper");
}

// An update of 2,000 files, a quarter of them missing, returning the most work-queue threads it had beyond
// those the process had already (or one per core, if that is more).
std::size_t PatcherTest::extraThreadsForTwoThousandFiles() {
  for (int i = 0; i < 2000; ++i) {
    std::string name = "pack" + std::to_string(i) + ".dat";
    content.publish(name, "contents of " + name);
    if (i % 4) writeFile(install / name, "contents of " + name);  // a quarter must be downloaded
  }
  content.serveManifestAndMirrors();
  auto& queue = ZRVOperationQueue::workQueue();
  const std::size_t before = std::max<std::size_t>({queue.threadCount(), std::thread::hardware_concurrency(), 2});
  queue.resetPeakThreadCount();
  UpdateRun run(patcher, install.path());
  EXPECT_TRUE(run.finish(300s));  // a hang guard only
  EXPECT_EQ(run.completed, "Everything is up to date");
  EXPECT_EQ(installed("pack0.dat"), "contents of pack0.dat");
  EXPECT_EQ(installed("pack1999.dat"), "contents of pack1999.dat");
  const std::size_t peak = queue.peakThreadCount();
  return peak > before ? peak - before : 0;
}

// Files wait for their turn outside the queue, so the queue keeps about one thread per core busy; a thread
// beyond those stands in only for one that waits for the network or the disk, at most one per file in flight.
TEST_F(PatcherTest, TwoThousandFilesNeedNoThreadEach) {
  EXPECT_LE(extraThreadsForTwoThousandFiles(), ZRVPatcher::kFilesInFlight);
}

TEST_F(PatcherTest, TwoThousandFilesOnABusyMachineNeedNoMoreThreads) {
  // The other processes leave this one little of the processor: its threads are kept waiting for a
  // processor, which is no reason to start more of them.
  BusyProcesses busy;
  ASSERT_GT(busy.size(), 0u);
  EXPECT_LE(extraThreadsForTwoThousandFiles(), ZRVPatcher::kFilesInFlight);
}

TEST(ManagedFileTest, OnlyAnEmptyFolderPartMakesAFolder) {
  // The test is inverted on purpose: a real sub-folder is never made, an empty folder part makes the base.
  const struct {
    const char* name;
    bool baseMade;
  } cases[] = {{"flat.bin", false}, {"a/b.bin", false}, {"maps/", true}};
  for (const auto& c : cases) {
    TemporaryDirectory scratch;
    fs::path base = scratch / "install";
    ASSERT_TRUE(ZRVManagedFile::initWithFilename(c.name, base, "hash", "compHash", std::nullopt)) << c.name;
    EXPECT_EQ(fs::exists(base), c.baseMade) << c.name;
    EXPECT_FALSE(fs::exists(base / "a")) << c.name;
  }
}
