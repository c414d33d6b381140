#include <ZRVKit/ZRVPatcher.h>

#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVFormat.h>
#include <ZRVKit/ZRVGlobals.h>
#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVLog.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVManagedFile.h>
#include <ZRVKit/ZRVOperationQueue.h>

#include "foundation/AtomicFile.h"
#include "foundation/JSONDocumentFetch.h"
#include "foundation/LockedProperty.h"
#include "update/FileItem.h"
#include "update/InstallCleanup.h"
#include "update/InstallFolder.h"
#include "update/InstallPath.h"
#include "update/MirrorList.h"
#include "update/UpdateRun.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>

namespace fs = std::filesystem;

namespace zrv::update {

// Where the framework archive is fetched and unpacked: a temporary folder inside "Frameworks", which is
// opened without following a link. The framework is renamed into its place only when whole, so that "the
// framework exists" always means "it is complete", even after a run killed half-way.
struct FrameworkStaging {
  std::shared_ptr<Descriptor> frameworks;
  std::string name;
  fs::path path;

  static std::shared_ptr<FrameworkStaging> make(const fs::path& location, std::optional<ZRVError>* error) {
    auto folder = openInstallFolder(location, "Frameworks", true, error);
    std::string name;
    fs::path frameworks = location / "Frameworks";
    if (!folder || !createTemporaryFolderIn(folder->get(), "Cg.framework", name, frameworks, error)) return nullptr;
    return std::make_shared<FrameworkStaging>(
        FrameworkStaging{std::make_shared<Descriptor>(std::move(*folder)), name, frameworks / name});
  }

  void moveFrameworkIntoPlace(const fs::path& location) const {
    std::string unpacked = name + "/Cg.framework";
    if (::renameat(frameworks->get(), unpacked.c_str(), frameworks->get(), "Cg.framework") != 0) {
      // The archive held no framework, or another run put one in place first: nothing whole to move.
      ZRV_LOG_METHOD_ERROR("ZRVPatcher", "unzipFile:toLocation:completion:",
                           ZRVError::file(errno, location / "Frameworks" / "Cg.framework").localizedDescription());
    }
  }

  void remove() const { removeTreeIn(frameworks->get(), name); }
};

}  // namespace zrv::update

using zrv::update::FileCallbacks;
using zrv::update::FileItemFeed;
using zrv::update::FileWork;
using zrv::update::FrameworkStaging;
using zrv::update::UpdateRun;
using zrv::update::makeFileItem;

namespace {

constexpr const char* kClassName = "ZRVPatcher";

std::string localized(const char* key) { return ZRVBundle::libraryBundle().localizedString(key); }

struct Endpoint {
  const char* key;
  ZRVHost host;
  const char* path;  // nullptr: the empty URL
};

// The server layout, letter for letter ("aditional" and ".text" included).
constexpr Endpoint kEndpoints[] = {
    {"cg-framework", ZRVHost::content, "/launcher/mac/aditional-libraries/Cg.framework.zip"},
    {"production-manifest", ZRVHost::content, "/content/patchmanifest.txt"},
    {"production-mirrors", ZRVHost::webAPIMirrors, "/api/mirrors"},
    {"production-backup-mirrors", ZRVHost::content, "/mirrors.txt"},
    {"production-safe-mirror", ZRVHost::content, "/content/"},
    {"development-manifest", ZRVHost::content, "/content/patchmanifest.txt"},
    {"development-mirrors", ZRVHost::developmentMirrors, "/1136/dev-mirrors.text"},
    {"development-backup-mirrors", ZRVHost::content, nullptr},
    {"development-safe-mirror", ZRVHost::content, nullptr},
};

bool isDevelopment() { return ZRVGlobals::defaultGlobals().isDeveloperLauncher(); }

// The date's default text form, as the launcher's log lines have always shown it.
std::string dateText() {
  std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  char buffer[64];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &parts);
  return buffer;
}

bool listsPlatform(const ZRVJSON& entry, const std::string& platform) {
  auto only = entry.find("only");
  if (only == entry.end() || !only->is_array()) return false;
  for (const auto& word : *only) {
    if (word.is_string() && word.get_ref<const std::string&>() == platform) return true;
  }
  return false;
}

