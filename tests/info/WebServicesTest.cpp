// The game's web services as the library reads them: the server status and the invasion feed, each answered by a
// loopback server.

#include "info/InvasionDepartments.h"

#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVInvasionManager.h>
#include <ZRVKit/ZRVInvasionTracker.h>
#include <ZRVKit/ZRVOperationQueue.h>
#include <ZRVKit/ZRVServerStatus.h>

#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>

using namespace std::chrono_literals;

namespace {

// Waits for the one callback that `ask` hands `reported` to.
template <class Result>
Result awaitCallback(const std::function<void(std::promise<Result>& reported)>& ask) {
  std::promise<Result> reported;
  ask(reported);
  auto future = reported.get_future();
  if (future.wait_for(10s) != std::future_status::ready) throw std::runtime_error("no callback");
  return future.get();
}

bool onWorkQueue() { return ZRVOperationQueue::currentQueue() == &ZRVOperationQueue::workQueue(); }

struct Outcome {
  bool reached;
  std::vector<ZRVJSON> invasions;
  std::optional<ZRVError> error;
  bool onWorkQueue;
};

Outcome askInvasions() {
  return awaitCallback<Outcome>([](auto& reported) {
    ZRVInvasionManager::sharedManager().currentInvasions(
        [&](bool reached, std::vector<ZRVJSON> invasions, std::optional<ZRVError> error) {
          reported.set_value({reached, std::move(invasions), std::move(error), onWorkQueue()});
        });
  });
}

struct Status {
  bool online;
  std::optional<ZRVError> error;
  bool onWorkQueue;
};

Status askStatus() {
  return awaitCallback<Status>([](auto& reported) {
    ZRVServerStatus::currentStatus().getServerStatus([&](bool online, std::optional<ZRVError> error) {
      reported.set_value({online, std::move(error), onWorkQueue()});
    });
  });
}

// One loopback server answering the feed, with every host redirected to it for the test's scope.
class InvasionFeed : public ::testing::Test {
 protected:
  void SetUp() override { ZRVHosts::setRedirect(server.baseAddress()); }
  void TearDown() override { ZRVHosts::setRedirect(std::nullopt); }

  Outcome answer(const std::string& body, int status = 200) {
    server.on("GET", "/api/invasions", ScriptedResponse::json(body, status));
    return askInvasions();
  }

  LoopbackServer server;
};

std::string message(const ZRVError& error) { return error.userInfo().value("error", "<absent>"); }

}  // namespace

TEST_F(InvasionFeed, AnswersWithoutInvasions) {
  ZRVBundle::mainBundle().setBuiltInTable("Localizable", "en",
                                          R"({"INVASION_MANAGER_NO_INVASIONS": "All quiet on the quays."})");
  ZRVBundle::mainBundle().setLanguage("en");
  const std::string domain = ZRVBundle::mainBundle().bundleIdentifier() + ".Invasions";
  const struct {
    const char* name;
    std::string body;
    int status;
    const char* outcome;  // reached or not; then the "Invasions" error's code and message, or what other error
  } cases[] = {
      {"no invasions", R"({"error": null, "invasions": {}})", 200, "reached, 6: All quiet on the quays."},
      {"no invasions member", R"({"error": null})", 200, "reached, 6: All quiet on the quays."},
      {"no error member", R"({"invasions": {"Gullhaven": {"type": "Foghorn", "progress": "1/2"}}})", 200,
       "reached, 6: "},
      {"an error text", R"({"error": "Closed.", "invasions": {}})", 200, "reached, 6: Closed."},
      {"service unavailable", R"({"error": null, "invasions": {}})", 503, "not reached, no error"},
      {"not JSON", "<html>", 200, "reached, another error"},
  };
  for (const auto& c : cases) {
    Outcome outcome = answer(c.body, c.status);
    const std::string error = !outcome.error                      ? "no error"
                              : outcome.error->domain() != domain ? "another error"
                                                                  : std::to_string(outcome.error->code()) + ": " +
                                                                        message(*outcome.error);
    EXPECT_EQ((outcome.reached ? "reached, " : "not reached, ") + error, c.outcome) << c.name;
    EXPECT_TRUE(outcome.invasions.empty()) << c.name;
    EXPECT_TRUE(outcome.onWorkQueue) << c.name;
  }
  ZRVBundle::mainBundle().setBuiltInTable("Localizable", "en", "{}");
  ZRVBundle::mainBundle().setLanguage(std::nullopt);
}

