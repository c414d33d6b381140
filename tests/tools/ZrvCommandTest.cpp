// The zrv command's interface: exit codes and messages that scripts and launchers depend on.

#include "serve/DemoServer.h"
#include "support/LoopbackServer.h"
#include "support/ShellCommand.h"
#include "support/TemporaryDirectory.h"

#include <ZRVKit/ZRVJSON.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include <cstdlib>

namespace {

using Outcome = ShellOutcome;

class ZrvCommand : public ::testing::Test {
 protected:
  TemporaryDirectory home;

  Outcome zrv(const std::string& arguments, const std::string& input = "") {
    return runZrv(ZRV_TOOL_PATH, home.path(), arguments, input);
  }
};

constexpr const char* kDeadServer = "--server http://127.0.0.1:1 ";

}  // namespace

TEST_F(ZrvCommand, EveryVerbExplainsItselfAndRefusesBadArguments) {
  EXPECT_EQ(zrv("").status, 2);
  Outcome help = zrv("--help");
  EXPECT_EQ(help.status, 0);
  const char* verbs[] = {"status", "serve", "update", "publish", "demo", "diff", "patch", "login", "logins",
                         "invasions", "options", "unzip", "zip", "launch", "play"};
  for (const char* verb : verbs) {
    EXPECT_NE(help.output.find(std::string("  ") + verb + " "), std::string::npos) << verb;
    Outcome verbHelp = zrv(std::string(verb) + " --help");
    EXPECT_EQ(verbHelp.status, 0) << verb;
    EXPECT_NE(verbHelp.output.find(std::string("usage: zrv ") + verb), std::string::npos) << verb;
    Outcome wrong = zrv(std::string(verb) + " --no-such-option");
    EXPECT_EQ(wrong.status, 2) << verb << ": " << wrong.output;
    EXPECT_NE(wrong.output.find("unknown option --no-such-option"), std::string::npos) << verb;
  }
  EXPECT_EQ(zrv("frobnicate").status, 2);
  EXPECT_EQ(zrv("--server not-a-url status").status, 2);
}

TEST_F(ZrvCommand, FailuresExitNonZeroWithAReason) {
  struct Case {
    std::string arguments;
    std::string input;
    int status;
    std::string says;
  } cases[] = {
      {std::string(kDeadServer) + "status", "", 3, "online (assumed"},
      {std::string(kDeadServer) + "invasions", "", 3, ""},
      {std::string(kDeadServer) + "login player --password-stdin", "secret\n", 3, "could not be reached"},
      {std::string(kDeadServer) + "play player --password-stdin", "secret\n", 3, "zrv play:"},
      {std::string(kDeadServer) + "update --install game --stall-timeout 30", "", 3, "could not confirm the game is up to date"},
      {std::string(kDeadServer) + "update --install game --json", "", 3, "\"outcome\": \"unreachable\""},
      {std::string(kDeadServer) + "invasions --json", "", 3, "\"reached\": false"},
      {"patch missing.old missing.patch new", "", 1, "zrv patch"},
      {"unzip missing.zip out", "", 1, "zrv unzip"},
      {"options --file missing.json", "", 1, "zrv options"},
      {"launch --cookie c", "", 2, "--gameserver"},
      {"launch --cookie c --gameserver g", "", 1, "could not be started"},
      {"serve --port seventy", "", 2, "--port"},
      {"publish only-one-folder", "", 2, "missing arguments"},
      {"logins remove nobody", "", 1, ""},
  };
  for (const auto& c : cases) {
    Outcome outcome = zrv(c.arguments, c.input);
    EXPECT_EQ(outcome.status, c.status) << c.arguments << "\n" << outcome.output;
    EXPECT_NE(outcome.output.find(c.says), std::string::npos) << c.arguments << "\n" << outcome.output;
    EXPECT_EQ(outcome.output.find("secret"), std::string::npos) << c.arguments;  // never echoes a password
  }
}

