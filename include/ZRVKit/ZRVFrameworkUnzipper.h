#pragma once
// Unpacks a downloaded framework archive into the archive's own folder in the background and reports the
// begin, the end and a failure on the main queue, each with the archive's path. The update driver deletes
// the archive when it hears of the end or the failure.

#include <ZRVKit/ZRVKitExport.h>
#include <filesystem>
#include <functional>

struct ZRVKIT_EXPORT ZRVFrameworkUnzipperDelegate {
  using Notification = std::function<void(const std::filesystem::path& archivePath)>;
  Notification onZKArchiveDidBeginUnzip;
  Notification onZKArchiveDidEndUnzip;
  Notification onZKArchiveDidFail;
};

class ZRVKIT_EXPORT ZRVFrameworkUnzipper {
 public:
  /// Schedules the unpacking of `archivePath` on the work queue and returns at once. Every entry is
  /// overwritten; resource-fork debris ("__MACOSX") that the unpacking created is removed. Exactly one of
  /// the end and failure notifications follows the begin notification.
  static void process(const std::filesystem::path& archivePath, ZRVFrameworkUnzipperDelegate delegate);
};
