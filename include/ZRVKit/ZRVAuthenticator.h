#pragma once
// The client of the game's login API and the owner of the saved logins.
//
// One form-encoded POST per step goes to the web API's "/api/login?format=json"; answers are handled on the
// work queue, the login queue is followed without telling the caller, and every outcome is reported through
// `statusCallback` on the main queue:
//   0 signed in (info: the server's answer, with "cookie" and "gameserver"), 1 wrong credentials,
//   3 a two-factor code is needed (call authenticateTwoFactorAuthenticationWithAppCode),
//   4 no usable answer (info: {"error": "Everyting, just ripped."}).
// An unrecognised answer with an HTTP status below 401 is not reported at all.
//
// The saved logins keep, per account name, the play cookie of the last successful login, in the desktop
// Secret Service (or, where none answers on the session bus, a private file; see secretStoreName()).

#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVKitExport.h>

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct ZRVHTTPResult;

class ZRVKIT_EXPORT ZRVAuthenticator {
 public:
  using StatusCallback = std::function<void(int status, const ZRVJSON& info)>;
  /// The values of one request, by key: "username", "password", "persistent", "queueToken", "appCode",
  /// "responseToken", "cookie". A missing key and an absent value mean the same.
  using Credentials = std::map<std::string, std::optional<std::string>>;

  /// The one shared authenticator, made on first use.
  static ZRVAuthenticator& defaultAuthenticator();

  /// Starts a login and returns at once. A caller that offers a saved login passes the saved cookie as the
  /// password: a password equal to the saved cookie of `username` makes this a cookie login.
  void authenticateUsername(const std::string& username, const std::string& password, bool rememberMe,
                            StatusCallback status);
  /// Sends the two-factor code after a status 3; the outcome goes to the callback of the first step.
  void authenticateTwoFactorAuthenticationWithAppCode(const std::string& code);
  /// Builds and sends one login request.
  void contactGameServerWithCredentials(const Credentials& credentials);

  StatusCallback statusCallback() const;
  void setStatusCallback(StatusCallback callback);
  std::optional<std::string> username() const;
  void setUsername(std::optional<std::string> username);
  std::optional<std::string> password() const;
  void setPassword(std::optional<std::string> password);
  /// "true" or "false": the remember-me choice as sent to the server.
  std::optional<std::string> persistent() const;
  void setPersistent(std::optional<std::string> persistent);
  std::optional<std::string> responseToken() const;
  void setResponseToken(std::optional<std::string> responseToken);
  std::optional<std::string> cookie() const;
  void setCookie(std::optional<std::string> cookie);

  /// The account names of every saved login, in the store's order (by account name).
  std::vector<std::string> loadSavedLogins();
  /// The saved cookie of `account`; absent when there is none or it cannot be read.
  std::optional<std::string> loadSavedPassword(const std::string& account);
  void removeSavedLogin(const std::string& account);
  /// Saves `cookie` under `username`, replacing an earlier item. Does nothing when either is absent.
  void saveLogin();

  /// The store that holds the saved logins now: "secret-service" or "file".
  static std::string secretStoreName();

  ZRVAuthenticator(const ZRVAuthenticator&) = delete;
  ZRVAuthenticator& operator=(const ZRVAuthenticator&) = delete;

 private:
  ZRVAuthenticator() = default;
  void handleAnswer(const ZRVHTTPResult& result, const std::optional<std::string>& sentUsername,
                    const std::optional<std::string>& sentPassword);
  void postStatus(int status, ZRVJSON info);

  mutable std::mutex mutex_;
  StatusCallback statusCallback_;
  std::optional<std::string> username_;
  std::optional<std::string> password_;
  std::optional<std::string> persistent_;
  std::optional<std::string> responseToken_;
  std::optional<std::string> cookie_;
};
