// Asks a game server whether it is open and shows the game's options from a settings file.
//
//   app SERVER [SETTINGS_FILE]      e.g.  app http://127.0.0.1:8080 ~/.local/share/Quillmoor/settings.json
//
// Every request goes to SERVER: the real hosts are never contacted.

#include <ZRVKit/ZRVExtensions.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVOptionsManager.h>
#include <ZRVKit/ZRVServerStatus.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

namespace {

// Status callbacks run on a work-queue thread; the answer is printed on the main thread, as a launcher's
// user interface would show it.
bool printServerStatus() {
  auto answered = std::make_shared<bool>(false);
  ZRVServerStatus::currentStatus().getServerStatus([answered](bool online, std::optional<ZRVError> error) {
    ZRVOperationQueue::mainQueue().addOperationWithBlock([answered, online, error = std::move(error)] {
      if (error)
        std::cout << "server: " << (online ? "online" : "offline") << " (assumed: " << error->localizedDescription()
                  << ")\n";
      else
        std::cout << "server: " << (online ? "online" : "offline") << "\n";
      *answered = true;
    });
  });
  return ZRVOperationQueue::mainQueue().runUntil([answered] { return *answered; }, std::chrono::seconds(60));
}

bool printOptions(const std::filesystem::path& settingsFile) {
  if (!std::filesystem::is_regular_file(settingsFile)) {
    std::cerr << "no settings file at " << settingsFile << "\n";
    return false;
  }
  ZRVOptionsManager options(settingsFile);
  options.loadSettings();
  std::cout << "settings: " << settingsFile.string() << " (SHA-1 " << ZRVExtensions::sha1Hash(settingsFile) << ")\n"
            << "  antialiasing: " << options.antialiasing() << "\n"
            << "  music: " << (options.isMusicEnabled() ? "on" : "off") << "\n"
            << "  sound effects: " << (options.areSoundEffetcsEnabled() ? "on" : "off") << "\n";
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::cerr << "usage: " << argv[0] << " SERVER [SETTINGS_FILE]   (SERVER like http://127.0.0.1:8080)\n";
    return 2;
  }
  ZRVHosts::setRedirect(std::string(argv[1]));
  if (!ZRVHosts::URL(ZRVHost::webAPI, "/api/status")) {
    std::cerr << "not a server address: " << argv[1] << "\n";
    return 2;
  }

  if (!printServerStatus()) {
    std::cerr << "the server did not answer in time\n";
    return 1;
  }
  if (argc == 3 && !printOptions(argv[2])) return 1;
  return 0;
}
