#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVOperationQueue.h>
#include <ZRVKit/ZRVServerStatus.h>

#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <future>

using namespace std::chrono_literals;

namespace {

struct Outcome {
  bool online;
  std::optional<ZRVError> error;
  bool onWorkQueue;
};

Outcome askStatus() {
  std::promise<Outcome> reported;
  ZRVServerStatus::currentStatus().getServerStatus([&](bool online, std::optional<ZRVError> error) {
    reported.set_value({online, std::move(error), ZRVOperationQueue::currentQueue() == &ZRVOperationQueue::workQueue()});
  });
  auto future = reported.get_future();
  if (future.wait_for(10s) != std::future_status::ready) throw std::runtime_error("no status callback");
  return future.get();
}

}  // namespace

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
    Outcome outcome = askStatus();
    EXPECT_EQ(outcome.online, c.online) << c.name;
    EXPECT_EQ(outcome.error.has_value(), c.error) << c.name;
    EXPECT_TRUE(outcome.onWorkQueue) << c.name;
    EXPECT_EQ(server.requestCount("GET", "/api/status"), 1u) << c.name;
  }

  ZRVHosts::setRedirect("http://127.0.0.1:1");  // no server at all: online, with the transport error
  Outcome outcome = askStatus();
  ZRVHosts::setRedirect(std::nullopt);
  EXPECT_TRUE(outcome.online);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain(), ZRVError::kHTTPDomain);
}
