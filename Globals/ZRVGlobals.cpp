#include <ZRVKit/ZRVGlobals.h>

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVFormat.h>
#include <ZRVKit/ZRVLog.h>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace fs = std::filesystem;

namespace {

void logUnhandled(const ZRVError& error, int line) {
  ZRVLog::format("Unhandled error %@ at %@:%d", error.localizedDescription(), __FILE__, line);
}

// The file's birth time where the file system records one, else its last change.
std::optional<std::chrono::system_clock::time_point> creationDate(const fs::path& file, int& errorNumber) {
  struct statx info {};
  if (statx(AT_FDCWD, file.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &info) != 0) {
    errorNumber = errno;
    return std::nullopt;
  }
  const statx_timestamp& stamp = (info.stx_mask & STATX_BTIME) ? info.stx_btime : info.stx_mtime;
  return std::chrono::system_clock::time_point(std::chrono::duration_cast<std::chrono::system_clock::duration>(
      std::chrono::seconds(stamp.tv_sec) + std::chrono::nanoseconds(stamp.tv_nsec)));
}

}  // namespace

ZRVGlobals& ZRVGlobals::defaultGlobals() {
  static auto* globals = new ZRVGlobals();
  return *globals;
}

std::optional<fs::path> ZRVGlobals::applicationSupportDirectory() {
  fs::path directory;
  if (const char* data = std::getenv("XDG_DATA_HOME"); data && data[0] == '/') {
    directory = data;
  } else {
    const char* home = std::getenv("HOME");
    if (!home || !*home) {
      const passwd* entry = getpwuid(getuid());
      home = entry ? entry->pw_dir : nullptr;
    }
    if (!home || !*home) return std::nullopt;
    directory = fs::path(home) / ".local" / "share";
  }
  std::error_code error;
  fs::create_directories(directory, error);
  if (error && !fs::is_directory(directory)) return std::nullopt;
  return directory;
}

fs::path ZRVGlobals::containerURL() const {
  auto support = applicationSupportDirectory();
  if (!support) {
    throw ZRVException(std::string(ZRVException::kApplicationCorruption),
                       "The application has been corrupted and resources are missing.");
  }
  fs::path container = *support / (isDeveloperLauncher() ? "Quillmoor Development" : "Quillmoor");
  std::error_code error;
  fs::create_directories(container, error);
  if (error) logUnhandled(ZRVError::file(error, container), __LINE__);
  return container;
}

fs::path ZRVGlobals::containerEntry(const char* name) const {
  fs::path entry = containerURL() / name;
  if (entry.empty()) {
    throw ZRVException(std::string(ZRVException::kInternalInconsistency), ZRVFormat("Cannot create URL for %@.", name));
  }
  return entry;
}

fs::path ZRVGlobals::screenshotsDirectoryURL() const { return containerEntry("screenshots"); }
fs::path ZRVGlobals::logsDirectoryURL() const { return containerEntry("logs"); }
fs::path ZRVGlobals::gameSettingsFileURL() const { return containerEntry("settings.json"); }

std::vector<ZRVLogFileRecord> ZRVGlobals::logURLs() const {
  std::vector<ZRVLogFileRecord> records;
  std::error_code error;
  fs::directory_iterator listing(logsDirectoryURL(), error);
  if (error) return records;
  for (const fs::directory_entry& entry : listing) {
    const fs::path& file = entry.path();
    if (file.filename().string().starts_with(".")) continue;  // hidden files are not logs
    std::error_code typeError;
    bool regular = entry.is_regular_file(typeError);
    if (typeError) {
      logUnhandled(ZRVError::file(typeError, file), __LINE__);
      continue;
    }
    if (!regular) continue;
    int errorNumber = 0;
    auto created = creationDate(file, errorNumber);
    if (!created) {
      logUnhandled(ZRVError::file(errorNumber, file), __LINE__);
      continue;
    }
    records.push_back({*created, file});
  }
  std::sort(records.begin(), records.end(),
            [](const ZRVLogFileRecord& a, const ZRVLogFileRecord& b) { return a.created > b.created; });
  return records;
}

void ZRVGlobals::checkCopyItemAtURLToContainer(const fs::path& source, const Completion& completion) const {
  fs::path name = source.filename();
  if (name.empty()) name = source.parent_path().filename();  // "folder/" names its folder
  if (name.empty()) return;
  fs::path destination = containerURL() / name;
  std::error_code error;
  if (fs::exists(fs::symlink_status(destination, error))) return;
  fs::copy(source, destination, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
  if (!completion) return;
  if (error) {
    completion(false, ZRVError::file(error, source));
  } else {
    completion(true, std::nullopt);
  }
}

void ZRVGlobals::removeItemAtURLFromContainer(const fs::path& url, const Completion& completion) const {
  std::error_code error;
  bool existed = fs::exists(fs::symlink_status(url, error));
  if (!existed) {
    if (completion) completion(false, ZRVError::file(ENOENT, url));
    return;
  }
  fs::remove_all(url, error);
  if (!completion) return;
  if (error) {
    completion(false, ZRVError::file(error, url));
  } else {
    completion(true, std::nullopt);
  }
}