// What the file gate counts for a file while it is worked on. Neither a patch nor a whole download holds the
// file in memory, so a fresh download (nothing installed yet) counts the same as a patch of a large file: a
// small file's update holds less, but its decoders' tables come close to that already.
std::uintmax_t bytesHeldWhileUpdating(const ZRVManagedFile& file) {
  (void)file;
  return ZRVManagedFile::kBytesHeldWhileUpdating;
}

// The member's text where it lies in the document, or nothing when it is missing or no text.
const std::string* textMember(const ZRVJSON& entry, const char* key) {
  auto found = entry.find(key);
  if (found == entry.end() || !found->is_string()) return nullptr;
  return &found->get_ref<const std::string&>();
}

// A game file of this platform that the manifest describes fully, with its manifest entry.
struct ListedFile {
  std::shared_ptr<ZRVManagedFile> file;
  const ZRVJSON* entry;
};

// Every file of the platform counts one step of progress before any file is worked on, even one that cannot
// be updated; so every later status report carries the final value.
void countPlatformFiles(UpdateRun& run, const ZRVJSON& manifest, const std::string& platform) {
  for (const auto& [name, entry] : manifest.items()) {
    if (entry.is_object() && listsPlatform(entry, platform)) run.countStep();
  }
}

// The platform's game files in the manifest's order, one at a time: each is made only when asked for.
class GameFileList {
 public:
  GameFileList(const UpdateRun& run, std::shared_ptr<const ZRVJSON> manifest, std::string platform)
      : manifest_(std::move(manifest)),
        platform_(std::move(platform)),
        installBase_(run.location()),
        boundary_(installBase_),
        at_(manifest_->begin()) {}

  std::optional<ListedFile> next() {
    while (at_ != manifest_->end()) {
      const std::string& name = at_.key();
      const ZRVJSON& entry = *at_++;
      if (!entry.is_object() || !listsPlatform(entry, platform_)) continue;
      auto hash = textMember(entry, "hash");
      auto compHash = textMember(entry, "compHash");
      auto download = textMember(entry, "dl");
      if (!hash || !compHash || !download) continue;
      if (!zrv::update::namesAFile(name) || !boundary_.resolvesInside(name)) {
        ZRVLog::format("Skipping %@: it would lie outside the install folder.", name);
        continue;
      }
      if (auto file = ZRVManagedFile::initWithFilename(name, installBase_, *hash, *compHash, *download)) {
        return ListedFile{std::move(file), &entry};
      }
    }
    return std::nullopt;
  }

 private:
  const std::shared_ptr<const ZRVJSON> manifest_;  // the entries handed out point into it
  const std::string platform_;
  const fs::path installBase_;
  zrv::update::InstallBoundary boundary_;
  ZRVJSON::const_iterator at_;
};

// Updates one managed file from the run's mirrors. The patches live in the shared manifest, which the work
// keeps alive; nothing is copied.
FileWork managedFileWork(const std::shared_ptr<UpdateRun>& run, std::shared_ptr<ZRVManagedFile> file,
                         std::shared_ptr<const ZRVJSON> manifest, const ZRVJSON* patches) {
  return [run, file = std::move(file), manifest = std::move(manifest), patches](const FileCallbacks& callbacks) {
    const auto shared = run->sharedMirrorURLs();
    const std::vector<ZRVURL>& mirrors = *shared;
    try {
      file->update(mirrors, *patches, callbacks.status, callbacks.completion, callbacks.failure, callbacks.settledSilently);
    } catch (const std::exception& exception) {
      // A patch that cannot be applied must not end the launcher: the file is downloaded whole instead.
      ZRVLog::format("-[%@ %@]+%d: exception %@.", kClassName, "_patchGameFilesIfNecessary", __LINE__, exception.what());
      file->recoverFromFailedPatch(mirrors, callbacks.status, callbacks.completion, callbacks.settledSilently);
    }
  };
}

}  // namespace

