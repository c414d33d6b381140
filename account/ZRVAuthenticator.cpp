#include <ZRVKit/ZRVAuthenticator.h>

#include "account/FormEncoder.h"
#include "account/LoginAnswer.h"
#include "foundation/LockedProperty.h"

#include <ZRVKit/ZRVFormat.h>
#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVLog.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVOperationQueue.h>

using namespace zrv::account;

namespace {

// A login answer is a small JSON document; a larger one is not an answer.
constexpr std::size_t kMaxAnswerSize = 1 << 20;

constexpr const char* kRippedMessage = "Everyting, just ripped.";

std::optional<std::string> value(const ZRVAuthenticator::Credentials& credentials, const char* key) {
  auto found = credentials.find(key);
  return found == credentials.end() ? std::nullopt : found->second;
}

}  // namespace

ZRVAuthenticator& ZRVAuthenticator::defaultAuthenticator() {
  static auto* authenticator = new ZRVAuthenticator();
  return *authenticator;
}

void ZRVAuthenticator::authenticateUsername(const std::string& username, const std::string& password, bool rememberMe,
                                            StatusCallback status) {
  setStatusCallback(std::move(status));
  setUsername(username);
  setCookie(loadSavedPassword(username));

  Credentials credentials;
  if (auto saved = cookie(); saved && *saved == password) {
    // The caller offered the saved login: sign in with the cookie alone.
    credentials = {{"cookie", saved}};
  } else {
    setPassword(password);
    setPersistent(rememberMe ? "true" : "false");
    credentials = {{"username", username}, {"password", password}, {"persistent", persistent()}};
  }
  contactGameServerWithCredentials(credentials);
}

void ZRVAuthenticator::authenticateTwoFactorAuthenticationWithAppCode(const std::string& code) {
  contactGameServerWithCredentials({{"username", username()},
                                    {"password", password()},
                                    {"appCode", code},
                                    {"responseToken", responseToken()}});
}

void ZRVAuthenticator::contactGameServerWithCredentials(const Credentials& credentials) {
  auto username = encoded(value(credentials, "username"));
  auto password = encoded(value(credentials, "password"));
  auto persistent = encoded(value(credentials, "persistent"));
  auto queueToken = encoded(value(credentials, "queueToken"));
  auto appCode = encoded(value(credentials, "appCode"));
  auto responseToken = encoded(value(credentials, "responseToken"));
  auto cookie = encoded(value(credentials, "cookie"));

  // The server expects the literal (null) for a value the chosen form lacks.
  std::string body;
  if (cookie) {
    body = ZRVFormat("cookie=%@", cookie);
  } else if (queueToken) {
    body = ZRVFormat("username=%@&password=%@&queueToken=%@", username, password, queueToken);
  } else if (appCode && responseToken) {
    body = ZRVFormat("appToken=%@&authToken=%@", appCode, responseToken);
  } else {
    body = ZRVFormat("username=%@&password=%@&persistent=%@", username, password, persistent);
  }

  auto url = ZRVHosts::URL(ZRVHost::webAPI, "/api/login?format=json");
  if (!url) return;
  ZRVHTTPRequest request = ZRVHTTPRequest::formPOST(*url, body);
  // The credentials go to the login host and nowhere else.
  request.followRedirects = false;
  request.maxBodySize = kMaxAnswerSize;
  ZRVHTTPClient::sharedClient().sendAsynchronousRequest(
      std::move(request), ZRVOperationQueue::workQueue(),
      [this, username, password](ZRVHTTPResult result) { handleAnswer(result, username, password); });
}

void ZRVAuthenticator::handleAnswer(const ZRVHTTPResult& result, const std::optional<std::string>& sentUsername,
                                    const std::optional<std::string>& sentPassword) {
  if (!result.body || result.body->empty()) {
    postStatus(4, {{"error", kRippedMessage}});
    return;
  }
  zrv::account::LoginAnswer read = zrv::account::readLoginAnswer(*result.body);
  ZRVJSON& answer = read.document;

  // The kept values are already encoded and are encoded once more when the follow-up is built: the queue
  // expects them that way.
  Credentials followUp;
  if (read.queueToken) {
    followUp = {{"username", sentUsername}, {"password", sentPassword}, {"queueToken", read.queueToken}};
  } else if (!cookie()) {
    followUp = {{"username", sentUsername}, {"password", sentPassword}};
  }

  const auto& success = read.success;
  if (success == "true") {
    postStatus(0, std::move(answer));
    setCookie(read.cookie);
    saveLogin();
  } else if (success == "false") {
    postStatus(1, std::move(answer));
  } else if (success == "delayed") {
    // Waiting in the login queue: ask again at once, without telling the caller.
    contactGameServerWithCredentials(followUp);
  } else if (success == "partial") {
    postStatus(3, std::move(answer));
    if (read.responseToken) setResponseToken(read.responseToken);
  } else if (result.response && result.response->statusCode >= 401) {
    ZRVLog::write("RIP");
    postStatus(4, {{"error", kRippedMessage}});
  }
}

void ZRVAuthenticator::postStatus(int status, ZRVJSON info) {
  // The callback is read when the report runs, so a login started meanwhile receives it.
  ZRVOperationQueue::mainQueue().addOperationWithBlock([this, status, info = std::move(info)] {
    if (StatusCallback callback = statusCallback()) callback(status, info);
  });
}

ZRV_LOCKED_PROPERTY(ZRVAuthenticator, ZRVAuthenticator::StatusCallback, statusCallback, setStatusCallback, statusCallback_)
ZRV_LOCKED_PROPERTY(ZRVAuthenticator, std::optional<std::string>, username, setUsername, username_)
ZRV_LOCKED_PROPERTY(ZRVAuthenticator, std::optional<std::string>, password, setPassword, password_)
ZRV_LOCKED_PROPERTY(ZRVAuthenticator, std::optional<std::string>, persistent, setPersistent, persistent_)
ZRV_LOCKED_PROPERTY(ZRVAuthenticator, std::optional<std::string>, responseToken, setResponseToken, responseToken_)
ZRV_LOCKED_PROPERTY(ZRVAuthenticator, std::optional<std::string>, cookie, setCookie, cookie_)

