#pragma once
// Which game server the launcher talks to, and where the launcher keeps its per-user files (the container).

#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVKitExport.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <vector>

/// One file of the container's logs folder.
struct ZRVKIT_EXPORT ZRVLogFileRecord {
  std::chrono::system_clock::time_point created;
  std::filesystem::path url;
};

class ZRVKIT_EXPORT ZRVGlobals {
 public:
  using Completion = std::function<void(bool success, std::optional<ZRVError> error)>;

  static constexpr long kProductionServer = 0;
  static constexpr long kTestServer = 1;
  static constexpr long kDevelopmentServer = 2;

  /// The one shared instance, made on first use.
  static ZRVGlobals& defaultGlobals();

  /// 0 production (default), 1 test, 2 development; other values behave as production.
  long serverType() const { return serverType_.load(std::memory_order_relaxed); }
  void setServerType(long type) { serverType_.store(type, std::memory_order_relaxed); }
  bool isDeveloperLauncher() const { return serverType() == kDevelopmentServer; }
  bool isTestLauncher() const { return serverType() == kTestServer; }

  /// The per-user application-data folder ($XDG_DATA_HOME, else ~/.local/share).
  static std::optional<std::filesystem::path> applicationSupportDirectory();

  /// application data/"Quillmoor Development" for the development server, else application data/"Quillmoor".
  /// Created when missing. Throws "Application Corruption" when there is no application-data folder.
  std::filesystem::path containerURL() const;
  std::filesystem::path screenshotsDirectoryURL() const;
  std::filesystem::path logsDirectoryURL() const;
  std::filesystem::path gameSettingsFileURL() const;

  /// The regular files of the logs folder, newest first; empty when the folder cannot be listed.
  std::vector<ZRVLogFileRecord> logURLs() const;

  /// Copies `source` into the container under its own name unless something of that name is there.
  /// `completion` runs (synchronously) only when a copy was attempted.
  void checkCopyItemAtURLToContainer(const std::filesystem::path& source, const Completion& completion) const;

  /// Removes the item at `url` as given (not relative to the container); `completion` always runs, synchronously.
  void removeItemAtURLFromContainer(const std::filesystem::path& url, const Completion& completion) const;

 private:
  ZRVGlobals() = default;
  std::filesystem::path containerEntry(const char* name) const;

  std::atomic<long> serverType_{kProductionServer};
};
