#include <ZRVKit/ZRVAuthenticator.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVMainQueue.h>

#include "support/LogCapture.h"
#include "support/LoopbackServer.h"
#include "support/NestedJSON.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace {

constexpr const char* kLogin = "/api/login?format=json";

ScriptedResponse answer(const std::string& json, int status = 200) { return ScriptedResponse::json(json, status); }

class LoginProtocol : public ::testing::Test {
 protected:
  struct Report {
    int status;
    ZRVJSON info;
  };

  void SetUp() override {
    ZRVHosts::setRedirect(server.baseAddress());
    using Setter = void (ZRVAuthenticator::*)(std::optional<std::string>);
    for (Setter setter : {&ZRVAuthenticator::setUsername, &ZRVAuthenticator::setPassword,
                         &ZRVAuthenticator::setPersistent, &ZRVAuthenticator::setResponseToken,
                         &ZRVAuthenticator::setCookie}) {
      (authenticator.*setter)(std::nullopt);
    }
  }

  void TearDown() override {
    authenticator.setStatusCallback(nullptr);
    ZRVOperationQueue::mainQueue().drain();
    ZRVHosts::setRedirect(std::nullopt);
  }

  ZRVAuthenticator::StatusCallback recorder() {
    return [this](int status, const ZRVJSON& info) {
      EXPECT_TRUE(ZRVMainQueue::isMainThread()) << "status " << status << " reported off the main thread";
      reports.push_back({status, info});
    };
  }

  void login(const std::string& username, const std::string& password, bool rememberMe = false) {
    authenticator.authenticateUsername(username, password, rememberMe, recorder());
  }

  bool waitForReports(std::size_t count) {
    return ZRVOperationQueue::mainQueue().runUntil([&] { return reports.size() >= count; }, 10s);
  }

  // Waits for `count` requests, then pumps the main queue a while to catch any report.
  void settleAfterRequests(std::size_t count) {
    ASSERT_TRUE(server.waitForRequests(count));
    ZRVOperationQueue::mainQueue().runUntil([] { return false; }, 300ms);
  }

  std::vector<std::string> bodies() const {
    std::vector<std::string> sent;
    for (const auto& request : server.requests()) sent.push_back(request.body);
    return sent;
  }

  void saveCookie(const std::string& username, const std::string& cookie) {
    authenticator.setUsername(username);
    authenticator.setCookie(cookie);
    authenticator.saveLogin();
  }

  TemporaryDirectory home;
  ScopedEnvironment data{"XDG_DATA_HOME", home.path().string()};
  ScopedEnvironment store{"ZRV_SECRET_STORE", "file"};
  LogCapture log;
  LoopbackServer server;
  ZRVAuthenticator& authenticator = ZRVAuthenticator::defaultAuthenticator();
  std::vector<Report> reports;
};

TEST_F(LoginProtocol, PasswordLoginsSendTheFormByteForByte) {
  struct Case {
    std::string username, password;
    bool rememberMe;
    std::string body;
  } cases[] = {
      {"bob", "hunter2", true, "username=bob&password=hunter2&persistent=true"},
      {"bob", "hunter2", false, "username=bob&password=hunter2&persistent=false"},
      {"a b@c", "p+q=r&s", false, "username=a%20b%40c&password=p%2Bq%3Dr%26s&persistent=false"},
      {"é", "Ωμέγα", false, "username=é&password=Ωμέγα&persistent=false"},
  };
  server.on("POST", kLogin, answer(R"({"success": "false"})"));
  for (const auto& c : cases) {
    reports.clear();
    login(c.username, c.password, c.rememberMe);
    ASSERT_TRUE(waitForReports(1)) << c.body;
    EXPECT_EQ(server.requests().back().body, c.body);
    EXPECT_EQ(reports[0].status, 1);
  }
  const RecordedRequest sent = server.requests().front();
  EXPECT_EQ(sent.header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(sent.header("Content-Length"), std::to_string(sent.body.size()));
  EXPECT_FALSE(sent.hasHeader("User-Agent"));
  EXPECT_FALSE(sent.hasHeader("Expect"));
}

TEST_F(LoginProtocol, TheLoginQueueIsFollowedSilentlyWithTheCredentialsEncodedTwice) {
  server.onSequence("POST", kLogin,
                    {answer(R"({"success": "delayed", "queueToken": "Q"})"),
                     answer(R"({"success": "delayed", "queueToken": "Q2"})"),
                     answer(R"({"success": "true", "cookie": "K"})")});
  login("a b@c", "p@ss");
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(bodies(), (std::vector<std::string>{"username=a%20b%40c&password=p%40ss&persistent=false",
                                                "username=a%2520b%2540c&password=p%2540ss&queueToken=Q",
                                                // each turn encodes what the turn before sent
                                                "username=a%252520b%252540c&password=p%252540ss&queueToken=Q2"}));
  settleAfterRequests(3);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].status, 0);
}

TEST_F(LoginProtocol, DelayedWithoutATokenResendsWhatIsLeft) {
  server.onSequence("POST", kLogin, {answer(R"({"success": "delayed"})"), answer(R"({"success": "false"})")});
  login("bob", "pw");
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(bodies()[1], "username=bob&password=pw&persistent=(null)");
}

TEST_F(LoginProtocol, ASavedCookieTypedAsThePasswordSignsInWithTheCookieAlone) {
  saveCookie("bob", "C K");
  server.onSequence("POST", kLogin, {answer(R"({"success": "delayed"})"), answer(R"({"success": "true", "cookie": "K2"})")});
  login("bob", "C K");
  ASSERT_TRUE(waitForReports(1));
  // A cookie login has no user name or password to follow the queue with.
  EXPECT_EQ(bodies(), (std::vector<std::string>{"cookie=C%20K", "username=(null)&password=(null)&persistent=(null)"}));
  EXPECT_EQ(authenticator.password(), std::nullopt);
}

