// zrv options: shows or changes the game's antialiasing, music and sound-effect options.

#include "Arguments.h"
#include "Verbs.h"

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVOptionsManager.h>

#include <charconv>
#include <iostream>
#include <memory>

namespace {

constexpr long kMaxAntialiasingLevel = 64;

bool onOff(const std::string& option, const std::string& word) {
  if (word == "on") return true;
  if (word == "off") return false;
  throw UsageError(option + " takes on or off, not \"" + word + "\"");
}

long antialiasingLevel(const std::string& word) {
  long level = -1;
  auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), level);
  if (error != std::errc() || end != word.data() + word.size() || level < 0 || level > kMaxAntialiasingLevel) {
    throw UsageError("antialiasing takes a level from 0 (off) to " + std::to_string(kMaxAntialiasingLevel));
  }
  return level;
}

void show(const ZRVOptionsManager& options) {
  std::cout << "Settings file:  " << options.settingsFileURL().string() << "\n"
            << "antialiasing:   " << options.antialiasing() << (options.isAntialiasingEnabled() ? " (on)" : " (off)")
            << "\n"
            << "music:          " << (options.isMusicEnabled() ? "on" : "off") << "\n"
            << "sound effects:  " << (options.areSoundEffetcsEnabled() ? "on" : "off") << "\n";
}

}  // namespace

int runOptions(const std::vector<std::string>& words) {
  Arguments arguments(words, {}, {"--file"});
  const auto& positional = arguments.positional();
  if (!positional.empty() && positional[0] != "set") throw UsageError("unknown action " + positional[0]);
  if (!positional.empty() && positional.size() != 3) throw UsageError("set needs an option and a value");

  std::unique_ptr<ZRVOptionsManager> ownFile;
  if (auto file = arguments.value("--file")) ownFile = std::make_unique<ZRVOptionsManager>(*file);
  ZRVOptionsManager& options = ownFile ? *ownFile : ZRVOptionsManager::sharedManager();

  std::error_code error;
  if (!std::filesystem::is_regular_file(options.settingsFileURL(), error)) {
    std::cerr << "zrv options: there is no settings file at " << options.settingsFileURL().string()
              << "; the game writes it when it first runs.\n";
    return kExitFailure;
  }
  options.loadSettings();
  if (positional.empty()) {
    show(options);
    return kExitSuccess;
  }

  const std::string& option = positional[1];
  const std::string& value = positional[2];
  try {
    if (option == "antialiasing") {
      options.setAntialiasing(antialiasingLevel(value));
    } else if (option == "music") {
      options.setEnableMusic(onOff(option, value));
    } else if (option == "sfx") {
      options.setEnableSoundEffects(onOff(option, value));
    } else {
      throw UsageError("unknown option " + option + " (antialiasing, music or sfx)");
    }
  } catch (const ZRVException& failure) {
    if (failure.name() != ZRVOptionsManager::kInvalidArgumentException) throw;
    std::cerr << "zrv options: nothing was changed: " << failure.reason() << "\n";
    return kExitFailure;
  }
  options.loadSettings();
  show(options);
  return kExitSuccess;
}