TEST_F(InvasionFeed, RecordsKeepTheFeedsSpellingAndOrder) {
  Outcome outcome = answer(R"({"error": null, "invasions": {
      "Gullhaven": {"type": "Quill-snapper", "progress": "1200/5000", "asOf": 1700000000},
      "Brinemarket": {"type": "GULL INSPECTOR", "progress": "10/800", "asOf": "1700000000.5"},
      "Old Pier": {"type": "Unheard-of Thing", "progress": "3/70", "asOf": 1700000000}}})");
  ASSERT_TRUE(outcome.reached);
  EXPECT_FALSE(outcome.error);
  ASSERT_EQ(outcome.invasions.size(), 3u);
  EXPECT_EQ(outcome.invasions[0], ZRVJSON::parse(R"({"district": "Gullhaven", "type": "Quill-snapper",
      "suit": "Northwing", "progress": "1200/5000", "defeat_rate": 1.5, "defeated": 1200, "total": 5000,
      "as_of": 1700000000.0, "id": "a97-4188-eafa-581cb"})"));
  EXPECT_EQ(outcome.invasions[1].dump(), ZRVJSON::parse(R"({"district": "Brinemarket", "type": "GULL INSPECTOR",
      "suit": "Eastwing", "progress": "10/800", "defeat_rate": 1.5, "defeated": 10, "total": 800, "as_of": 1700000000.5,
      "id": ")" + outcome.invasions[1].value("id", "") + R"("})").dump());
  EXPECT_EQ(outcome.invasions[2]["suit"], "Northwing");
  EXPECT_EQ(server.requests().back().header("User-Agent"),
            ZRVBundle::mainBundle().bundleIdentifier() + ".OSX.InvasionManager");
}

TEST_F(InvasionFeed, IdsHoldWhileAnInvasionProgressesAndRatesAreMeasured) {
  server.onSequence("GET", "/api/invasions",
                    {ScriptedResponse::json(R"({"error": null, "invasions": {
                         "Gullhaven": {"type": "Foghorn", "progress": "100/4000", "asOf": 5000},
                         "Saltmarsh": {"type": "Undertow", "progress": "0/900", "asOf": 5000}}})"),
                     ScriptedResponse::json(R"({"error": null, "invasions": {
                         "Gullhaven": {"type": "Foghorn", "progress": "220/4000", "asOf": "5060"},
                         "Saltmarsh": {"type": "Undertow", "progress": "0/901", "asOf": 5060}}})")});
  Outcome first = askInvasions();
  Outcome second = askInvasions();
  ASSERT_EQ(first.invasions.size(), 2u);
  ASSERT_EQ(second.invasions.size(), 2u);
  EXPECT_EQ(first.invasions[0]["id"], second.invasions[0]["id"]);
  EXPECT_DOUBLE_EQ(second.invasions[0]["defeat_rate"].get<double>(), 2.0);
  // Another size in the same district is another invasion, and the one it replaced is forgotten.
  EXPECT_NE(first.invasions[1]["id"], second.invasions[1]["id"]);
  EXPECT_EQ(ZRVInvasionTracker::invasionTracker().invasions().count(first.invasions[1]["id"].get<std::string>()), 0u);
}

