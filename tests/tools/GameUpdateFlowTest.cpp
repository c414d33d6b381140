// The launcher's update flow against a real loopback mirror pair: what it does after the library's run, when
// a file on disk still differs from the manifest, and when the library's run never ends.

#include "flows/GameUpdate.h"

#include "support/TemporaryDirectory.h"
#include "update/UpdateServer.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace std::chrono_literals;

TEST(GameUpdate, BadFilesAreFetchedAgainFromTheOtherMirrorsAndAStalledRunGivesUp) {
  const std::string good = "the real map";
  const struct {
    const char* name;
    std::optional<std::string> first, second;  // what each mirror serves for the file; none: the connection drops
    GameUpdateResult::Outcome outcome;
    std::size_t repaired;
    const char* servedBy;  // the mirror named for the bad copy ("" when the file is not reported bad)
  } cases[] = {
      {"good on the first mirror", good, std::nullopt, GameUpdateResult::Outcome::upToDate, 0, ""},
      {"bad on the first, good on the second", "a wrong map", good, GameUpdateResult::Outcome::upToDate, 1, ""},
      {"bad on both", "a wrong map", "another wrong map", GameUpdateResult::Outcome::failed, 0, "/second/"},
      {"on neither: the run stalls", std::nullopt, std::nullopt, GameUpdateResult::Outcome::failed, 0, ""},
  };
  for (const auto& c : cases) {
    TemporaryDirectory install;
    std::filesystem::create_directories(install / "Frameworks" / "Cg.framework");
    UpdateServer content;
    content.publish("maps/world.pak", good);
    content.serveManifestAndMirrors();
    content.server().on("GET", "/api/mirrors",
                        ScriptedResponse::json(ZRVJSON::array({content.base() + "/content/", content.base() + "/second/"}).dump()));
    auto serve = [&](const char* mirror, const std::optional<std::string>& contents) {
      ScriptedResponse response = ScriptedResponse::text(bzip2(contents.value_or("cut off")));
      response.dropConnection = !contents;
      content.server().on("GET", std::string(mirror) + "files/maps/world.pak.bz2", response);
    };
    serve("/content/", c.first);
    serve("/second/", c.second);

    GameUpdateRequest request;
    request.install = install.path();
    request.quiet = true;
    request.stallTimeout = 1s;
    GameUpdateResult result = updateGame(request);

    EXPECT_EQ(result.outcome, c.outcome) << c.name << ": " << result.message;
    EXPECT_EQ(result.filesRepaired, c.repaired) << c.name;
    EXPECT_EQ(result.exitCode(), c.outcome == GameUpdateResult::Outcome::upToDate ? 0 : 1) << c.name;
    if (c.outcome == GameUpdateResult::Outcome::upToDate) {
      EXPECT_EQ(readFile(install / "maps/world.pak"), good) << c.name;
    }
    if (*c.servedBy) {
      ASSERT_EQ(result.badFiles.size(), 1u) << c.name;
      EXPECT_EQ(result.badFiles[0].servedBy, content.base() + c.servedBy) << c.name;
      EXPECT_EQ(result.badFiles[0].found, sha1("another wrong map")) << c.name;
    } else {
      EXPECT_TRUE(result.badFiles.empty()) << c.name;
    }
    if (!c.first && !c.second) {
      EXPECT_EQ(result.message.rfind("stalled", 0), 0u) << result.message;
      EXPECT_NE(std::find(result.details.begin(), result.details.end(), "not finished: maps/world.pak"),
                result.details.end());
    }
  }
}
