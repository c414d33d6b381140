#pragma once
// Three of the game's own options (antialiasing level, music, sound effects), read from and written into the
// game's settings file. Everything else in the file belongs to the game and is kept as it is, in its order.
//
// Every setter stores the value and saves at once. A save starts from the file as it is now and needs the game
// to have written the file with its "video" and "audio" sections: when one is missing (or there is no file),
// nothing is written and the save throws ZRVException named kInvalidArgumentException to the setter's caller;
// the value stays set in memory. The operations run on the caller's thread.

#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVKitExport.h>

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string_view>

class ZRVKIT_EXPORT ZRVOptionsManager {
 public:
  /// Name of the exception a save throws when the file lacks its "video" or "audio" section.
  static constexpr std::string_view kInvalidArgumentException = "InvalidArgumentException";
  /// The level `setAntialiasingEnabled(true)` picks when antialiasing was off.
  static constexpr std::int64_t kDefaultAntialiasingLevel = 4;

  /// The shared manager of ZRVGlobals' game settings file.
  static ZRVOptionsManager& sharedManager();

  /// A manager of ZRVGlobals' game settings file. Reads nothing; all three values start at 0/false.
  ZRVOptionsManager();
  /// A manager of another settings file. Reads nothing.
  explicit ZRVOptionsManager(std::filesystem::path settingsFileURL);
  ZRVOptionsManager(const ZRVOptionsManager&) = delete;
  ZRVOptionsManager& operator=(const ZRVOptionsManager&) = delete;

  std::filesystem::path settingsFileURL() const;
  void setSettingsFileURL(std::filesystem::path url);

  /// The antialiasing level; 0 is off.
  std::int64_t antialiasing() const;
  void setAntialiasing(std::int64_t level);
  /// True for levels above 0.
  bool isAntialiasingEnabled() const;
  /// true keeps a level of 1 or more and otherwise picks level 4; false sets level 0. Saves either way.
  void setAntialiasingEnabled(bool enabled);

  bool isMusicEnabled() const;
  void setEnableMusic(bool enabled);

  // The name is misspelt on purpose: launchers call it by this name.
  bool areSoundEffetcsEnabled() const;
  void setEnableSoundEffects(bool enabled);

  /// Reads the three values from the file. A missing or unreadable file changes nothing; a file that is not
  /// JSON sets all three to 0/false (and logs why). Does not save.
  void loadSettings();
  /// Writes the three values into the file, atomically, keeping all else. Throws as described above.
  void saveSettings();
  /// The file's whole content; an empty object when it cannot be read or parsed.
  ZRVJSON initialSettings() const;

 private:
  template <class Value>
  void storeThenSave(Value& member, Value value);

  mutable std::mutex mutex_;
  std::filesystem::path settingsFileURL_;
  std::int64_t privateAntialiasing_ = 0;
  bool privateEnableMusic_ = false;
  bool privateEnableSoundEffects_ = false;
};
