#include <ZRVKit/ZRVManagedFile.h>

#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVExtensions.h>
#include <ZRVKit/ZRVFormat.h>
#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVLog.h>
#include <ZRVKit/ZRVOperationQueue.h>
#include <ZRVKit/bsdiff.h>

#include "foundation/LockedProperty.h"
#include "update/bzip2/BZip2Decompression.h"
#include "update/InstallFolder.h"
#include "update/InstallPath.h"
#include "update/bsdiff/PatchApplication.h"

#include <fcntl.h>
#include <unistd.h>

#include <deque>

namespace fs = std::filesystem;
using zrv::update::readWholeFile;

namespace {

constexpr const char* kClassName = "ZRVManagedFile";

std::optional<std::string> stringMember(const ZRVJSON& record, const char* key) {
  if (!record.is_object()) return std::nullopt;
  auto found = record.find(key);
  if (found == record.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

// Removes the temporary patch file from its folder; "no such file" is not worth a line.
void removeTemporaryPatch(int folder, const std::string& name, const fs::path& file, int lineWithUnderlying,
                          int lineWithout) {
  if (::unlinkat(folder, name.c_str(), 0) == 0) return;
  ZRVError failure = ZRVError::file(errno, file);
  if (failure.hasUnderlyingPOSIX(ENOENT)) return;
  ZRVLog::methodError(kClassName, "applyPatch:mirrors:error:", failure.underlyingError() ? lineWithUnderlying : lineWithout,
                      failure.localizedDescription());
}

ZRVError noDataError() {
  return ZRVError(std::string(ZRVError::kHTTPDomain), 0,
                  {{std::string(ZRVError::kLocalizedDescriptionKey), "The mirror sent no data."}});
}

// One download that moves through the mirrors in order until one attempt succeeds. Each pending callback
// holds the procedure; when none is pending it is gone.
struct MirrorRetry : std::enable_shared_from_this<MirrorRetry> {
  std::deque<ZRVURL> mirrors;
  std::function<void(const std::shared_ptr<MirrorRetry>& self, const ZRVURL& mirror)> attempt;
  std::function<void()> exhausted;

  void scheduleNext() {
    ZRVOperationQueue::workQueue().addOperationWithBlock([self = shared_from_this()] {
      if (self->mirrors.empty()) {
        if (self->exhausted) self->exhausted();
        return;
      }
      ZRVURL mirror = self->mirrors.front();
      self->mirrors.pop_front();
      self->attempt(self, mirror);
    });
  }
};

}  // namespace

std::shared_ptr<ZRVManagedFile> ZRVManagedFile::initWithFilename(const std::string& name, const fs::path& installBase,
                                                                 const std::string& hash, const std::string& compHash,
                                                                 const std::optional<std::string>& download) {
  // An absolute name or one that climbs would put the file outside the install folder.
  if (installBase.empty() || !zrv::update::isContainedName(name)) return nullptr;
  auto file = std::make_shared<ZRVManagedFile>();
  file->name_ = name;
  file->installBase_ = installBase;
  file->location_ = installBase / name;
  file->sha1Hash_ = hash;
  file->compHash_ = compHash;
  file->download_ = download.value_or(name);
  file->ensureDirectoriesExist();
  return file;
}

ZRV_LOCKED_PROPERTY(ZRVManagedFile, std::string, name, setName, name_)
ZRV_LOCKED_PROPERTY(ZRVManagedFile, std::string, compHash, setCompHash, compHash_)
ZRV_LOCKED_PROPERTY(ZRVManagedFile, std::string, download, setDownload, download_)
ZRV_LOCKED_PROPERTY(ZRVManagedFile, std::string, sha1Hash, setSha1Hash, sha1Hash_)
ZRV_LOCKED_PROPERTY(ZRVManagedFile, fs::path, installBase, setInstallBase, installBase_)
ZRV_LOCKED_PROPERTY(ZRVManagedFile, fs::path, location, setLocation, location_)

std::string ZRVManagedFile::text(const char* key) const {
  return ZRVFormat(ZRVBundle::libraryBundle().localizedString(key), name());
}

void ZRVManagedFile::ensureDirectoriesExist() {
  std::string fileName = name();
  if (fileName.find('/') == std::string::npos) return;
  // The folder part as a path text gives it: trailing slashes do not count, so "maps/" has an empty one.
  std::string trimmed = fileName;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  std::size_t slash = trimmed.rfind('/');
  std::string folder = slash == std::string::npos ? "" : trimmed.substr(0, slash == 0 ? 1 : slash);
  // Only an empty folder part leads to a creation (the install folder with that empty part as an extension,
  // which is the install folder itself); the sub-folder of "a/b.bin" is deliberately left alone, the way the
  // game's installs have always been laid out.
  if (!folder.empty()) return;
  fs::path target = installBase();
  std::error_code error;
  fs::create_directories(target, error);
  if (error) ZRVLog::methodError(kClassName, "ensureDirectoriesExist", 208, ZRVError::file(error, target).localizedDescription());
}

std::optional<ZRVJSON> ZRVManagedFile::getPatch(const ZRVJSON& patches) const {
  if (!patches.is_object()) return std::nullopt;
  auto found = patches.find(ZRVExtensions::sha1Hash(location()));
  if (found == patches.end()) return std::nullopt;
  return *found;
}

void ZRVManagedFile::update(const std::vector<ZRVURL>& mirrors, const ZRVJSON& patches, StatusCallback status,
                            CompletionCallback completion, FailureCallback failure, std::function<void()> settledSilently) {
  (void)failure;  // part of the interface; a file's problems never reach it
  fs::path file = location();
  std::error_code error;
  if (!fs::exists(file, error)) {
    ZRVLog::format("%@ not found. Downloading Fresh", name());
    freshDownload(mirrors, "MANAGED_FILE_FRESH_DOWNLOAD", std::move(status), std::move(completion),
                  std::move(settledSilently));
    return;
  }
  if (sha1Hash() == ZRVExtensions::sha1Hash(file)) {
    ZRVLog::format("%@ Is up to date", name());
    if (completion) completion(true, text("MANAGED_FILE_ALREADY_UP_TO_DATE"));
    return;
  }
  if (auto patch = getPatch(patches)) {
    ZRVLog::format("Patch found for %@", name());
    if (status) status(text("MANAGED_FILE_UPDATE_FOUND_DOWNLOADING"));
    if (applyPatch(*patch, mirrors)) {
      ZRVLog::format("Patched %@", name());
      if (completion) completion(true, text("MANAGED_FILE_UPDATED"));
      return;
    }
    recoverFromFailedPatch(mirrors, std::move(status), std::move(completion), std::move(settledSilently));
    return;
  }
  ZRVLog::format("No Patch found for %@", name());
  freshDownload(mirrors, "MANAGED_FILE_FRESH_DOWNLOAD", std::move(status), std::move(completion),
                std::move(settledSilently));
}

void ZRVManagedFile::recoverFromFailedPatch(const std::vector<ZRVURL>& mirrors, StatusCallback status,
                                            CompletionCallback completion, std::function<void()> settledSilently) {
  ZRVLog::format("Failed patching %@, downloading fresh", name());
  freshDownload(mirrors, "MANAGED_FILE_APPLYING_UPDATE_FAILED", std::move(status), std::move(completion),
                std::move(settledSilently));
}

void ZRVManagedFile::freshDownload(const std::vector<ZRVURL>& mirrors, const std::string& statusKey,
                                   StatusCallback status, CompletionCallback completion,
                                   std::function<void()> settledSilently) {
  if (status) status(text(statusKey.c_str()));
  // A download name that does not decode ends the download before it starts, without a word to the caller;
  // the updater still has to hear that this file is settled, or its place among the files in flight is lost.
  if (!ZRVURL::removingPercentEncoding(download())) {
    if (settledSilently) settledSilently();
    return;
  }
  downloadFreshFile(mirrors, [self = shared_from_this(), completion = std::move(completion),
                              settledSilently = std::move(settledSilently)](bool success) {
    if (success) {
      if (completion) completion(true, self->text("MANAGED_FILE_FINISHED_FRESH_DOWNLOAD"));
    } else if (settledSilently) {
      settledSilently();  // the caller hears nothing; only the updater's bookkeeping does
    }
  });
}

bool ZRVManagedFile::applyPatch(const ZRVJSON& patch, const std::vector<ZRVURL>& mirrors,
                                std::optional<ZRVError>* error) {
  auto filename = stringMember(patch, "filename");
  auto patchHash = stringMember(patch, "patchHash");
  auto compPatchHash = stringMember(patch, "compPatchHash");
  if (!filename || !patchHash || !compPatchHash) {
    if (error) *error = ZRVError::library("ManagedFile", 4, text("MANAGED_FILE_INVALID_COMPRESSED_HASH"));
    return false;
  }

  const fs::path file = location();
  std::optional<ZRVError> lastError;
  for (const ZRVURL& mirror : mirrors) {
    std::optional<ZRVData> downloaded;
    auto url = mirror.URLByAppendingPathComponent(*filename);
    if (url) {
      ZRVHTTPRequest request = ZRVHTTPRequest::GET(*url);
      request.maxBodySize = kMaxDownloadSize;
      ZRVHTTPResult result = ZRVHTTPClient::sharedClient().sendSynchronousRequest(request);
      downloaded = std::move(result.body);
      if (!downloaded) lastError = result.error ? *result.error : noDataError();
      ZRVLog::format("%@", url->absoluteString());
    }
    // A mismatch is remembered but the bytes are still tried: the servers' hashes have been known to lag.
    if (!downloaded || ZRVExtensions::sha1Hash(*downloaded) != *compPatchHash) {
      lastError = ZRVError::library("ManagedFile", 4, text("MANAGED_FILE_INVALID_COMPRESSED_HASH"));
    }

    // The temporary folder beside the file and everything in it are reached from the install folder one
    // name at a time, never through a link: a link planted at ".tmp" (or at the patch file) is refused.
    const fs::path fileFolder = fs::path(name()).parent_path();
    fs::path temporaryFolder = file.parent_path() / ".tmp";
    std::optional<ZRVError> folderError;
    auto folder = zrv::update::openInstallFolder(installBase(), fileFolder / ".tmp", true, &folderError);
    if (!folder) {
      ZRVLog::methodError(kClassName, "applyPatch:mirrors:error:", 149, folderError->localizedDescription());
      lastError = folderError;
    }
    // The patch file keeps the file's whole name below the temporary folder; a sub-folder there is not made.
    const fs::path patchName = fs::path(name() + ".bz2");
    fs::path temporaryPatch = temporaryFolder / patchName;
    std::optional<zrv::update::Descriptor> patchFolder;
    if (folder) patchFolder = zrv::update::openFolderBelow(folder->get(), patchName.parent_path(), false, temporaryFolder);
    const std::string patchFile = patchName.filename().string();
    std::optional<zrv::update::Descriptor> patchDescriptor;
    if (patchFolder) patchDescriptor = zrv::update::createFileIn(patchFolder->get(), patchFile, true, temporaryPatch);
    ZRVData oldData;
    readWholeFile(file, oldData);
    // A patch that unpacks to more than any download may hold came from a broken or hostile mirror and counts
    // as a failed decompression.
    if (!downloaded || !patchDescriptor ||
        !zrv::bzip2::decompressBZIP2ToDescriptor(*downloaded, patchDescriptor->get(), kMaxDownloadSize, nullptr)) {
      if (patchDescriptor) removeTemporaryPatch(patchFolder->get(), patchFile, temporaryPatch, 168, 166);
      continue;
    }

    ZRVLog::write("Decompressing Patch");
    // The patch is used from the file, mapped, not copied into memory: however far it decompressed, only the
    // parts the patch steps actually read are touched.
    ZRVData newData;
    {
      auto mapped = zrv::update::MappedFile::map(patchDescriptor->get());
      patchDescriptor.reset();
      // A corrupt patch throws out of here; an unreadable one reads as empty, which is corrupt too.
      newData = mapped ? zrv::bsdiff::patchFromBytes(oldData, mapped->data(), mapped->size())
                       : bsdiff::dataWithData(oldData, ZRVData());
    }
    auto fileFolderDescriptor = zrv::update::openInstallFolder(installBase(), fileFolder, false);
    if (fileFolderDescriptor && zrv::update::writeFileAtomicallyIn(fileFolderDescriptor->get(), file.filename().string(),
                                                                   newData.data(), newData.size())) {
      ZRVLog::write("Patched");
      removeTemporaryPatch(patchFolder->get(), patchFile, temporaryPatch, 168, 166);
      return true;
    }
    ZRVLog::write("Failed Patching");
    removeTemporaryPatch(patchFolder->get(), patchFile, temporaryPatch, 181, 179);
  }
  if (error) *error = lastError;
  return false;
}

void ZRVManagedFile::downloadFreshFile(const std::vector<ZRVURL>& mirrors, DownloadCompletion completion) {
  auto decoded = ZRVURL::removingPercentEncoding(download());
  if (!decoded) return;
  auto retry = std::make_shared<MirrorRetry>();
  retry->mirrors.assign(mirrors.begin(), mirrors.end());
  retry->exhausted = [completion] {
    if (completion) completion(false);
  };
  retry->attempt = [self = shared_from_this(), name = *decoded, completion](const std::shared_ptr<MirrorRetry>& procedure,
                                                                             const ZRVURL& mirror) {
    auto url = mirror.URLByAppendingPathComponent(name);
    if (!url) {
      if (completion) completion(false);
      return;
    }
    ZRVLog::format("Downloading... %@", url->absoluteString());
    self->downloadFile(
        *url,
        [procedure, completion](bool success, const fs::path&, const std::string&, const std::string&) {
          if (success) {
            if (completion) completion(true);
          } else {
            procedure->scheduleNext();
          }
        },
        [procedure](const ZRVError&) { procedure->scheduleNext(); });
  };
  retry->scheduleNext();
}

void ZRVManagedFile::downloadPatch(const ZRVJSON& patch, const std::vector<ZRVURL>& mirrors,
                                   PatchDownloadCompletion completion, FailureCallback failure) {
  auto filename = stringMember(patch, "filename");
  auto compPatchHash = stringMember(patch, "compPatchHash");
  if (!filename || !stringMember(patch, "patchHash") || !compPatchHash) {
    if (failure) failure(ZRVError::library("ManagedFile", 5, text("MANAGED_FILE_UPDATE_DOWNLOAD_FAILED_INVALID")));
    return;
  }
  auto retry = std::make_shared<MirrorRetry>();
  retry->mirrors.assign(mirrors.begin(), mirrors.end());
  retry->exhausted = [self = shared_from_this(), failure] {
    if (failure) failure(ZRVError::library("ManagedFile", 3, self->text("MANAGED_FILE_FRESH_DOWNLOAD")));
  };
  retry->attempt = [self = shared_from_this(), filename = *filename, compPatchHash = *compPatchHash, completion,
                    failure](const std::shared_ptr<MirrorRetry>& procedure, const ZRVURL& mirror) {
    auto url = mirror.URLByAppendingPathComponent(filename);
    if (!url) {
      procedure->scheduleNext();
      return;
    }
    ZRVLog::format("Downloading... %@", url->absoluteString());
    self->downloadFile(
        *url,
        [self, procedure, compPatchHash, completion, failure](bool success, const fs::path& location,
                                                              const std::string& compressedHash, const std::string&) {
          if (success && compressedHash != compPatchHash) {
            if (failure) failure(ZRVError::library("ManagedFile", 4, self->text("MANAGED_FILE_INVALID_COMPRESSED_HASH")));
            return;
          }
          if (success && completion) {
            completion(true, location);
            return;
          }
          procedure->scheduleNext();
        },
        [procedure](const ZRVError&) { procedure->scheduleNext(); });
  };
  retry->scheduleNext();
}

void ZRVManagedFile::downloadFile(const ZRVURL& url, FileDownloadCompletion completion, FailureCallback failure) {
  ZRVHTTPRequest request = ZRVHTTPRequest::GET(url);
  request.maxBodySize = kMaxDownloadSize;
  ZRVHTTPClient::sharedClient().sendAsynchronousRequest(
      std::move(request), ZRVOperationQueue::workQueue(),
      [self = shared_from_this(), completion = std::move(completion), failure = std::move(failure)](ZRVHTTPResult result) {
        if (!result.body) {
          if (failure) failure(result.error ? *result.error : noDataError());
          return;
        }
        // Decompressed beside the file and renamed over it: a link at the file's place is replaced, never
        // written through, and a reader never sees half a file. The file's folder is reached from the install
        // folder without following links, and the temporary file is made new, so no link can redirect it.
        fs::path file = self->location();
        std::string fileName = file.filename().string();
        std::string temporary;
        std::optional<ZRVError> error;
        auto folder = zrv::update::openInstallFolder(self->installBase(), fs::path(self->name()).parent_path(), false, &error);
        std::optional<zrv::update::Descriptor> output;
        if (folder) output = zrv::update::createTemporaryFileIn(folder->get(), fileName, temporary, file.parent_path(), &error);
        if (!output || !zrv::bzip2::decompressBZIP2ToDescriptor(*result.body, output->get(),
                                                                zrv::bzip2::kMaxDecompressedFileSize, &error)) {
          if (output) ::unlinkat(folder->get(), temporary.c_str(), 0);
          if (failure) failure(error ? *error : ZRVError::posix(EIO));
          return;
        }
        output.reset();
        if (!zrv::update::replaceIn(folder->get(), temporary, fileName)) {
          ZRVError renameFailure = ZRVError::file(errno, file);
          ::unlinkat(folder->get(), temporary.c_str(), 0);
          if (failure) failure(renameFailure);
          return;
        }
        if (completion) completion(true, file, ZRVExtensions::sha1Hash(*result.body), ZRVExtensions::sha1Hash(file));
      });
}