ZRVPatcher& ZRVPatcher::defaultPatcher() {
  static auto* patcher = new ZRVPatcher();
  return *patcher;
}

ZRVPatcher::ZRVPatcher() : run_(std::make_shared<UpdateRun>()) {
  baseUrls();  // every fixed endpoint must form a URL; a build where one does not is broken
}

std::map<std::string, ZRVURL> ZRVPatcher::baseUrls() const {
  // Formed on each use, so that a redirect set after start-up (a developer's server) applies.
  std::map<std::string, ZRVURL> table;
  for (const Endpoint& endpoint : kEndpoints) {
    if (!endpoint.path) {
      table[endpoint.key] = ZRVURL();
      continue;
    }
    std::string text = ZRVHosts::baseAddress(endpoint.host) + endpoint.path;
    auto url = ZRVHosts::URL(endpoint.host, endpoint.path);
    if (!url) {
      throw ZRVException(std::string(ZRVException::kInternalInconsistency), ZRVFormat("Cannot create URL from %@.", text));
    }
    table[endpoint.key] = *url;
  }
  return table;
}

ZRVURL ZRVPatcher::endpoint(const std::string& key) const { return baseUrls().at(key); }

// ---------------------------------------------------------------------------------------------------------
// The properties: views of the current run

std::shared_ptr<UpdateRun> ZRVPatcher::currentRun() const {
  std::lock_guard lock(mutex_);
  return run_;
}

ZRVPatcher::UpdateHandler ZRVPatcher::updateHandler() const { return currentRun()->updateHandler(); }
void ZRVPatcher::setUpdateHandler(UpdateHandler handler) { currentRun()->setUpdateHandler(std::move(handler)); }
ZRVPatcher::CompletionHandler ZRVPatcher::completionHandler() const { return currentRun()->completionHandler(); }
void ZRVPatcher::setCompletionHandler(CompletionHandler handler) { currentRun()->setCompletionHandler(std::move(handler)); }
ZRVPatcher::FailureHandler ZRVPatcher::failureHandler() const { return currentRun()->failureHandler(); }
void ZRVPatcher::setFailureHandler(FailureHandler handler) { currentRun()->setFailureHandler(std::move(handler)); }
fs::path ZRVPatcher::location() const { return currentRun()->location(); }
void ZRVPatcher::setLocation(fs::path location) { currentRun()->setLocation(std::move(location)); }
ZRVJSON ZRVPatcher::manifest() const { return *currentRun()->manifest(); }
void ZRVPatcher::setManifest(ZRVJSON manifest) {
  // The old one goes when the last file item that reads it lets go.
  currentRun()->setManifest(std::make_shared<const ZRVJSON>(std::move(manifest)));
}
std::shared_ptr<const ZRVJSON> ZRVPatcher::sharedManifest() const { return currentRun()->manifest(); }
std::vector<ZRVURL> ZRVPatcher::mirrorURLs() const { return currentRun()->mirrorURLs(); }
void ZRVPatcher::setMirrorURLs(std::vector<ZRVURL> mirrors) { currentRun()->setMirrorURLs(std::move(mirrors)); }
std::optional<ZRVError> ZRVPatcher::error() const { return currentRun()->error(); }
void ZRVPatcher::setError(std::optional<ZRVError> error) { currentRun()->setError(std::move(error)); }
bool ZRVPatcher::updateSuccessful() const { return currentRun()->updateSuccessful(); }
void ZRVPatcher::setUpdateSuccessful(bool successful) { currentRun()->setUpdateSuccessful(successful); }
double ZRVPatcher::baseProgress() const { return currentRun()->baseProgress(); }
void ZRVPatcher::setBaseProgress(double value) { currentRun()->setBaseProgress(value); }
double ZRVPatcher::progress() const { return currentRun()->progress(); }
void ZRVPatcher::setProgress(double value) { currentRun()->setProgress(value); }

ZRV_LOCKED_PROPERTY(ZRVPatcher, ZRVPatcher::ZipCompletionHandler, zipCompletionHandler, setZipCompletionHandler, zipCompletionHandler_)

