#include <ZRVKit/ZRVOptionsManager.h>

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVFormat.h>
#include <ZRVKit/ZRVGlobals.h>
#include <ZRVKit/ZRVLog.h>

#include "foundation/AtomicFile.h"
#include <ZRVKit/ZRVBoundedJSON.h>
#include "foundation/LockedProperty.h"
#include "foundation/NumericValue.h"

#include <fstream>
#include <optional>
#include <sstream>

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kClassName = "ZRVOptionsManager";
// The game's settings are a few kilobytes; a larger file is not one we should load whole.
constexpr std::uintmax_t kMaxSettingsFileSize = 16u << 20;

std::optional<std::string> readWholeFile(const fs::path& file) {
  std::error_code error;
  auto size = fs::file_size(file, error);
  if (error || size > kMaxSettingsFileSize) return std::nullopt;
  std::ifstream stream(file, std::ios::binary);
  if (!stream) return std::nullopt;
  std::ostringstream contents;
  contents << stream.rdbuf();
  if (stream.bad()) return std::nullopt;
  return contents.str();
}

// Replaces `section` of `settings` by a copy changed by `change`; the game must have written the section.
template <class Change>
void changeSection(ZRVJSON& settings, const char* section, const fs::path& file, Change change) {
  auto found = settings.find(section);
  if (found == settings.end() || !found->is_object()) {
    throw ZRVException(std::string(ZRVOptionsManager::kInvalidArgumentException),
                       ZRVFormat("The settings file %@ has no \"%@\" section; start the game once to create it.",
                                 file, section));
  }
  ZRVJSON copy = *found;
  change(copy);
  *found = std::move(copy);
}

}  // namespace

ZRVOptionsManager& ZRVOptionsManager::sharedManager() {
  static auto* manager = new ZRVOptionsManager();
  return *manager;
}

ZRVOptionsManager::ZRVOptionsManager() : ZRVOptionsManager(ZRVGlobals::defaultGlobals().gameSettingsFileURL()) {}

ZRVOptionsManager::ZRVOptionsManager(fs::path settingsFileURL) : settingsFileURL_(std::move(settingsFileURL)) {}

// Every change is written at once: one rewrite of the file per setter.
template <class Value>
void ZRVOptionsManager::storeThenSave(Value& member, Value value) {
  {
    std::lock_guard lock(mutex_);
    member = value;
  }
  saveSettings();
}

ZRV_LOCKED_PROPERTY(ZRVOptionsManager, fs::path, settingsFileURL, setSettingsFileURL, settingsFileURL_)

std::int64_t ZRVOptionsManager::antialiasing() const {
  std::lock_guard lock(mutex_);
  return privateAntialiasing_;
}

void ZRVOptionsManager::setAntialiasing(std::int64_t level) { storeThenSave(privateAntialiasing_, level); }

bool ZRVOptionsManager::isAntialiasingEnabled() const { return antialiasing() > 0; }

void ZRVOptionsManager::setAntialiasingEnabled(bool enabled) {
  if (!enabled) {
    setAntialiasing(0);
    return;
  }
  std::int64_t level = antialiasing();
  setAntialiasing(level >= 1 ? level : kDefaultAntialiasingLevel);
}

bool ZRVOptionsManager::isMusicEnabled() const {
  std::lock_guard lock(mutex_);
  return privateEnableMusic_;
}

void ZRVOptionsManager::setEnableMusic(bool enabled) { storeThenSave(privateEnableMusic_, enabled); }

bool ZRVOptionsManager::areSoundEffetcsEnabled() const {
  std::lock_guard lock(mutex_);
  return privateEnableSoundEffects_;
}

void ZRVOptionsManager::setEnableSoundEffects(bool enabled) { storeThenSave(privateEnableSoundEffects_, enabled); }

ZRVJSON ZRVOptionsManager::initialSettings() const {
  fs::path file = settingsFileURL();
  auto contents = readWholeFile(file);
  if (!contents) return ZRVJSON::object();
  ZRVJSONReading reading = ZRVBoundedJSON::read(*contents);
  if (reading.document && reading.document->is_object()) return std::move(*reading.document);
  std::string why = reading.document ? "the settings are not a JSON object" : reading.error;
  ZRVLog::format("-[%@ %@]+%d: error %@ reading %@.", kClassName, "initialSettings", __LINE__, why, file);
  return ZRVJSON::object();
}

void ZRVOptionsManager::loadSettings() {
  fs::path file = settingsFileURL();
  auto contents = readWholeFile(file);
  if (!contents) return;
  ZRVJSONReading reading = ZRVBoundedJSON::read(*contents);
  if (!reading.document) {
    // A damaged file reads as all options off.
    ZRVLog::format("-[%@ %@]+%d: error %@ parsing %@.", kClassName, "loadSettings", __LINE__, reading.error, file);
  }
  const ZRVJSON settings = reading.document.value_or(ZRVJSON());
  auto member = [&](const char* section, const char* name) -> ZRVJSON {
    if (!settings.is_object()) return nullptr;
    auto found = settings.find(section);
    if (found == settings.end() || !found->is_object()) return nullptr;
    auto value = found->find(name);
    return value == found->end() ? ZRVJSON() : *value;
  };
  std::int64_t antialiasing = zrv::integerValue(member("video", "antialiasing"));
  bool music = zrv::boolValue(member("audio", "music"));
  bool soundEffects = zrv::boolValue(member("audio", "sfx"));
  std::lock_guard lock(mutex_);
  privateAntialiasing_ = antialiasing;
  privateEnableMusic_ = music;
  privateEnableSoundEffects_ = soundEffects;
}

void ZRVOptionsManager::saveSettings() {
  fs::path file;
  std::int64_t antialiasing;
  bool music, soundEffects;
  {
    std::lock_guard lock(mutex_);
    file = settingsFileURL_;
    antialiasing = privateAntialiasing_;
    music = privateEnableMusic_;
    soundEffects = privateEnableSoundEffects_;
  }
  // Read again at every save: the game may have changed its other settings meanwhile.
  ZRVJSON settings = initialSettings();
  changeSection(settings, "video", file, [&](ZRVJSON& video) { video["antialiasing"] = antialiasing; });
  changeSection(settings, "audio", file, [&](ZRVJSON& audio) {
    audio["music"] = music;
    audio["sfx"] = soundEffects;
  });

  std::string bytes;
  try {
    bytes = settings.dump(2) + "\n";
  } catch (const ZRVJSON::exception& error) {
    ZRVLog::format("-[%@ %@]+%d: error %@ creating %@.", kClassName, "saveSettings", __LINE__, error.what(), file);
    return;
  }
  // The "error ... writing" line marks a successful write; a failed write goes unreported. Tools that watch
  // the log for this line depend on it.
  if (zrv::writeFileAtomically(file, bytes.data(), bytes.size())) {
    ZRVLog::format("-[%@ %@]+%d: error %@ writing %@.", kClassName, "saveSettings", __LINE__, "", file);
  }
}
