#include <ZRVKit/ZRVFrameworkUnzipper.h>

#include <ZRVKit/SSZipArchive.h>
#include <ZRVKit/ZRVMainQueue.h>

#include <memory>

using namespace zrv::zip;

namespace fs = std::filesystem;

namespace {

void post(const ZRVFrameworkUnzipperDelegate::Notification& notification, const fs::path& archivePath) {
  if (!notification) return;
  ZRVOperationQueue::mainQueue().addOperationWithBlock([notification, archivePath] { notification(archivePath); });
}

}  // namespace

void ZRVFrameworkUnzipper::process(const fs::path& archivePath, ZRVFrameworkUnzipperDelegate delegate) {
  fs::path absolute = archivePath.is_absolute() ? archivePath : fs::absolute(archivePath);
  auto shared = std::make_shared<ZRVFrameworkUnzipperDelegate>(std::move(delegate));
  ZRVOperationQueue::workQueue().addOperationWithBlock([shared, absolute] {
    post(shared->onZKArchiveDidBeginUnzip, absolute);
    const fs::path folder = absolute.parent_path();
    const fs::path debris = folder / "__MACOSX";
    std::error_code error;
    const bool debrisExisted = fs::exists(fs::symlink_status(debris, error));
    bool unpacked = SSZipArchive::unzipFileAtPath(absolute, folder);
    if (!debrisExisted) fs::remove_all(debris, error);
    post(unpacked ? shared->onZKArchiveDidEndUnzip : shared->onZKArchiveDidFail, absolute);
  });
}
