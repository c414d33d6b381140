#include "update/UpdateRun.h"

#include <ZRVKit/ZRVOperationQueue.h>

#include "foundation/LockedProperty.h"

#include <utility>

namespace fs = std::filesystem;

namespace zrv::update {

UpdateRun::UpdateRun()
    : updateHandler_(std::make_shared<const ZRVPatcher::UpdateHandler>()),
      manifest_(std::make_shared<const ZRVJSON>(ZRVJSON::object())),
      mirrorURLs_(std::make_shared<const std::vector<ZRVURL>>()),
      gate_(FileGate::make(ZRVPatcher::kFilesInFlight, ZRVPatcher::kBytesInFlight)) {}

UpdateRun::UpdateRun(const UpdateRun& previous, fs::path location, Handlers handlers)
    : location_(std::move(location)),
      updateHandler_(std::make_shared<const ZRVPatcher::UpdateHandler>(std::move(handlers.update))),
      completionHandler_(std::move(handlers.completion)),
      failureHandler_(std::move(handlers.failure)),
      manifest_(previous.manifest()),
      mirrorURLs_(previous.sharedMirrorURLs()),
      error_(previous.error()),
      updateSuccessful_(previous.updateSuccessful()),
      baseProgress_(ZRVPatcher::kBaseProgress),
      progress_(previous.progress()),  // never reset: a second run starts from the first's value
      gate_(FileGate::make(ZRVPatcher::kFilesInFlight, ZRVPatcher::kBytesInFlight)) {}

ZRV_LOCKED_PROPERTY(UpdateRun, fs::path, location, setLocation, location_)
ZRV_LOCKED_PROPERTY(UpdateRun, std::shared_ptr<const ZRVPatcher::UpdateHandler>, sharedUpdateHandler,
                    setSharedUpdateHandler, updateHandler_)
ZRV_LOCKED_PROPERTY(UpdateRun, std::shared_ptr<const std::vector<ZRVURL>>, sharedMirrorURLs, setSharedMirrorURLs,
                    mirrorURLs_)
ZRV_LOCKED_PROPERTY(UpdateRun, ZRVPatcher::CompletionHandler, completionHandler, setCompletionHandler, completionHandler_)
ZRV_LOCKED_PROPERTY(UpdateRun, ZRVPatcher::FailureHandler, failureHandler, setFailureHandler, failureHandler_)
ZRV_LOCKED_PROPERTY(UpdateRun, std::shared_ptr<const ZRVJSON>, manifest, setManifest, manifest_)

ZRVPatcher::UpdateHandler UpdateRun::updateHandler() const { return *sharedUpdateHandler(); }
void UpdateRun::setUpdateHandler(ZRVPatcher::UpdateHandler handler) {
  setSharedUpdateHandler(std::make_shared<const ZRVPatcher::UpdateHandler>(std::move(handler)));
}
std::vector<ZRVURL> UpdateRun::mirrorURLs() const { return *sharedMirrorURLs(); }
void UpdateRun::setMirrorURLs(std::vector<ZRVURL> mirrors) {
  setSharedMirrorURLs(std::make_shared<const std::vector<ZRVURL>>(std::move(mirrors)));
}
ZRV_LOCKED_PROPERTY(UpdateRun, std::optional<ZRVError>, error, setError, error_)

void UpdateRun::clearOutcome() {
  setError(std::nullopt);
  setUpdateSuccessful(true);
}

void UpdateRun::recordFileFailure(const ZRVError& error) {
  {
    std::lock_guard lock(mutex_);
    if (!error_) error_ = error;
  }
  setUpdateSuccessful(false);
}

void UpdateRun::noteLeftoversCleared() {
  {
    std::lock_guard lock(mutex_);
    leftoversCleared_ = true;
  }
  leftoversClearedChanged_.notify_all();
}

void UpdateRun::waitUntilLeftoversCleared() const {
  std::unique_lock lock(mutex_);
  if (leftoversCleared_) return;
  ZRVOperationQueue::BlockingScope blocking;  // a thread of the work queue waits for the caller's thread
  leftoversClearedChanged_.wait(lock, [this] { return leftoversCleared_; });
}

void UpdateRun::reportStatus(const std::string& text) const {
  const auto handler = sharedUpdateHandler();
  if (*handler) (*handler)(text, progress());
}

void UpdateRun::reportOutcome() const {
  if (updateSuccessful()) {
    if (auto handler = completionHandler()) handler("Everything is up to date");
  } else if (auto handler = failureHandler()) {
    auto first = error();
    handler(first ? *first : ZRVError::library("ManagedFile", 0, ""));
  }
}

void UpdateRun::reportFailure(const ZRVError& error) const {
  if (auto handler = failureHandler()) handler(error);
}

}  // namespace zrv::update
