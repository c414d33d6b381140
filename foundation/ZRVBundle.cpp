#include <ZRVKit/ZRVBundle.h>

#include <ZRVKit/ZRVBoundedJSON.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVLog.h>

#include <dlfcn.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

namespace zrv::resources {
extern const std::string_view LocalizableEnglish;
}

namespace {

// The file that holds this code: the shared library, or the program the static library is linked into.
std::optional<std::filesystem::path> fileHoldingTheLibrary() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&fileHoldingTheLibrary), &info) == 0 || !info.dli_fname) return std::nullopt;
  std::error_code error;
  auto path = std::filesystem::canonical(info.dli_fname, error);
  if (error) return std::nullopt;
  return path;
}

std::optional<std::filesystem::path> installedLibraryResources() {
  std::vector<std::filesystem::path> candidates;
#ifdef ZRV_RESOURCE_INSTALL_DIR
  candidates.emplace_back(ZRV_RESOURCE_INSTALL_DIR);
#endif
#if defined(ZRV_RESOURCES_FROM_LIBDIR) && defined(ZRV_RESOURCES_FROM_BINDIR)
  // An install moved to another prefix keeps its layout: look beside the file that holds this code.
  if (auto holder = fileHoldingTheLibrary()) {
    candidates.push_back(holder->parent_path() / ZRV_RESOURCES_FROM_LIBDIR);
    candidates.push_back(holder->parent_path() / ZRV_RESOURCES_FROM_BINDIR);
  }
#endif
  for (const auto& directory : candidates) {
    std::error_code error;
    if (std::filesystem::is_regular_file(directory / "Localizable.en.json", error)) return directory.lexically_normal();
  }
  return std::nullopt;
}

std::string languageFromEnvironment() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (!value || !*value) continue;
    std::string text(value);
    text = text.substr(0, text.find_first_of("_.@"));
    if (text.empty() || text == "C" || text == "POSIX") return "en";
    return text;
  }
  return "en";
}

}  // namespace

ZRVBundle::ZRVBundle(std::string identifier, std::optional<std::filesystem::path> resourceDirectory)
    : identifier_(std::move(identifier)), resourceDirectory_(std::move(resourceDirectory)) {}

ZRVBundle& ZRVBundle::mainBundle() {
  static ZRVBundle* bundle = new ZRVBundle(std::string(kDefaultMainBundleIdentifier), std::nullopt);
  return *bundle;
}

ZRVBundle& ZRVBundle::libraryBundle() {
  static ZRVBundle* bundle = [] {
    auto* made = new ZRVBundle(std::string(kLibraryBundleIdentifier), installedLibraryResources());
    made->setBuiltInTable("Localizable", "en", zrv::resources::LocalizableEnglish);
    return made;
  }();
  return *bundle;
}

std::string ZRVBundle::bundleIdentifier() const {
  std::lock_guard lock(mutex_);
  return identifier_;
}

void ZRVBundle::setBundleIdentifier(std::string identifier) {
  std::lock_guard lock(mutex_);
  identifier_ = std::move(identifier);
}

std::optional<std::filesystem::path> ZRVBundle::resourceDirectory() const {
  std::lock_guard lock(mutex_);
  return resourceDirectory_;
}

void ZRVBundle::setResourceDirectory(std::optional<std::filesystem::path> directory) {
  std::lock_guard lock(mutex_);
  resourceDirectory_ = std::move(directory);
  loaded_.clear();
}

std::optional<std::filesystem::path> ZRVBundle::URLForResource(std::string_view name,
                                                               std::string_view extension) const {
  auto directory = resourceDirectory();
  if (!directory) return std::nullopt;
  std::string file(name);
  if (!extension.empty()) {
    // Appended piecewise: GCC 12 at -O2 reports a false -Wrestrict for "." + std::string(extension).
    file += '.';
    file += extension;
  }
  std::filesystem::path candidate = *directory / file;
  std::error_code error;
  if (!std::filesystem::exists(candidate, error)) return std::nullopt;
  return candidate;
}

std::string ZRVBundle::language() const {
  std::lock_guard lock(mutex_);
  return language_ ? *language_ : languageFromEnvironment();
}

void ZRVBundle::setLanguage(std::optional<std::string> language) {
  std::lock_guard lock(mutex_);
  language_ = std::move(language);
}

void ZRVBundle::setBuiltInTable(std::string table, std::string language, std::string_view json) {
  std::lock_guard lock(mutex_);
  builtIn_[table + "." + language] = std::string(json);
  loaded_.clear();
}

const ZRVBundle::Table& ZRVBundle::tableForLocked(std::string_view table, std::string_view language) const {
  std::string key = std::string(table) + "." + std::string(language);
  if (auto found = loaded_.find(key); found != loaded_.end()) return *found->second;

  std::string text;
  if (resourceDirectory_) {
    std::ifstream file(*resourceDirectory_ / (key + ".json"), std::ios::binary);
    if (file) {
      std::ostringstream contents;
      contents << file.rdbuf();
      text = contents.str();
    }
  }
  if (text.empty()) {
    if (auto builtIn = builtIn_.find(key); builtIn != builtIn_.end()) text = builtIn->second;
  }

  auto parsed = std::make_shared<Table>();
  if (!text.empty()) {
    ZRVJSON document = ZRVBoundedJSON::read(text).document.value_or(nullptr);
    if (document.is_object()) {
      for (const auto& [name, value] : document.items()) {
        if (value.is_string()) parsed->emplace(name, value.get<std::string>());
      }
    }
  }
  loaded_[key] = parsed;
  return *parsed;
}

// One look under the lock: every status text of an update comes through here, from several threads at once.
std::string ZRVBundle::localizedString(std::string_view key, std::string_view value, std::string_view table) const {
  std::lock_guard lock(mutex_);
  const std::string preferred = language_ ? *language_ : languageFromEnvironment();
  for (const std::string_view language : {std::string_view(preferred), std::string_view("en")}) {
    const Table& strings = tableForLocked(table, language);
    if (auto found = strings.find(key); found != strings.end()) return found->second;
    if (language == "en") break;
  }
  return std::string(value);
}
