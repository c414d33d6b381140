// zrv play: what a launcher does when the player presses Play — sign in, bring the game up to date, start
// it with the play cookie and the game server of the login, and wait for it to end.

#include "Arguments.h"
#include "Verbs.h"
#include "flows/GameLaunch.h"
#include "UpdateOptions.h"
#include "flows/SignIn.h"

#include <ZRVKit/ZRVGlobals.h>

#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace {

// The game is always started from the launcher's container, so another install folder is used by making
// its parent the data folder: the folder must carry the container's name.
void useInstallFolder(const std::filesystem::path& install) {
  std::filesystem::path folder = std::filesystem::absolute(install).lexically_normal();
  if (folder.filename().empty()) folder = folder.parent_path();
  std::string expected = ZRVGlobals::defaultGlobals().isDeveloperLauncher() ? "Quillmoor Development" : "Quillmoor";
  if (folder.filename() != expected) {
    throw UsageError("--install must name a folder called \"" + expected + "\" (the game starts from the container)");
  }
  setenv("XDG_DATA_HOME", folder.parent_path().c_str(), 1);
}

}  // namespace

int runPlay(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--remember", "--password-stdin", "--forget-saved", "--dev", "--json"},
                      {"--install", "--stall-timeout", "--timeout"});
  arguments.expectPositional(1, 1);
  if (arguments.flag("--dev")) ZRVGlobals::defaultGlobals().setServerType(ZRVGlobals::kDevelopmentServer);
  if (auto install = arguments.value("--install")) useInstallFolder(*install);
  SignInRequest login = signInRequestFromCommandLine(arguments, &std::cerr);
  SignInResult signedIn = signIn(login);
  if (!signedIn.signedIn()) {
    std::cerr << "zrv play: " << describeFailure(signedIn, login.username) << "\n";
    return exitCodeFor(signedIn);
  }
  std::cout << "Signed in as " << login.username << ".\n";

  GameUpdateRequest update;
  update.install = ZRVGlobals::defaultGlobals().containerURL();
  update.statusLine = isatty(STDOUT_FILENO);
  update.stallTimeout = stallTimeoutFrom(arguments);
  bool json = arguments.flag("--json");
  update.quiet = json;
  GameUpdateResult checked = updateGame(update);
  if (json) std::cout << checked.document().dump(2) << std::endl;
  // A game that failed the check against the manifest is never started.
  if (!checked.upToDate()) {
    if (!json) printUpdateFailure("play", checked);
    std::cerr << "zrv play: the game was not started\n";
    return checked.exitCode();
  }
  if (!json) std::cout << checked.message << std::endl;

  std::string cookie = signedIn.text("cookie");
  std::string gameserver = signedIn.text("gameserver");
  GameLaunchResult game = launchGame(cookie.empty() ? std::nullopt : std::optional(cookie),
                                     gameserver.empty() ? std::nullopt : std::optional(gameserver), login.remember,
                                     &std::cout);
  if (!game.started) {
    std::cerr << "zrv play: the game could not be started (--verbose tells why)\n";
    return kExitFailure;
  }
  std::cout << "The game exited with status " << game.status << ".\n";
  return game.status;
}
