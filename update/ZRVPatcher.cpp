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
#include <ZRVKit/ZRVBoundedJSON.h>
#include "foundation/LockedProperty.h"
#include "update/FileGate.h"
#include "update/InstallCleanup.h"
#include "update/InstallFolder.h"
#include "update/InstallPath.h"
#include "update/MirrorList.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>

namespace fs = std::filesystem;

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

ZRVError parseError(const std::string& what) {
  return ZRVError("ZRVJSONErrorDomain", 3840,
                  {{std::string(ZRVError::kLocalizedDescriptionKey), "The data is not valid JSON: " + what}});
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

std::optional<std::string> textMember(const ZRVJSON& entry, const char* key) {
  auto found = entry.find(key);
  if (found == entry.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

}  // namespace

ZRVPatcher& ZRVPatcher::defaultPatcher() {
  static auto* patcher = new ZRVPatcher();
  return *patcher;
}

ZRVPatcher::ZRVPatcher() {
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

ZRV_LOCKED_PROPERTY(ZRVPatcher, ZRVPatcher::UpdateHandler, updateHandler, setUpdateHandler, updateHandler_)
ZRV_LOCKED_PROPERTY(ZRVPatcher, ZRVPatcher::CompletionHandler, completionHandler, setCompletionHandler, completionHandler_)
ZRV_LOCKED_PROPERTY(ZRVPatcher, ZRVPatcher::FailureHandler, failureHandler, setFailureHandler, failureHandler_)
ZRV_LOCKED_PROPERTY(ZRVPatcher, ZRVPatcher::ZipCompletionHandler, zipCompletionHandler, setZipCompletionHandler, zipCompletionHandler_)
ZRV_LOCKED_PROPERTY(ZRVPatcher, fs::path, location, setLocation, location_)

ZRVJSON ZRVPatcher::manifest() const { return *sharedManifest(); }

void ZRVPatcher::setManifest(ZRVJSON manifest) {
  auto replacement = std::make_shared<const ZRVJSON>(std::move(manifest));
  std::lock_guard lock(mutex_);
  replacement.swap(manifest_);  // the old one goes when the last run that reads it lets go
}

std::shared_ptr<const ZRVJSON> ZRVPatcher::sharedManifest() const {
  std::lock_guard lock(mutex_);
  return manifest_;
}
ZRV_LOCKED_PROPERTY(ZRVPatcher, std::vector<ZRVURL>, mirrorURLs, setMirrorURLs, mirrorURLs_)
ZRV_LOCKED_PROPERTY(ZRVPatcher, std::optional<ZRVError>, error, setError, error_)

void ZRVPatcher::log(std::string_view message) {
  std::string prefix = ZRVFormat("[%@ %@]", dateText(), "ZRVKit");
  ZRVLog::format("%@", ZRVFormat("%@ %@", prefix, message));
}

// ---------------------------------------------------------------------------------------------------------
// The chain of steps

void ZRVPatcher::checkForGameUpdates(const std::optional<fs::path>& location, UpdateHandler update,
                                     CompletionHandler completion, FailureHandler failure) {
  if (!location || location->empty()) {
    std::optional<std::string> absent;
    std::string message =
        ZRVFormat("%@ is an invalid location. Make sure to specify a destination for the game files.", absent);
    if (failure) failure(ZRVError::library("InvalidLocation", 1, message));
    return;
  }
  setLocation(*location);
  setUpdateHandler(std::move(update));
  setCompletionHandler(std::move(completion));
  setFailureHandler(std::move(failure));
  setBaseProgress(kBaseProgress);
  // An earlier run that was killed may have left its temporary files; they go before this run makes its own.
  zrv::update::clearLeftovers(*location);

  std::error_code error;
  if (fs::exists(*location / "Frameworks" / "Cg.framework", error)) {
    _downloadMirrorsAndThenManifest();
  } else {
    _downloadRequiredFramework();
  }
}

void ZRVPatcher::_downloadRequiredFramework() {
  setBaseProgress(kBaseProgressWithFramework);
  std::string status = localized("DOWNLOADING_REQUIRED_FRAMEWORKS");
  if (auto handler = updateHandler()) handler(status, progress());

  // "Frameworks" is opened without following a link. The archive is fetched into a temporary folder inside it
  // and unpacked there; the framework is renamed into its place only when whole, so that "the framework
  // exists" always means "it is complete", even after a run killed half-way.
  fs::path frameworks = location() / "Frameworks";
  std::optional<ZRVError> folderError;
  auto folder = zrv::update::openInstallFolder(location(), "Frameworks", true, &folderError);
  std::string stagingName;
  if (folder && !zrv::update::createTemporaryFolderIn(folder->get(), "Cg.framework", stagingName, frameworks, &folderError)) {
    folder.reset();
  }
  if (!folder) {
    ZRV_LOG_METHOD_ERROR(kClassName, "checkForGameUpdates:update:completion:failure:", folderError->localizedDescription());
    // Nowhere safe to put the archive: the unpacking cannot succeed.
    if (auto handler = failureHandler()) handler(ZRVError::library("unzipper", 2, localized("FAILED_UNARCHIVING_REQUIRED_FRAMEWORKS")));
    log("Failed unarchiving the aditional frameworks.");
    return;
  }
  auto frameworksFolder = std::make_shared<zrv::update::Descriptor>(std::move(*folder));
  fs::path staging = frameworks / stagingName;

  fs::path framework = frameworks / "Cg.framework";
  auto reportProgress = [this, status](double value) {
    ZRVLog::format("%f", value);
    if (auto handler = updateHandler()) handler(status, value);
  };
  auto discardStaging = [frameworksFolder, stagingName] {
    // After the unzipper's own clean-up of the archive, which follows this notification on the main queue.
    ZRVOperationQueue::mainQueue().addOperationWithBlock(
        [frameworksFolder, stagingName] { zrv::update::removeTreeIn(frameworksFolder->get(), stagingName); });
  };
  downloadFile(endpoint("cg-framework"), staging / "Cg.framework", reportProgress,
               [this, staging, framework, frameworksFolder, stagingName, discardStaging, status](bool downloaded) {
    ZRVLog::write("Completion");
    if (!downloaded) {
      zrv::update::removeTreeIn(frameworksFolder->get(), stagingName);
      if (auto handler = failureHandler()) handler(ZRVError::library("downloader", 3, localized("FAILED_DOWNLOADING_REQUIRED_FRAMEWORKS")));
      log("Failed downloading the aditional frameworks.");
      return;
    }
    fs::path archive = staging / "Cg.framework.zip";
    unzipFile(archive, framework, [this, frameworksFolder, stagingName, discardStaging, status](bool unpacked) {
      if (unpacked) {
        std::string unpackedFramework = stagingName + "/Cg.framework";
        if (::renameat(frameworksFolder->get(), unpackedFramework.c_str(), frameworksFolder->get(), "Cg.framework") != 0) {
          // The archive held no framework, or another run put one in place first: nothing whole to move.
          ZRV_LOG_METHOD_ERROR(kClassName, "unzipFile:toLocation:completion:",
                               ZRVError::file(errno, location() / "Frameworks" / "Cg.framework").localizedDescription());
        }
      }
      discardStaging();
      if (!unpacked) {
        if (auto handler = failureHandler()) handler(ZRVError::library("unzipper", 2, localized("FAILED_UNARCHIVING_REQUIRED_FRAMEWORKS")));
        log("Failed unarchiving the aditional frameworks.");
        return;
      }
      if (auto handler = updateHandler()) handler(status, progress() + baseProgress());
      _downloadMirrorsAndThenManifest();
    });
  });
}

void ZRVPatcher::_downloadMirrorsAndThenManifest() {
  _downloadMirrorsCompleted([this](std::vector<ZRVURL> mirrors) {
    setMirrorURLs(std::move(mirrors));
    _downloadManifestAndThenPatchGameFiles();
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

void ZRVPatcher::_downloadManifestAndThenPatchGameFiles() {
  _downloadManifestCompleted([this](std::optional<ZRVJSON> manifest) {
    // A manifest that cannot be read means no files: the run ends in "Everything is up to date".
    setManifest(manifest && manifest->is_object() ? std::move(*manifest) : ZRVJSON::object());
    _patchGameFilesIfNecessary();
  });
}

void ZRVPatcher::_downloadManifestCompleted(std::function<void(std::optional<ZRVJSON>)> completion) {
  readJSON(endpoint(isDevelopment() ? "development-manifest" : "production-manifest"),
           [completion](bool, std::optional<ZRVJSON> manifest, auto, auto) { completion(std::move(manifest)); });
}

void ZRVPatcher::_patchGameFilesIfNecessary() {
  const std::shared_ptr<const ZRVJSON> manifestHeld = sharedManifest();
  const ZRVJSON& manifest = *manifestHeld;
  const fs::path installBase = location();
  std::vector<std::pair<std::shared_ptr<ZRVManagedFile>, const ZRVJSON*>> files;  // with its manifest entry
  for (const auto& [name, entry] : manifest.items()) {
    if (!entry.is_object() || !listsPlatform(entry, platform_)) continue;
    setProgress(progress() + baseProgress());  // counted while the list is built, before any file is worked on
    auto hash = textMember(entry, "hash");
    auto compHash = textMember(entry, "compHash");
    auto download = textMember(entry, "dl");
    if (!hash || !compHash || !download) continue;
    if (!zrv::update::namesAFile(name) || !zrv::update::resolvesInside(installBase, installBase / name)) {
      ZRVLog::format("Skipping %@: it would lie outside the install folder.", name);
      continue;
    }
    if (auto file = ZRVManagedFile::initWithFilename(name, installBase, *hash, *compHash, *download)) {
      files.emplace_back(std::move(file), &entry);
    }
  }

  setError(std::nullopt);
  setUpdateSuccessful(true);

  // Works on one admitted file; `ended` hears once that the file reported (true) or went silent (false).
  auto updateFile = [this](const std::shared_ptr<ZRVManagedFile>& file, const ZRVJSON& patches,
                           std::function<void(bool reported)> ended) {
    auto status = [this](const std::string& text) {
      if (auto handler = updateHandler()) handler(text, progress());
    };
    auto completion = [this, ended](bool, const std::string& text) {
      if (auto handler = updateHandler()) handler(text, progress());
      ended(true);
    };
    auto failure = [this, ended](const ZRVError& error) {
      _reportFileFailure(error);
      ended(true);
    };
    auto settled = [ended] { ended(false); };  // silent: the file's place is given back, its item never ends
    const std::vector<ZRVURL> mirrors = mirrorURLs();
    try {
      file->update(mirrors, patches, status, completion, failure, settled);
    } catch (const std::exception& exception) {
      // A patch that cannot be applied must not end the launcher: the file is downloaded whole instead.
      ZRVLog::format("-[%@ %@]+%d: exception %@.", kClassName, "_patchGameFilesIfNecessary", __LINE__,
                     exception.what());
      file->recoverFromFailedPatch(mirrors, status, completion, settled);
    }
  };
  // A file's item reaches the work queue only when the file gate admits the file: a file waiting for its turn
  // holds no thread and is no queued work, so the queue never sees thousands of items it could only start
  // threads for. The item ends when its file reports and holds no thread while a download is under way. A
  // file whose whole download failed everywhere never reports, so its item never ends and neither does the
  // run (the final item depends on every file's item); it does give its place to the next file.
  auto gate = std::make_shared<zrv::update::FileGate>(kFilesInFlight, kBytesInFlight);
  auto final = ZRVOperation::operationWithBlock([this] { _patchingComplete(); });
  std::vector<std::pair<std::shared_ptr<ZRVOperation>, std::uintmax_t>> items;
  for (const auto& fileAndEntry : files) {
    const std::shared_ptr<ZRVManagedFile>& file = fileAndEntry.first;
    const ZRVJSON* entry = fileAndEntry.second;
    if (!entry->contains("patches")) continue;  // never updated, never reported: its item would end at once
    const std::uintmax_t bytes = bytesHeldWhileUpdating(*file);
    // The item reads its entry's patches in the shared manifest, which it keeps alive; nothing is copied.
    const ZRVJSON* patches = &entry->at("patches");
    auto item = ZRVOperation::asynchronousOperationWithBlock(
        [updateFile, file, manifestHeld, patches, gate, bytes](std::function<void()> finish) {
          updateFile(file, *patches, [gate, finish, bytes, ended = std::make_shared<std::once_flag>()](bool reported) {
            std::call_once(*ended, [&] {
              gate->leave(bytes);
              if (reported) finish();
            });
          });
        });
    final->addDependency(item);
    items.emplace_back(std::move(item), bytes);
  }
  ZRVOperationQueue::workQueue().addOperation(final);  // holds no thread until every file's item has ended
  for (auto& [item, bytes] : items) {
    gate->enter(bytes, [item = std::move(item)] { ZRVOperationQueue::workQueue().addOperation(item); });
  }
}

void ZRVPatcher::_reportFileFailure(const ZRVError& error) {
  {
    std::lock_guard lock(mutex_);
    if (!error_) error_ = error;  // the first error wins
  }
  setUpdateSuccessful(false);
  ZRV_LOG_METHOD_ERROR(kClassName, "_patchGameFilesIfNecessary", error.localizedDescription());
}

void ZRVPatcher::_patchingComplete() {
  const fs::path installBase = location();
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
  zrv::update::clearLeftovers(installBase);

  if (updateSuccessful()) {
    if (auto handler = completionHandler()) handler("Everything is up to date");
  } else if (auto handler = failureHandler()) {
    auto first = this->error();
    handler(first ? *first : ZRVError::library("ManagedFile", 0, ""));
  }
}

// ---------------------------------------------------------------------------------------------------------
// Fetching

void ZRVPatcher::readJSON(const ZRVURL& url, ReadJSONCompletion completion) {
  ZRVHTTPRequest request = ZRVHTTPRequest::GET(url);
  request.maxBodySize = kMaxDocumentSize;
  ZRVHTTPClient::sharedClient().sendAsynchronousRequest(
      std::move(request), ZRVOperationQueue::workQueue(), [completion = std::move(completion)](ZRVHTTPResult result) {
        if (!completion) return;
        if (!result.body) {
          completion(false, std::nullopt, std::move(result.response), std::move(result.error));
          return;
        }
        // Like the platform's reader: the top level must be an object or an array.
        ZRVJSONReading reading = ZRVBoundedJSON::read(result.body->data(), result.body->size(), {kMaxDocumentSize});
        if (!reading.document) {
          completion(false, std::nullopt, std::move(result.response), parseError(reading.error));
          return;
        }
        if (!(reading.document->is_object() || reading.document->is_array())) {
          completion(false, std::nullopt, std::move(result.response), parseError("the document is not a JSON object or array"));
          return;
        }
        completion(true, std::move(reading.document), std::move(result.response), std::move(result.error));
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