void ZRVPatcher::log(std::string_view message) {
  std::string prefix = ZRVFormat("[%@ %@]", dateText(), "ZRVKit");
  ZRVLog::format("%@", ZRVFormat("%@ %@", prefix, message));
}

// ---------------------------------------------------------------------------------------------------------
// The chain of steps: framework → mirror list → manifest → files → completion

void ZRVPatcher::checkForGameUpdates(const std::optional<fs::path>& location, UpdateHandler update,
                                     CompletionHandler completion, FailureHandler failure) {
  if (!location || location->empty()) {
    std::optional<std::string> absent;
    std::string message =
        ZRVFormat("%@ is an invalid location. Make sure to specify a destination for the game files.", absent);
    if (failure) failure(ZRVError::library("InvalidLocation", 1, message));
    return;
  }
  auto run = std::make_shared<UpdateRun>(*currentRun(), *location,
                                         UpdateRun::Handlers{std::move(update), std::move(completion), std::move(failure)});
  Run previous = run;
  {
    std::lock_guard lock(mutex_);
    previous.swap(run_);
  }
  previous.reset();  // outside the lock: the last run's handlers may hold what calls back into the patcher
  // An earlier run that was killed may have left its temporary files; they go before this run makes its own.
  // Fetching the mirror list and the manifest writes nothing, so it starts first and the clearing goes on
  // meanwhile; the framework's download writes into the install, so it waits.
  std::error_code error;
  const bool frameworkInstalled = fs::exists(*location / "Frameworks" / "Cg.framework", error);
  if (frameworkInstalled) _downloadMirrorsAndThenManifest(run);
  zrv::update::clearLeftovers(*location);
  run->noteLeftoversCleared();
  if (!frameworkInstalled) _downloadRequiredFramework(run);
}

void ZRVPatcher::_downloadRequiredFramework(const Run& run) {
  run->noteChangingInstall();
  run->setBaseProgress(kBaseProgressWithFramework);
  const std::string status = localized("DOWNLOADING_REQUIRED_FRAMEWORKS");
  run->reportStatus(status);

  std::optional<ZRVError> folderError;
  auto staging = FrameworkStaging::make(run->location(), &folderError);
  if (!staging) {
    ZRV_LOG_METHOD_ERROR(kClassName, "checkForGameUpdates:update:completion:failure:", folderError->localizedDescription());
    // Nowhere safe to put the archive: the unpacking cannot succeed.
    run->reportFailure(ZRVError::library("unzipper", 2, localized("FAILED_UNARCHIVING_REQUIRED_FRAMEWORKS")));
    log("Failed unarchiving the aditional frameworks.");
    return;
  }
  auto reportProgress = [run, status](double value) {
    ZRVLog::format("%f", value);
    if (auto handler = run->updateHandler()) handler(status, value);
  };
  downloadFile(endpoint("cg-framework"), staging->path / "Cg.framework", reportProgress, [this, run, staging](bool downloaded) {
    ZRVLog::write("Completion");
    if (!downloaded) {
      staging->remove();
      run->reportFailure(ZRVError::library("downloader", 3, localized("FAILED_DOWNLOADING_REQUIRED_FRAMEWORKS")));
      log("Failed downloading the aditional frameworks.");
      return;
    }
    _unpackRequiredFramework(run, staging);
  });
}

void ZRVPatcher::_unpackRequiredFramework(const Run& run, const std::shared_ptr<FrameworkStaging>& staging) {
  fs::path framework = run->location() / "Frameworks" / "Cg.framework";
  unzipFile(staging->path / "Cg.framework.zip", framework, [this, run, staging](bool unpacked) {
    if (unpacked) staging->moveFrameworkIntoPlace(run->location());
    // After the unzipper's own clean-up of the archive, which follows this notification on the main queue.
    ZRVOperationQueue::mainQueue().addOperationWithBlock([staging] { staging->remove(); });
    if (!unpacked) {
      run->reportFailure(ZRVError::library("unzipper", 2, localized("FAILED_UNARCHIVING_REQUIRED_FRAMEWORKS")));
      log("Failed unarchiving the aditional frameworks.");
      return;
    }
    if (auto handler = run->updateHandler()) {
      handler(localized("DOWNLOADING_REQUIRED_FRAMEWORKS"), run->progress() + run->baseProgress());
    }
    _downloadMirrorsAndThenManifest(run);
  });
}