TEST_F(ZrvCommand, ALoginAnswerWithoutAnOutcomeEndsTheWaitInsteadOfTheTimeOut) {
  // The library stays silent on such an answer, as the servers expect; the launcher must not wait its
  // whole time-out (five minutes by default) for a report that cannot come.
  for (const char* body : {"{}", "not json", "[[[[[[[[[[]]]]]]]]]]"}) {
    LoopbackServer server;
    server.on("POST", "/api/login?format=json", ScriptedResponse::json(body));
    Outcome outcome = zrv("--server " + server.baseAddress() + " login player --password-stdin --timeout 3600", "secret\n");
    EXPECT_EQ(outcome.status, 3) << body << "\n" << outcome.output;
    EXPECT_NE(outcome.output.find("answered without saying whether the login succeeded"), std::string::npos) << body;
  }
}

TEST_F(ZrvCommand, TheDemoRunsTheWholeFlowToItsSummary) {
  Outcome demo = zrv("demo");
  EXPECT_EQ(demo.status, 0) << demo.output;
  for (const char* step : {"[6/6] Starting the game", "Everything is up to date", "Quillmoor sample game, build 2",
                           "game exit status: 0", "antialiasing 4, music off"}) {
    EXPECT_NE(demo.output.find(step), std::string::npos) << step << "\n" << demo.output;
  }
}

TEST_F(ZrvCommand, UnzipTakesThePasswordFromStandardInput) {
  writeFile(home / "source" / "locked.txt", "behind a password");
  ASSERT_EQ(std::system(("cd '" + (home / "source").string() + "' && zip -q -P s3cret ../locked.zip locked.txt").c_str()),
            0);
  Outcome wrong = zrv("unzip locked.zip wrong --password-stdin", "guessed\n");
  EXPECT_EQ(wrong.status, 1) << wrong.output;
  EXPECT_EQ(wrong.output.find("guessed"), std::string::npos);
  Outcome right = zrv("unzip locked.zip out --password-stdin", "s3cret\n");
  EXPECT_EQ(right.status, 0) << right.output;
  EXPECT_EQ(readFile(home / "out" / "locked.txt"), "behind a password");
  EXPECT_EQ(zrv("unzip locked.zip out --password-stdin --password s3cret").status, 2);
}

TEST(ZrvServe, TheLoginServiceChecksTheTwoFactorCodeAndQueuesForTheSetNumberOfTurns) {
  DemoServer served;  // what `zrv serve` runs
  httplib::Client client("127.0.0.1", served.start("127.0.0.1", 0));
  // Each step's "success", following "partial" with the code and "delayed" with the queue token.
  const struct {
    const char *account, *password, *code, *steps;
  } cases[] = {
      {"player", "quillmoor", "", "true"},
      {"player", "guessed", "", "false"},
      {"twofactor", "quillmoor", "123457", "partial false"},
      {"twofactor", "quillmoor", "123456", "partial true"},
      {"queued", "quillmoor", "", "delayed delayed delayed true"},
      {"demo", "quillmoor", "123456", "partial delayed delayed true"},
  };
  for (const auto& c : cases) {
    std::string form = std::string("username=") + c.account + "&password=" + c.password, steps;
    for (int step = 0; step < 10 && !form.empty(); ++step) {
      auto answer = client.Post("/api/login", form, "application/x-www-form-urlencoded");
      ASSERT_TRUE(answer && answer->status == 200) << c.account;
      ZRVJSON document = ZRVJSON::parse(answer->body);
      std::string success = document.value("success", "");
      steps += (steps.empty() ? "" : " ") + success;
      form = success == "delayed" ? "queueToken=" + document.value("queueToken", "") : "";
      const std::string token = document.value("responseToken", "");
      if (success == "partial") form = std::string("appToken=") + c.code + "&authToken=" + token;
    }
    EXPECT_EQ(steps, c.steps) << c.account << " " << c.code;
  }
}
