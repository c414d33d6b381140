#pragma once
// A bundle: an identifier, a resource folder and string tables.
// The main bundle stands for the launcher application (its identifier forms the library's error domains and
// its resources hold "Frameworks.zip"); the library bundle holds ZRVKit's own texts, English compiled in.

#include <ZRVKit/ZRVKitExport.h>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

class ZRVKIT_EXPORT ZRVBundle {
 public:
  static constexpr std::string_view kDefaultMainBundleIdentifier = "com.quillmoor.launcher";
  static constexpr std::string_view kLibraryBundleIdentifier = "com.quillmoor.ZRVKit";

  /// The launcher application's bundle. Its identifier and resource folder are set by the application.
  static ZRVBundle& mainBundle();
  /// ZRVKit's own resources: the "Localizable" texts and the game's content data.
  static ZRVBundle& libraryBundle();

  std::string bundleIdentifier() const;
  void setBundleIdentifier(std::string identifier);

  std::optional<std::filesystem::path> resourceDirectory() const;
  void setResourceDirectory(std::optional<std::filesystem::path> directory);

  /// The resource "<name>.<extension>" in the resource folder, when it exists there.
  std::optional<std::filesystem::path> URLForResource(std::string_view name, std::string_view extension) const;

  /// The text of `key` in the string table `table` for the user's language, else English, else `value`.
  std::string localizedString(std::string_view key, std::string_view value = "",
                              std::string_view table = "Localizable") const;

  /// The language whose tables are used ("en", "de", ...); from LC_ALL, LC_MESSAGES or LANG unless set.
  std::string language() const;
  void setLanguage(std::optional<std::string> language);

  /// Compiled-in tables, used when the resource folder has no file for a table.
  void setBuiltInTable(std::string table, std::string language, std::string_view json);

  ZRVBundle(std::string identifier, std::optional<std::filesystem::path> resourceDirectory);
  ZRVBundle(const ZRVBundle&) = delete;
  ZRVBundle& operator=(const ZRVBundle&) = delete;

 private:
  using Table = std::map<std::string, std::string, std::less<>>;
  /// The table, read on first use and kept; call with `mutex_` held.
  const Table& tableForLocked(std::string_view table, std::string_view language) const;

  mutable std::mutex mutex_;
  std::string identifier_;
  std::optional<std::filesystem::path> resourceDirectory_;
  std::optional<std::string> language_;
  std::map<std::string, std::string> builtIn_;  // "<table>.<language>" -> JSON text
  mutable std::map<std::string, std::shared_ptr<const Table>> loaded_;
};