void ZRVPatcher::_downloadMirrorsAndThenManifest(const Run& run) {
  _downloadMirrorsCompleted([this, run](std::vector<ZRVURL> mirrors) {
    run->setMirrorURLs(std::move(mirrors));
    _downloadManifestAndThenPatchGameFiles(run);
  });
}

void ZRVPatcher::_downloadMirrorsCompleted(std::function<void(std::vector<ZRVURL>)> completion) {
  // Primary list, else the backup list, else the safe mirror alone; failures on the way say nothing. Any
  // answer that parses counts as the list, even one that is no array and so names no mirror at all.
  ZRVURL primary = endpoint(isDevelopment() ? "development-mirrors" : "production-mirrors");
  ZRVURL backup = endpoint("production-backup-mirrors");
  ZRVURL safe = endpoint("production-safe-mirror");
  readJSON(primary, [backup, safe, completion](bool success, std::optional<ZRVJSON> list, auto, auto) {
    if (success && list) {
      completion(zrv::update::mirrorURLsFromList(*list));
      return;
    }
    readJSON(backup, [safe, completion](bool backupSuccess, std::optional<ZRVJSON> backupList, auto, auto) {
      if (backupSuccess && backupList) {
        completion(zrv::update::mirrorURLsFromList(*backupList));
        return;
      }
      std::vector<ZRVURL> onlySafe;
      if (!safe.empty()) onlySafe.push_back(safe);
      completion(std::move(onlySafe));
    });
  });
}

void ZRVPatcher::_downloadManifestAndThenPatchGameFiles(const Run& run) {
  _downloadManifestCompleted([this, run](std::optional<ZRVJSON> manifest) {
    // A manifest that cannot be read means no files: the run ends in "Everything is up to date".
    run->setManifest(std::make_shared<const ZRVJSON>(manifest && manifest->is_object() ? std::move(*manifest)
                                                                                       : ZRVJSON::object()));
    _patchGameFilesIfNecessary(run);
  });
}

void ZRVPatcher::_downloadManifestCompleted(std::function<void(std::optional<ZRVJSON>)> completion) {
  readJSON(endpoint(isDevelopment() ? "development-manifest" : "production-manifest"),
           [completion](bool, std::optional<ZRVJSON> manifest, auto, auto) { completion(std::move(manifest)); });
}

// A file's item reaches the work queue only when the run's file gate admits the file: a file waiting for its
// turn holds no thread and is no queued work, so the queue never sees thousands of items it could only start
// threads for. The item ends when its file reports and holds no thread while a download is under way. A file
// whose whole download failed everywhere never reports, so its item never ends and neither does the run (the
// final item depends on every file's item); it does give its place to the next file.
void ZRVPatcher::_patchGameFilesIfNecessary(const Run& run) {
  run->waitUntilLeftoversCleared();
  const std::shared_ptr<const ZRVJSON> manifest = run->manifest();
  countPlatformFiles(*run, *manifest, platform_);
  run->clearOutcome();

  // Files are listed as the run's gate has room for them, so the list costs no memory per file and is made
  // beside the work on the first files.
  auto list = std::make_shared<GameFileList>(*run, manifest, platform_);
  auto next = [run, list, manifest]() -> std::optional<zrv::update::FileItem> {
    try {
      while (auto listed = list->next()) {
        auto patches = listed->entry->find("patches");
        if (patches == listed->entry->end()) continue;  // never updated, never reported: its item would end at once
        const std::uintmax_t bytes = bytesHeldWhileUpdating(*listed->file);
        return makeFileItem(run, bytes, managedFileWork(run, std::move(listed->file), manifest, &*patches));
      }
    } catch (const std::exception& exception) {
      // Out of memory while listing: the files not listed yet are left as they are, and the run says it
      // failed rather than that everything is up to date.
      run->recordFileFailure(ZRVError::library(kClassName, 1, exception.what()));
      ZRV_LOG_METHOD_ERROR(kClassName, "_patchGameFilesIfNecessary", exception.what());
    }
    return std::nullopt;
  };
  FileItemFeed::start(run->gate(), std::move(next),
                      ZRVOperation::operationWithBlock([this, run] { _patchingComplete(*run); }));
}

