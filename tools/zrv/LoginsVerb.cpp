// zrv logins: the saved logins, and which secret store holds them.

#include "Arguments.h"
#include "Verbs.h"

#include <ZRVKit/ZRVAuthenticator.h>

#include <iostream>

int runLogins(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--json"}, {});
  ZRVAuthenticator& authenticator = ZRVAuthenticator::defaultAuthenticator();
  const auto& positional = arguments.positional();
  if (!positional.empty()) {
    if (positional[0] != "remove") throw UsageError("unknown action \"" + positional[0] + "\"");
    arguments.expectPositional(2, 2);
    const std::string& account = positional[1];
    bool saved = authenticator.loadSavedPassword(account).has_value();
    authenticator.removeSavedLogin(account);
    if (!saved) {
      std::cerr << "There is no saved login for " << account << ".\n";
      return kExitFailure;
    }
    std::cout << "Removed the saved login of " << account << ".\n";
    return kExitSuccess;
  }

  std::string store = ZRVAuthenticator::secretStoreName();
  std::vector<std::string> accounts = authenticator.loadSavedLogins();
  if (arguments.flag("--json")) {
    std::cout << ZRVJSON{{"store", store}, {"accounts", accounts}}.dump() << "\n";
    return kExitSuccess;
  }
  std::string where = store == "file" ? "a private file in the user's data folder" : "the Secret Service";
  if (accounts.empty()) {
    std::cout << "No saved logins (kept in " << where << ").\n";
  } else {
    std::cout << "Saved logins (kept in " << where << "):\n";
    for (const std::string& account : accounts) std::cout << "  " << account << "\n";
  }
  return kExitSuccess;
}
