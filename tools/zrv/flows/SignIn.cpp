#include "flows/SignIn.h"

#include "Arguments.h"
#include "Verbs.h"
#include "flows/ObserverScope.h"
#include "flows/Terminal.h"

#include <ZRVKit/ZRVAuthenticator.h>
#include <ZRVKit/ZRVMainQueue.h>

#include <iostream>
#include <memory>
#include <mutex>

using namespace std::chrono_literals;

namespace {

struct Report {
  bool arrived = false;
  int status = -1;
  ZRVJSON info;
};

// The login server may answer without an outcome (no "success" the launcher knows, below HTTP 401); the
// library then reports nothing, as the servers expect. The launcher notices it from the transfers: none is
// running and the last one ended a while ago, so no answer is still being handled or followed up.
class LoginTransfers : public ZRVTransferObserver {
 public:
  void transferStarted(const ZRVTransferState&) override {
    std::lock_guard lock(mutex_);
    ++running_;
  }
  void transferEnded(const ZRVTransferState&) override {
    std::lock_guard lock(mutex_);
    --running_;
    lastEnd_ = std::chrono::steady_clock::now();
  }
  bool quietFor(std::chrono::milliseconds grace) const {
    std::lock_guard lock(mutex_);
    return running_ == 0 && lastEnd_ && std::chrono::steady_clock::now() - *lastEnd_ >= grace;
  }

 private:
  mutable std::mutex mutex_;
  int running_ = 0;
  std::optional<std::chrono::steady_clock::time_point> lastEnd_;
};

// Long enough for an answer to be handled and a queued login to be sent again, which take milliseconds.
constexpr std::chrono::seconds kQuietAfterAnswer{5};

std::string member(const ZRVJSON& info, const char* key) {
  auto found = info.is_object() ? info.find(key) : info.end();
  return found != info.end() && found->is_string() ? found->get<std::string>() : std::string();
}

}  // namespace

std::string SignInResult::text(const char* key) const { return member(info, key); }

SignInRequest signInRequestFromCommandLine(const Arguments& arguments, std::ostream* messages) {
  SignInRequest request;
  request.username = arguments.positional().at(0);
  request.remember = arguments.flag("--remember");
  request.forgetSaved = arguments.flag("--forget-saved");
  request.timeout = std::chrono::seconds(arguments.number("--timeout", 1, 86400).value_or(300));
  request.messages = messages;
  request.ask = [fromStandardInput = arguments.flag("--password-stdin")](const std::string& prompt, bool secret) {
    return fromStandardInput ? readLine(std::cin) : askTerminal(prompt, !secret);
  };
  return request;
}

SignInResult signIn(const SignInRequest& request) {
  SignInResult result;
  ZRVAuthenticator& authenticator = ZRVAuthenticator::defaultAuthenticator();

  // A saved login is offered by passing its cookie as the password.
  std::optional<std::string> password;
  if (!request.forgetSaved) password = authenticator.loadSavedPassword(request.username);
  result.withSavedLogin = password.has_value();
  if (result.withSavedLogin) {
    if (request.messages) *request.messages << request.indent << "Signing in with the saved login of " << request.username << ".\n";
  } else if (request.ask) {
    password = request.ask("Password for " + request.username + ": ", true);
  }
  if (!password) {
    result.passwordGiven = false;
    return result;
  }

  auto report = std::make_shared<Report>();
  auto transfers = std::make_shared<LoginTransfers>();
  ObserverScope observing(transfers);
  auto waitForReport = [&] {
    ZRVOperationQueue::mainQueue().runUntil(
        [&] { return report->arrived || transfers->quietFor(kQuietAfterAnswer); }, request.timeout);
    result.answerWithoutOutcome = !report->arrived && transfers->quietFor(kQuietAfterAnswer);
    return report->arrived;
  };
  authenticator.authenticateUsername(request.username, *password, request.remember,
                                     [report](int status, const ZRVJSON& info) {
                                       report->arrived = true;
                                       report->status = status;
                                       report->info = info;
                                     });
  password->assign(password->size(), '\0');

  bool answered = waitForReport();
  for (int codes = 0; answered && report->status == 3 && codes < 3; ++codes) {
    // The answer's token is kept just after the report; the code must go out with it.
    std::string token = member(report->info, "responseToken");
    ZRVOperationQueue::mainQueue().runUntil([&] { return authenticator.responseToken() == token; }, 2s);
    std::string banner = member(report->info, "banner");
    if (request.messages && !banner.empty()) *request.messages << request.indent << banner << "\n";
    auto code = request.ask ? request.ask("Two-factor code: ", false) : std::nullopt;
    if (!code) break;
    report->arrived = false;
    authenticator.authenticateTwoFactorAuthenticationWithAppCode(*code);
    answered = waitForReport();
  }
  authenticator.setStatusCallback(nullptr);
  // The cookie is saved on the work queue just after the report.
  ZRVOperationQueue::workQueue().waitUntilAllOperationsAreFinished();

  result.answered = answered;
  result.status = report->status;
  result.info = report->info;
  return result;
}

std::string describeFailure(const SignInResult& result, const std::string& username) {
  if (!result.passwordGiven) return "no password given (there is no terminal to ask; use --password-stdin)";
  if (!result.answered && result.answerWithoutOutcome)
    return "the login server answered without saying whether the login succeeded";
  if (!result.answered) return "the login server gave no answer in time";
  std::string banner = result.text("banner");
  switch (result.status) {
    case 1:
      return "the login server refused the login" + (banner.empty() ? std::string() : ": " + banner) +
             (result.withSavedLogin ? " (use --forget-saved to type the password of " + username + ")" : "");
    case 3:
      return "the two-factor step did not complete";
    default:
      return "the login server could not be reached or gave no usable answer";
  }
}

int exitCodeFor(const SignInResult& result) {
  if (!result.passwordGiven) return kExitUsage;
  if (!result.answered) return kExitUnreachable;
  switch (result.status) {
    case 0:
      return kExitSuccess;
    case 4:
      return kExitUnreachable;
    default:
      return kExitFailure;
  }
}
