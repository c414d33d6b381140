#pragma once
// Everything one update run reads and writes: where the game lives, whom to tell, the mirrors and the
// manifest as the run fetched them, its progress, its first error and its file gate. The patcher makes one
// per run and passes it down its steps; its own properties only show the current run.
//
// A run starts from what the previous one left (progress, mirrors, manifest, error): the patcher's properties
// read the same between runs and until the new run replaces each.

#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVPatcher.h>
#include <ZRVKit/ZRVURL.h>

#include "update/FileGate.h"

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zrv::update {

class UpdateRun {
 public:
  struct Handlers {
    ZRVPatcher::UpdateHandler update;
    ZRVPatcher::CompletionHandler completion;
    ZRVPatcher::FailureHandler failure;
  };

  /// The state before any run: no location, no handlers, an empty manifest, no progress.
  UpdateRun();
  /// A run in `location` that carries on from `previous`.
  UpdateRun(const UpdateRun& previous, std::filesystem::path location, Handlers handlers);
  UpdateRun(const UpdateRun&) = delete;
  UpdateRun& operator=(const UpdateRun&) = delete;

  std::filesystem::path location() const;
  void setLocation(std::filesystem::path location);
  ZRVPatcher::UpdateHandler updateHandler() const;
  void setUpdateHandler(ZRVPatcher::UpdateHandler handler);
  ZRVPatcher::CompletionHandler completionHandler() const;
  void setCompletionHandler(ZRVPatcher::CompletionHandler handler);
  ZRVPatcher::FailureHandler failureHandler() const;
  void setFailureHandler(ZRVPatcher::FailureHandler handler);
  std::shared_ptr<const ZRVJSON> manifest() const;
  void setManifest(std::shared_ptr<const ZRVJSON> manifest);
  std::vector<ZRVURL> mirrorURLs() const;
  void setMirrorURLs(std::vector<ZRVURL> mirrors);
  /// The same list without a copy, for the file items that each read it.
  std::shared_ptr<const std::vector<ZRVURL>> sharedMirrorURLs() const;

  std::optional<ZRVError> error() const;
  void setError(std::optional<ZRVError> error);
  bool updateSuccessful() const { return updateSuccessful_.load(); }
  void setUpdateSuccessful(bool successful) { updateSuccessful_.store(successful); }
  /// Before the files are worked on: no error yet, successful so far.
  void clearOutcome();
  /// A file failed: the first error wins, and the run is no longer successful.
  void recordFileFailure(const ZRVError& error);

  double baseProgress() const { return baseProgress_.load(); }
  void setBaseProgress(double value) { baseProgress_.store(value); }
  double progress() const { return progress_.load(); }
  void setProgress(double value) { progress_.store(value); }
  /// One more step counted: progress grows by the base share.
  void countStep() { setProgress(progress() + baseProgress()); }

  /// `text` with the running progress to the update handler, if there is one.
  void reportStatus(const std::string& text) const;
  /// The end of the run: "Everything is up to date" or the first error, to whichever handler applies.
  void reportOutcome() const;
  /// A failure that ends the run before its files (the framework step).
  void reportFailure(const ZRVError& error) const;

  /// Something of the run went beyond checking digests: a file is patched or downloaded, or the framework
  /// fetched. Only such a run can have made temporary folders that its end has to clear.
  void noteChangingInstall() { changesInstall_.store(true); }
  bool changesInstall() const { return changesInstall_.load(); }

  /// What earlier runs left in the install is cleared while the mirror list and the manifest are fetched; the
  /// files are looked at only after. The run's start notes the end of the clearing, its files wait for it.
  void noteLeftoversCleared();
  void waitUntilLeftoversCleared() const;

  /// Bounds the files worked on at once; made for the run, shared by its file items.
  FileGate& gate() const { return *gate_; }

 private:
  std::shared_ptr<const ZRVPatcher::UpdateHandler> sharedUpdateHandler() const;
  void setSharedUpdateHandler(std::shared_ptr<const ZRVPatcher::UpdateHandler> handler);
  void setSharedMirrorURLs(std::shared_ptr<const std::vector<ZRVURL>> mirrors);

  mutable std::mutex mutex_;
  mutable std::condition_variable leftoversClearedChanged_;
  bool leftoversCleared_ = false;
  std::filesystem::path location_;
  // Shared, so that reporting a status or handing a file the mirrors copies a pointer, not a function or a list.
  std::shared_ptr<const ZRVPatcher::UpdateHandler> updateHandler_;
  ZRVPatcher::CompletionHandler completionHandler_;
  ZRVPatcher::FailureHandler failureHandler_;
  std::shared_ptr<const ZRVJSON> manifest_;
  std::shared_ptr<const std::vector<ZRVURL>> mirrorURLs_;
  std::optional<ZRVError> error_;
  std::atomic<bool> updateSuccessful_{true};
  std::atomic<double> baseProgress_{0};
  std::atomic<double> progress_{0};
  std::atomic<bool> changesInstall_{false};
  const std::shared_ptr<FileGate> gate_;
};

}  // namespace zrv::update
