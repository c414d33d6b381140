// The framework archive's unpacking, reported through the zip library's three notifications.

#include <ZRVKit/ZRVFrameworkUnzipper.h>
#include <ZRVKit/ZRVLog.h>
#include <ZRVKit/ZRVPatcher.h>

namespace fs = std::filesystem;

namespace {

// The archive is deleted without asking for an error record, so a failure is logged with an absent
// description, even for a file that is simply gone.
void deleteArchive(const fs::path& archive, const char* operation, int line) {
  std::error_code error;
  if (!fs::remove(archive, error)) {
    ZRVLog::methodError("ZRVPatcher", operation, line, "(null)");
  }
}

}  // namespace

void ZRVPatcher::unzipFile(const fs::path& archive, const fs::path& location, ZipCompletionHandler completion) {
  (void)location;  // the archive is unpacked into its own folder
  setZipCompletionHandler(std::move(completion));
  ZRVFrameworkUnzipperDelegate delegate;
  delegate.onZKArchiveDidBeginUnzip = [this](const fs::path& path) { onZKArchiveDidBeginUnzip(path); };
  delegate.onZKArchiveDidEndUnzip = [this](const fs::path& path) { onZKArchiveDidEndUnzip(path); };
  delegate.onZKArchiveDidFail = [this](const fs::path& path) { onZKArchiveDidFail(path); };
  ZRVFrameworkUnzipper::process(fs::absolute(archive), std::move(delegate));
}

void ZRVPatcher::onZKArchiveDidBeginUnzip(const fs::path&) { ZRVLog::write("Unzipping"); }

void ZRVPatcher::onZKArchiveDidEndUnzip(const fs::path& archive) {
  if (auto handler = zipCompletionHandler()) {
    setZipCompletionHandler(nullptr);
    handler(true);
  }
  deleteArchive(archive, "onZKArchiveDidEndUnzip:", __LINE__);
}

void ZRVPatcher::onZKArchiveDidFail(const fs::path& archive) {
  if (auto handler = zipCompletionHandler()) {
    setZipCompletionHandler(nullptr);
    handler(false);
  }
  deleteArchive(archive, "onZKArchiveDidFail:", __LINE__);
}
