// zrv demo: the whole launcher flow against the embedded server, with nothing to set up. Everything happens
// in a temporary home (data folder, container, saved logins) that is removed at the end.

#include "Arguments.h"
#include "Verbs.h"
#include "demo/SampleGame.h"
#include "flows/GameLaunch.h"
#include "flows/GameUpdate.h"
#include "flows/ServerStatusCheck.h"
#include "flows/SignIn.h"
#include "publish/Publisher.h"
#include "serve/DemoServer.h"

#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVGlobals.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVInvasionManager.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVOptionsManager.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace fs = std::filesystem;

namespace {

// The demo's own home: the user's real data folder, keyring and caches are never touched.
class TemporaryHome {
 public:
  TemporaryHome() {
    std::string pattern = (fs::temp_directory_path() / "zrv-demo-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary folder");
    path_ = pattern;
    for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME"}) {
      fs::path folder = name == std::string("HOME") ? path_ : path_ / name;
      fs::create_directories(folder);
      setenv(name, folder.c_str(), 1);
    }
    setenv("ZRV_SECRET_STORE", "file", 1);  // a private file under the temporary home
  }
  ~TemporaryHome() {
    std::error_code ignored;
    if (!keep_) fs::remove_all(path_, ignored);
  }
  TemporaryHome(const TemporaryHome&) = delete;
  TemporaryHome& operator=(const TemporaryHome&) = delete;

  const fs::path& path() const { return path_; }
  void keep() { keep_ = true; }

 private:
  fs::path path_;
  bool keep_ = false;
};

void heading(int step, const char* title) { std::cout << "\n[" << step << "/6] " << title << std::endl; }

bool showServerStatus() {
  auto [online, error] = askServerStatus();
  std::cout << "  The servers are " << (online ? "online" : "offline")
            << (error ? " (assumed: " + error->localizedDescription() + ")" : std::string()) << ".\n";
  return online && !error;
}

std::vector<ZRVJSON> pollInvasions() {
  bool done = false;
  std::vector<ZRVJSON> records;
  ZRVInvasionManager::sharedManager().currentInvasions([&](bool, std::vector<ZRVJSON> invasions, std::optional<ZRVError>) {
    ZRVOperationQueue::mainQueue().addOperationWithBlock([&, invasions = std::move(invasions)] {
      records = invasions;
      done = true;
    });
  });
  ZRVOperationQueue::mainQueue().runUntil([&] { return done; }, std::chrono::seconds(30));
  return records;
}

// The feed's own spelling, with control characters (some types are joined by one) made visible.
std::string printable(const std::string& text) {
  std::string shown;
  for (char c : text) {
    if (static_cast<unsigned char>(c) < 0x20) {
      shown += '^';
      shown += static_cast<char>(c + '@');
    } else {
      shown += c;
    }
  }
  return shown;
}

void showOptions(ZRVOptionsManager& options) {
  options.loadSettings();
  std::cout << "  antialiasing " << options.antialiasing() << ", music " << (options.isMusicEnabled() ? "on" : "off")
            << ", sound effects " << (options.areSoundEffetcsEnabled() ? "on" : "off") << "\n";
}

bool runDemoUpdate(const GameUpdateRequest& update) {
  GameUpdateResult result = updateGame(update);
  if (!result.upToDate()) {
    std::cerr << "zrv demo: the update failed: " << result.message << "\n";
    for (const BadFile& file : result.badFiles) std::cerr << "  " << file.line() << "\n";
    for (const auto& detail : result.details) std::cerr << "  " << detail << "\n";
    return false;
  }
  std::cout << "  " << result.message << " (" << result.filesChecked << " files checked against the manifest)"
            << std::endl;
  return true;
}

}  // namespace

