#pragma once
// Signing a player in the way a launcher does: the saved cookie when there is one, else the password; the
// two-factor code when the server asks for it; the login queue waited through.

#include <ZRVKit/ZRVJSON.h>

#include <chrono>
#include <functional>
#include <optional>
#include <ostream>
#include <string>

struct SignInRequest {
  std::string username;
  bool remember = false;
  /// Ignore a saved login and ask for the password.
  bool forgetSaved = false;
  std::chrono::seconds timeout{300};
  /// Asks for the password (`secret`) or a two-factor code; nothing when none is given.
  std::function<std::optional<std::string>(const std::string& prompt, bool secret)> ask;
  /// Where to say what is going on (saved login used, the server's banner); nothing to stay quiet.
  std::ostream* messages = nullptr;
  /// Put before every message line.
  std::string indent;
};

struct SignInResult {
  bool passwordGiven = true;
  bool answered = false;      ///< a status arrived within the time-out
  bool answerWithoutOutcome = false;  ///< no status because the server's answer named none
  int status = -1;            ///< the last status: 0 signed in, 1 refused, 3 code still needed, 4 no usable answer
  ZRVJSON info;               ///< the server's answer (it holds the play cookie: never print it)
  bool withSavedLogin = false;

  bool signedIn() const { return answered && status == 0; }
  std::string text(const char* key) const;
};

class Arguments;

/// The request of a verb that signs USER (its first word) in, from --remember, --forget-saved, --timeout and
/// --password-stdin (else the terminal is asked).
SignInRequest signInRequestFromCommandLine(const Arguments& arguments, std::ostream* messages);

/// Signs in and waits (pumping the main queue) until the outcome is known and the cookie is saved.
SignInResult signIn(const SignInRequest& request);

/// A sentence for people about a result that is not a success.
std::string describeFailure(const SignInResult& result, const std::string& username);

/// The zrv exit code of a result: 0 signed in, 3 unreachable, 2 no password, 1 otherwise.
int exitCodeFor(const SignInResult& result);