void ZRVPatcher::_patchingComplete(const UpdateRun& run) {
  const fs::path installBase = run.location();
  // The game executable must be runnable after every run, whatever the files went through.
  fs::path executable = installBase / "Quillmoor";
  struct stat info {};
  if (::lstat(executable.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
    ::chmod(executable.c_str(), (info.st_mode & 07777) | S_IXUSR);
  }

  fs::path temporary = installBase / ".tmp";
  std::error_code error;
  fs::remove_all(temporary, error);  // a link there is removed itself, never followed
  if (error) {
    ZRVError failure = ZRVError::file(error, temporary);
    if (!failure.hasUnderlyingPOSIX(ENOENT)) ZRV_LOG_METHOD_ERROR(kClassName, "_patchingComplete", failure.localizedDescription());
  }
  // The patch step's temporary folders beside files in sub-folders go too: nothing of the run stays behind.
  // A run that only checked digests made none, and its start cleared what earlier runs had left, so its
  // install is not walked a second time.
  if (run.changesInstall()) zrv::update::clearLeftovers(installBase);

  run.reportOutcome();
}

// ---------------------------------------------------------------------------------------------------------
// Fetching

void ZRVPatcher::readJSON(const ZRVURL& url, ReadJSONCompletion completion) {
  // Like the platform's reader: the top level must be an object or an array.
  static constexpr zrv::JSONDocumentSpec kDocument{kMaxDocumentSize, zrv::JSONTopLevel::objectOrArray,
                                                   "the document is not a JSON object or array"};
  zrv::fetchJSONDocument(
      ZRVHTTPRequest::GET(url), kDocument, ZRVOperationQueue::workQueue(), [completion = std::move(completion)](zrv::JSONAnswer answer) {
        if (!completion) return;
        ZRVHTTPResult& result = answer.result;
        if (!result.body) {
          completion(false, std::nullopt, std::move(result.response), std::move(result.error));
          return;
        }
        if (!answer.document) {
          completion(false, std::nullopt, std::move(result.response), std::move(answer.parseFailure));
          return;
        }
        completion(true, std::move(answer.document), std::move(result.response), std::move(result.error));
      });
}

void ZRVPatcher::downloadFile(const ZRVURL& url, const fs::path& location, std::function<void(double)> progress,
                              std::function<void(bool)> completion) {
  (void)progress;  // the download reports no progress of its own
  ZRVHTTPRequest request = ZRVHTTPRequest::GET(url);
  request.maxBodySize = ZRVManagedFile::kMaxDownloadSize;
  ZRVHTTPClient::sharedClient().sendAsynchronousRequest(
      std::move(request), ZRVOperationQueue::workQueue(),
      [location, completion = std::move(completion)](ZRVHTTPResult result) {
        if (!result.body) {
          if (completion) completion(false);
          return;
        }
        fs::path target = location;
        target += ".zip";
        zrv::writeFileAtomically(target, result.body->data(), result.body->size());  // the unzip step finds out if this failed
        if (completion) completion(true);
      });
}

void ZRVPatcher::getGameHashFromManifest(std::function<void(std::map<std::string, std::string>)> completion) {
  readJSON(endpoint(isDevelopment() ? "development-manifest" : "production-manifest"),
           [platform = platform_, completion = std::move(completion)](bool, std::optional<ZRVJSON> manifest, auto, auto) {
             std::map<std::string, std::string> hashes;
             if (manifest && manifest->is_object()) {
               for (const auto& [name, entry] : manifest->items()) {
                 if (!entry.is_object() || !listsPlatform(entry, platform)) continue;
                 if (auto hash = textMember(entry, "hash")) hashes[name] = *hash;
               }
             }
             if (completion) completion(std::move(hashes));
           });
}