int runDemo(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--keep"}, {});
  arguments.expectPositional(0, 0);

  TemporaryHome home;
  if (arguments.flag("--keep")) home.keep();
  std::cout << "ZRVKit demo: the launcher's flow against an embedded server\n  temporary home: " << home.path().string()
            << "\n";

  // What a studio would have on its servers, and what the launcher ships with.
  fs::path builds = home.path() / "builds";
  demo::writeSampleBuilds(builds / "1", builds / "2");
  demo::writeFrameworkArchive(home.path() / "Cg.framework.zip");
  demo::writeLauncherFrameworks(home.path() / "launcher" / "Frameworks.zip");
  ZRVBundle::mainBundle().setResourceDirectory(home.path() / "launcher");

  DemoServerOptions serverOptions;
  serverOptions.contentDirectory = home.path() / "published";
  fs::create_directories(*serverOptions.contentDirectory);
  DemoServer server(serverOptions);
  server.start("127.0.0.1", 0);
  ZRVHosts::setRedirect(server.baseAddress());
  // Build 1 is on the server first; build 2, with patches from build 1, is published after it is installed.
  PublishOptions publish;
  publish.newBuild = builds / "1";
  publish.output = *serverOptions.contentDirectory;
  publish.mirrors = {server.baseAddress() + "/content/"};
  publish.frameworkArchive = home.path() / "Cg.framework.zip";
  PublishSummary first = publishBuild(publish);
  std::cout << "  embedded server:  " << server.baseAddress() << " (build 1 published: " << first.files
            << " files)\n";

  // The player's machine: an empty container, and the settings the game wrote on its first start.
  fs::path container = ZRVGlobals::defaultGlobals().containerURL();
  demo::writeGameSettings(ZRVGlobals::defaultGlobals().gameSettingsFileURL());
  std::cout << "  container:        " << container.string() << " (no game files yet)\n";

  heading(1, "Server status");
  bool online = showServerStatus();

  heading(2, "Signing in as \"demo\" (two-factor code, then the login queue)");
  SignInRequest login;
  login.username = "demo";
  login.timeout = std::chrono::seconds(60);
  login.messages = &std::cout;
  login.indent = "  ";
  login.ask = [](const std::string& prompt, bool secret) -> std::optional<std::string> {
    std::cout << "  " << prompt << (secret ? "********" : "123456") << "\n";
    return secret ? "quillmoor" : "123456";
  };
  auto signInStarted = std::chrono::steady_clock::now();
  SignInResult signedIn = signIn(login);
  auto signInSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - signInStarted).count();
  if (!signedIn.signedIn()) {
    std::cerr << "zrv demo: " << describeFailure(signedIn, login.username) << "\n";
    return kExitFailure;
  }
  std::printf("  Signed in after %.1f s; game server %s; play cookie received and saved.\n", signInSeconds,
              signedIn.text("gameserver").c_str());

  heading(3, "Installing build 1, then updating to build 2");
  GameUpdateRequest update;
  update.install = container;
  update.stallTimeout = std::chrono::seconds(60);
  update.statusLine = isatty(STDOUT_FILENO);
  std::cout << "  Fresh install of build 1 into the empty container:" << std::endl;
  if (!runDemoUpdate(update)) return kExitFailure;
  publish.newBuild = builds / "2";
  publish.olderBuilds = {builds / "1"};
  PublishSummary published = publishBuild(publish);
  std::cout << "  Build 2 published (" << published.files << " files, " << published.patches
            << " patches from build 1); updating:" << std::endl;
  if (!runDemoUpdate(update)) return kExitFailure;

  heading(4, "Invasions (polled twice, so that defeat rates can be measured)");
  pollInvasions();
  std::vector<ZRVJSON> invasions = pollInvasions();
  for (const ZRVJSON& invasion : invasions) {
    std::printf("  %-18s %-22s %-10s %-10s %5.2f defeats/s\n", printable(invasion.value("district", "")).c_str(),
                printable(invasion.value("type", "")).c_str(), invasion.value("suit", "").c_str(),
                invasion.value("progress", "").c_str(), invasion.value("defeat_rate", 0.0));
  }

  heading(5, "Game options");
  ZRVOptionsManager& options = ZRVOptionsManager::sharedManager();
  showOptions(options);
  options.setAntialiasingEnabled(true);
  options.setEnableMusic(false);
  std::cout << "  changed: antialiasing on, music off\n";
  showOptions(options);

  heading(6, "Starting the game");
  std::string cookie = signedIn.text("cookie");
  GameLaunchResult game = launchGame(cookie, signedIn.text("gameserver"), false, &std::cout, "  ");
  if (game.started) std::cout << "  The game exited with status " << game.status << ".\n";

  std::cout << "\nSummary\n"
            << "  servers online:   " << (online ? "yes" : "no") << "\n"
            << "  signed in:        demo, with a two-factor code and the login queue\n"
            << "  update:           build 1 -> build 2 (" << published.patches << " patches, whole files for the rest)\n"
            << "  invasions:        " << invasions.size() << " under way\n"
            << "  options:          antialiasing " << options.antialiasing() << ", music "
            << (options.isMusicEnabled() ? "on" : "off") << "\n"
            << "  game exit status: " << (game.started ? std::to_string(game.status) : "not started") << "\n";

  server.stop();
  ZRVHosts::setRedirect(std::nullopt);
  return online && game.started && game.status == 0 ? kExitSuccess : kExitFailure;
}
