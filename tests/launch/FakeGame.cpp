// Stands in for the game: writes what it was given (environment, working folder, open descriptors) as JSON
// to the file named by ZRV_FAKE_GAME_REPORT, then exits with ZRV_FAKE_GAME_EXIT or dies of
// ZRV_FAKE_GAME_SIGNAL.

#include <nlohmann/json.hpp>

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <string>

extern char** environ;

int main() {
  nlohmann::json report;
  // Listed before the report file is opened, so that only inherited descriptors show.
  nlohmann::json descriptors = nlohmann::json::array();
  if (DIR* listing = opendir("/proc/self/fd")) {
    while (dirent* entry = readdir(listing)) {
      if (entry->d_name[0] == '.') continue;
      int descriptor = std::atoi(entry->d_name);
      if (descriptor != dirfd(listing)) descriptors.push_back(descriptor);
    }
    closedir(listing);
  }
  report["descriptors"] = descriptors;
  char directory[PATH_MAX] = {};
  report["directory"] = getcwd(directory, sizeof directory) ? directory : "";
  report["environment"] = nlohmann::json::object();
  for (char** entry = environ; *entry; ++entry) {
    std::string text = *entry;
    auto equals = text.find('=');
    report["environment"][text.substr(0, equals)] = equals == std::string::npos ? "" : text.substr(equals + 1);
  }
  if (const char* file = std::getenv("ZRV_FAKE_GAME_REPORT")) std::ofstream(file) << report.dump();
  if (const char* signal = std::getenv("ZRV_FAKE_GAME_SIGNAL")) raise(std::atoi(signal));
  const char* status = std::getenv("ZRV_FAKE_GAME_EXIT");
  return status ? std::atoi(status) : 0;
}