TEST_F(InvasionFeed, MalformedEntriesAreLeftOut) {
  Outcome outcome = answer(R"({"error": null, "invasions": {
      "No slash": {"type": "Foghorn", "progress": "120"},
      "Words": {"type": "Foghorn", "progress": "many/few"},
      "No type": {"progress": "1/2"},
      "Numeric type": {"type": 7, "progress": "1/2"},
      "Not an entry": [1, 2],
      "Odd time": {"type": "Foghorn", "progress": "1/2", "asOf": {"at": 3}},
      "Without time": {"type": "Sandbagger", "progress": " 4/9"},
      "Null time": {"type": "Sandbagger", "progress": "5/9", "asOf": null}}})");
  ASSERT_TRUE(outcome.reached);
  EXPECT_FALSE(outcome.error);
  ASSERT_EQ(outcome.invasions.size(), 2u);
  EXPECT_EQ(outcome.invasions[1]["district"], "Null time");
  const ZRVJSON& record = outcome.invasions[0];
  EXPECT_EQ(record["district"], "Without time");
  EXPECT_EQ(record["defeated"], 4);
  EXPECT_EQ(record["defeat_rate"], 1.5);
  // A missing time is the local time, handed to the tracker as text.
  double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  EXPECT_NEAR(record["as_of"].get<double>(), now, 60);
  auto baseline = ZRVInvasionTracker::invasionTracker().invasions().at(record["id"].get<std::string>());
  EXPECT_TRUE(baseline["as_of"].is_string());
  EXPECT_EQ(baseline["defeated"], " 4");
}

TEST(InvasionDepartments, OnlyLetterCaseIsIgnored) {
  const auto& table = InvasionDepartments::gameDepartments();
  EXPECT_EQ(table.departmentForType("shell\x03SHOCKER"), "Southwing");
  EXPECT_EQ(table.departmentForType("WAVE-breaker"), "Westwing");
  for (const char* unknown : {"Wave breaker", "Wave_breaker", "Foghorn ", "Kelp and Co.", "", "Admiral Nobody"}) {
    EXPECT_EQ(table.departmentForType(unknown), "Northwing") << unknown;
  }
}

TEST(InvasionDepartments, MalformedTablesAreRefused) {
  for (const char* json : {"", "{}", "[]", R"([{"department": "A"}])", R"([{"department": "A", "types": [1]}])"}) {
    EXPECT_THROW(InvasionDepartments{json}, ZRVException) << json;
  }
}

TEST(ServerStatus, AnswersLeanTowardsOnline) {
  struct Case {
    std::string name;
    ScriptedResponse answer;
    bool online;
    bool error;
  };
  std::vector<Case> cases = {
      {"offline", ScriptedResponse::json(R"({"online": false})"), false, false},
      {"online with more members", ScriptedResponse::json(R"({"online": true, "motd": "hi"})"), true, false},
      {"online as a number", ScriptedResponse::json(R"({"online": 1})"), true, false},
      {"no online member", ScriptedResponse::json("{}"), false, false},
      {"service unavailable", ScriptedResponse::json(R"({"online": false})", 503), true, false},
      {"not JSON", ScriptedResponse::text("<html>down</html>"), true, true},
      {"not an object", ScriptedResponse::json("[false]"), true, true},
  };
  // Texts are read true as the platform reads them.
  const std::pair<const char*, bool> texts[] = {
      {R"("True")", true}, {R"("true")", true}, {R"("yes")", true},  {R"("  +007")", true}, {R"("-1")", true},
      {R"("t")", true},    {R"("0")", false},   {R"("no")", false},  {R"("False")", false}, {R"("")", false},
      {R"(" 00")", false}, {"0.5", true},       {"null", false},     {"[1]", false},
  };
  for (const auto& [text, online] : texts) {
    cases.push_back({text, ScriptedResponse::json(std::string(R"({"online": )") + text + "}"), online, false});
  }
  for (auto& c : cases) {
    LoopbackServer server;
    server.on("GET", "/api/status", c.answer);
    ZRVHosts::setRedirect(server.baseAddress());
    Status outcome = askStatus();
    EXPECT_EQ(outcome.online, c.online) << c.name;
    EXPECT_EQ(outcome.error.has_value(), c.error) << c.name;
    EXPECT_TRUE(outcome.onWorkQueue) << c.name;
    EXPECT_EQ(server.requestCount("GET", "/api/status"), 1u) << c.name;
  }

  ZRVHosts::setRedirect("http://127.0.0.1:1");  // no server at all: online, with the transport error
  Status outcome = askStatus();
  ZRVHosts::setRedirect(std::nullopt);
  EXPECT_TRUE(outcome.online);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain(), ZRVError::kHTTPDomain);
}
