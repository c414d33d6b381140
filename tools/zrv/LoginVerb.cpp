// zrv login: signs in to the game's login service, the way a launcher does. With a saved login for the
// account it signs in with the saved cookie; otherwise it reads the password without echo from the
// terminal (or a line of standard input), and asks for a two-factor code when the server wants one.

#include "Arguments.h"
#include "Verbs.h"
#include "flows/SignIn.h"

#include <ZRVKit/ZRVAuthenticator.h>

#include <iostream>

int runLogin(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--remember", "--password-stdin", "--json", "--forget-saved"}, {"--timeout"});
  arguments.expectPositional(1, 1);
  const bool json = arguments.flag("--json");
  SignInRequest request = signInRequestFromCommandLine(arguments, json ? nullptr : &std::cerr);
  SignInResult result = signIn(request);

  if (json && result.answered) {
    std::cout << ZRVJSON{{"status", result.status}, {"response", result.info}}.dump() << "\n";
  } else if (result.signedIn()) {
    // Said to be saved only when the store gives the cookie back.
    std::string cookie = result.text("cookie");
    auto stored = ZRVAuthenticator::defaultAuthenticator().loadSavedPassword(request.username);
    std::cout << "Signed in as " << request.username << "; game server " << result.text("gameserver") << ". ";
    if (!cookie.empty() && stored == cookie) {
      std::cout << "The play cookie is saved (" << ZRVAuthenticator::secretStoreName() << ").\n";
    } else {
      std::cout << "The play cookie could not be saved (" << ZRVAuthenticator::secretStoreName()
                << " does not hold it); the next login needs the password.\n";
    }
  } else {
    std::cerr << "zrv login: " << describeFailure(result, request.username) << "\n";
  }
  return exitCodeFor(result);
}
