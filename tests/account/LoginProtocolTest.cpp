#include <ZRVKit/ZRVAuthenticator.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVMainQueue.h>

#include "account/FormEncoder.h"
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
    ZRVHosts::setRedirect("http://127.0.0.1:1");  // each case answers from a server of its own
    reset();
  }

  void reset() {
    reports.clear();
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

  static std::vector<std::string> bodies(const LoopbackServer& to) {
    std::vector<std::string> sent;
    for (const auto& request : to.requests()) sent.push_back(request.body);
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
  ZRVAuthenticator& authenticator = ZRVAuthenticator::defaultAuthenticator();
  std::vector<Report> reports;
};

// Each case: the answers the server gives in turn, the bodies the client must send and the statuses it reports.
TEST_F(LoginProtocol, EveryStepSendsTheFormByteForByteAndReportsOnlyWhereItEnds) {
  const std::string no = R"({"success": "false"})", delayed = R"({"success": "delayed"})",
                    partial = R"({"success": "partial"})", pw = "username=bob&password=pw&persistent=",
                    yes = R"({"success": "true", "cookie": "secret-K", "gameserver": "g:7"})";
  struct Case {
    std::string username, password;
    bool rememberMe;
    std::vector<std::string> answers, bodies;
    std::vector<int> statuses;
    const char* code = nullptr;  // sent after the first report, which carries `token` (kept by the authenticator)
    const char* token = "";
  } cases[] = {
      // A cookie login has no user name or password to follow the queue with. (Bob has no saved login before the
      // last cases: with one, the delayed answer without a token would be followed like this too.)
      {"carol", "C K", false, {delayed, yes}, {"cookie=C%20K", "username=(null)&password=(null)&persistent=(null)"},
       {0}},
      {"bob", "secret-2", true, {no}, {"username=bob&password=secret-2&persistent=true"}, {1}},
      {"bob", "secret-2", false, {no}, {"username=bob&password=secret-2&persistent=false"}, {1}},
      {"a b@c", "p+q=r&s", false, {no}, {"username=a%20b%40c&password=p%2Bq%3Dr%26s&persistent=false"}, {1}},
      {"é", "Ωμέγα", false, {no}, {"username=é&password=Ωμέγα&persistent=false"}, {1}},
      // Each queue turn encodes what the turn before sent; no report comes until the last answer.
      {"a b@c", "p@ss", false,
       {R"({"success": "delayed", "queueToken": "Q"})", R"({"success": "delayed", "queueToken": "Q2"})", yes},
       {"username=a%20b%40c&password=p%40ss&persistent=false", "username=a%2520b%2540c&password=p%2540ss&queueToken=Q",
        "username=a%252520b%252540c&password=p%252540ss&queueToken=Q2"},
       {0}},
      {"bob", "pw", false, {delayed, no}, {pw + "false", pw + "(null)"}, {1}},
      {"bob", "pw", true, {R"({"success": "partial", "responseToken": "T/1"})", yes},
       {pw + "true", "appToken=123%20456&authToken=T%2F1"}, {3, 0}, "123 456", "T/1"},
      // Without a response token the two-factor step falls back to the password form.
      {"bob", "pw", true, {partial, no}, {pw + "true", pw + "(null)"}, {3, 1}, "123456"},
  };
  saveCookie("carol", "C K");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bodies[0]);
    LoopbackServer scripted;
    ZRVHosts::setRedirect(scripted.baseAddress());
    std::vector<ScriptedResponse> answers;
    for (const auto& body : c.answers) answers.push_back(answer(body));
    scripted.onSequence("POST", kLogin, answers);
    reset();
    login(c.username, c.password, c.rememberMe);
    ASSERT_TRUE(waitForReports(1));
    EXPECT_TRUE(&c != cases || !authenticator.password());  // the cookie is no password to keep
    if (c.code) {
      EXPECT_EQ(reports[0].info.value("responseToken", ""), c.token);
      // The token is kept just after the report is posted.
      EXPECT_TRUE(ZRVOperationQueue::mainQueue().runUntil(
          [&] { return authenticator.responseToken().value_or("") == c.token; }, 5s));
      authenticator.authenticateTwoFactorAuthenticationWithAppCode(c.code);
    }
    ASSERT_TRUE(waitForReports(c.statuses.size()));
    ZRVOperationQueue::mainQueue().runUntil([&] { return reports.size() > c.statuses.size(); }, 300ms);
    EXPECT_EQ(bodies(scripted), c.bodies);
    std::vector<int> statuses;
    for (const auto& report : reports) statuses.push_back(report.status);
    EXPECT_EQ(statuses, c.statuses);
    if (statuses.back() == 0) {
      EXPECT_EQ(reports.back().info["gameserver"], "g:7");
      // The cookie is kept and saved under the user name (replacing an older one) just after the report is posted.
      EXPECT_TRUE(ZRVOperationQueue::mainQueue().runUntil(
          [&] { return authenticator.loadSavedPassword(c.username) == "secret-K"; }, 5s));
      EXPECT_EQ(authenticator.cookie(), "secret-K");
    }
    const RecordedRequest sent = scripted.requests().front();
    EXPECT_EQ(sent.header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(sent.header("Content-Length"), std::to_string(sent.body.size()));
    EXPECT_FALSE(sent.hasHeader("User-Agent"));
    EXPECT_FALSE(sent.hasHeader("Expect"));
  }
  EXPECT_EQ(authenticator.loadSavedLogins(), (std::vector<std::string>{"a b@c", "bob", "carol"}));
  for (const std::string& line : log.lines()) EXPECT_EQ(line.find("secret-"), std::string::npos) << line;
}