TEST_F(LoginProtocol, TheTwoFactorStepSendsTheCodeWithTheResponseToken) {
  server.onSequence("POST", kLogin, {answer(R"({"success": "partial", "responseToken": "T/1"})"),
                                     answer(R"({"success": "true", "cookie": "K"})")});
  login("bob", "pw", true);
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(reports[0].status, 3);
  EXPECT_EQ(reports[0].info["responseToken"], "T/1");
  // The token is kept just after the report is posted.
  EXPECT_TRUE(ZRVOperationQueue::mainQueue().runUntil([&] { return authenticator.responseToken() == "T/1"; }, 5s));
  authenticator.authenticateTwoFactorAuthenticationWithAppCode("123 456");
  ASSERT_TRUE(waitForReports(2));
  EXPECT_EQ(bodies()[1], "appToken=123%20456&authToken=T%2F1");
  EXPECT_EQ(reports[1].status, 0);
}

TEST_F(LoginProtocol, ATwoFactorStepWithoutAResponseTokenFallsBackToThePasswordForm) {
  server.onSequence("POST", kLogin, {answer(R"({"success": "partial"})"), answer(R"({"success": "false"})")});
  login("bob", "pw", true);
  ASSERT_TRUE(waitForReports(1));
  authenticator.authenticateTwoFactorAuthenticationWithAppCode("123456");
  ASSERT_TRUE(waitForReports(2));
  EXPECT_EQ(bodies()[1], "username=bob&password=pw&persistent=(null)");
}

TEST_F(LoginProtocol, UnusableAnswersAreReportedOnlyFrom401OnOrWithoutABody) {
  struct Case {
    std::string name;
    ScriptedResponse response;
    bool reported;
  };
  ScriptedResponse dropped = answer(R"({"success": "true", "cookie": "K"})");
  dropped.dropConnection = true;
  std::vector<Case> cases = {
      {"400, not JSON", ScriptedResponse::text("<html>bad request</html>", 400), false},
      {"200, no success member", answer("{}"), false},
      {"200, success not a string", answer(R"({"success": true})"), false},
      {"401, not JSON", ScriptedResponse::text("<html>no</html>", 401), true},
      {"503, unknown success", answer(R"({"success": "maybe"})", 503), true},
      {"200, empty body", ScriptedResponse::text("", 200), true},
      {"connection dropped", dropped, true},
  };
  for (const auto& document : nestedDocuments(1 << 20, R"({"success": "true", "cookie": )", "}")) {
    cases.push_back({document.name, answer(document.text, 401), true});
  }
  for (auto& c : cases) {
    LoopbackServer scripted;
    ZRVHosts::setRedirect(scripted.baseAddress());
    scripted.on("POST", kLogin, c.response);
    reports.clear();
    login("bob", "pw");
    ASSERT_TRUE(scripted.waitForRequests(1)) << c.name;
    ZRVOperationQueue::mainQueue().runUntil([&] { return !reports.empty(); }, c.reported ? 10s : 300ms);
    if (!c.reported) {
      EXPECT_TRUE(reports.empty()) << c.name;
      continue;
    }
    ASSERT_EQ(reports.size(), 1u) << c.name;
    EXPECT_EQ(reports[0].status, 4) << c.name;
    EXPECT_EQ(reports[0].info, (ZRVJSON{{"error", "Everyting, just ripped."}})) << c.name;
  }
  EXPECT_TRUE(log.contains("RIP"));

  ZRVHosts::setRedirect("http://127.0.0.1:1");  // no server at all
  reports.clear();
  login("bob", "pw");
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(reports[0].status, 4);
}

TEST_F(LoginProtocol, RedirectsAreNotFollowed) {
  ScriptedResponse moved = answer(R"({"success": "false"})", 302);
  moved.headers = {{"Location", server.baseAddress() + "/elsewhere"}};
  server.on("POST", kLogin, moved);
  login("bob", "pw");
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(reports[0].status, 1);
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(LoginProtocol, SuccessKeepsAndSavesTheCookieUnderTheUserName) {
  server.onSequence("POST", kLogin,
                    {answer(R"({"success": "true", "cookie": "secret-cookie-1", "gameserver": "127.0.0.1:7000"})"),
                     answer(R"({"success": "true", "cookie": "secret-cookie-2"})")});
  login("bob", "secret-password");
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(reports[0].status, 0);
  EXPECT_EQ(reports[0].info["gameserver"], "127.0.0.1:7000");
  // The cookie is saved just after the report is posted.
  EXPECT_TRUE(ZRVOperationQueue::mainQueue().runUntil(
      [&] { return authenticator.loadSavedPassword("bob") == "secret-cookie-1"; }, 5s));
  EXPECT_EQ(authenticator.cookie(), "secret-cookie-1");

  // Signing in with the saved cookie replaces it with the new one.
  login("bob", "secret-cookie-1");
  ASSERT_TRUE(waitForReports(2));
  EXPECT_EQ(bodies()[1], "cookie=secret-cookie-1");
  EXPECT_TRUE(ZRVOperationQueue::mainQueue().runUntil(
      [&] { return authenticator.loadSavedPassword("bob") == "secret-cookie-2"; }, 5s));
  EXPECT_EQ(authenticator.loadSavedLogins(), std::vector<std::string>{"bob"});

  for (const std::string& line : log.lines()) {
    EXPECT_EQ(line.find("secret-"), std::string::npos) << line;
  }
}

}  // namespace