TEST_F(LoginProtocol, UnusableAnswersAreReportedOnlyFrom401OnOrWithoutABodyAndRedirectsAreNotFollowed) {
  struct Case {
    std::string name;
    ScriptedResponse response;
    int status;  // the one report's status; -1: no report
  };
  ScriptedResponse dropped = answer(R"({"success": "true", "cookie": "K"})");
  dropped.dropConnection = true;
  ScriptedResponse moved = answer(R"({"success": "false"})", 302);
  moved.headers = {{"Location", "/elsewhere"}};  // a request there would be unexpected
  std::vector<Case> cases = {
      {"400, not JSON", ScriptedResponse::text("<html>bad request</html>", 400), -1},
      {"200, no success member", answer("{}"), -1},
      {"200, success not a string", answer(R"({"success": true})"), -1},
      {"401, not JSON", ScriptedResponse::text("<html>no</html>", 401), 4},
      {"503, unknown success", answer(R"({"success": "maybe"})", 503), 4},
      {"200, empty body", ScriptedResponse::text("", 200), 4},
      {"connection dropped", dropped, 4},
      {"302, not followed", moved, 1},
  };
  for (const auto& document : nestedDocuments(1 << 20, R"({"success": "true", "cookie": )", "}")) {
    cases.push_back({document.name, answer(document.text, 401), 4});
  }
  for (auto& c : cases) {
    LoopbackServer scripted;
    ZRVHosts::setRedirect(scripted.baseAddress());
    scripted.on("POST", kLogin, c.response);
    reports.clear();
    login("bob", "pw");
    ASSERT_TRUE(scripted.waitForRequests(1)) << c.name;
    ZRVOperationQueue::mainQueue().runUntil([&] { return !reports.empty(); }, c.status >= 0 ? 10s : 300ms);
    ASSERT_EQ(reports.size(), c.status >= 0 ? 1u : 0u) << c.name;
    if (c.status < 0) continue;
    EXPECT_EQ(reports[0].status, c.status) << c.name;
    if (c.status == 4) {
      EXPECT_EQ(reports[0].info, (ZRVJSON{{"error", "Everyting, just ripped."}})) << c.name;
    }
  }
  EXPECT_TRUE(log.contains("RIP"));

  ZRVHosts::setRedirect("http://127.0.0.1:1");  // no server at all
  reports.clear();
  login("bob", "pw");
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(reports[0].status, 4);
}

TEST(FormEncoder, LettersMarksAndDigitsOfEveryScriptPassEverythingElseIsPercentEncoded) {
  struct Case {
    std::string text, expected;
  } cases[] = {
      {"a b@c", "a%20b%40c"},
      {"*-._", "*-._"},
      {"+&=/~!'()", "%2B%26%3D%2F%7E%21%27%28%29"},
      {"é", "é"},
      {"e\xCC\x81", "e\xCC\x81"},  // a combining accent is a mark
      {"日本語٣", "日本語٣"},
      {"\xF0\x9F\x98\x80", "%F0%9F%98%80"},  // an emoji is no letter
      {"\t\n%", "%09%0A%25"},
      {"", ""},
      // Malformed text goes unit by unit.
      {"a\xFF b\xC3\xA9", "a%FF%20bé"},
      {"\xED\xA0\x80x", "%D800x"},
      {std::string("n\0l", 3), "n%00l"},
  };
  for (const auto& c : cases) EXPECT_EQ(zrv::account::encoded(c.text), c.expected) << c.text;
  EXPECT_EQ(zrv::account::encoded(std::nullopt), std::nullopt);
}

}  // namespace
