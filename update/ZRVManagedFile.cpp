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

// A download's body kept in a temporary file beside the game file (".NAME.PID.N.partial", made the way every
// temporary file of the install is) rather than in memory, so that a huge or endless answer costs disk up to
// the download cap, not memory. The file goes with the object.
class BodyFile {
 public:
  /// Nothing when the file's folder cannot be reached or the file not made; the body is then held in memory.
  static std::shared_ptr<BodyFile> create(const fs::path& installBase, const fs::path& folder, const std::string& forName) {
    auto opened = zrv::update::openInstallFolder(installBase, folder, false);
    if (!opened) return nullptr;
    auto body = std::make_shared<BodyFile>();
    auto file = zrv::update::createTemporaryFileIn(opened->get(), forName, body->name_, installBase / folder);
    if (!file) return nullptr;
    body->folder_ = std::move(*opened);
    body->file_ = std::move(*file);
    return body;
  }
  BodyFile() = default;
  BodyFile(const BodyFile&) = delete;
  BodyFile& operator=(const BodyFile&) = delete;
  ~BodyFile() {
    if (file_) ::unlinkat(folder_.get(), name_.c_str(), 0);
  }

  int fd() const { return file_.get(); }

 private:
  zrv::update::Descriptor folder_;
  zrv::update::Descriptor file_;
  std::string name_;
};

// The downloaded (compressed) bytes, wherever they were put: mapped from the body file, or held in memory.
class DownloadedBytes {
 public:
  DownloadedBytes(const std::shared_ptr<BodyFile>& file, const ZRVData& held)
      : held_(held), mapped_(file ? zrv::update::MappedFile::map(file->fd()) : std::nullopt), fromFile_(file != nullptr) {}
  /// False when the body file could not be mapped (its bytes are then unknown).
  bool readable() const { return !fromFile_ || mapped_.has_value(); }
  const std::uint8_t* data() const { return fromFile_ ? (mapped_ ? mapped_->data() : nullptr) : held_.data(); }
  std::size_t size() const { return fromFile_ ? (mapped_ ? mapped_->size() : 0) : held_.size(); }
  void releasePages() const {
    if (mapped_) mapped_->releasePages();
  }
  std::string sha1(const std::shared_ptr<BodyFile>& file) const {
    return fromFile_ ? ZRVExtensions::sha1HashOfDescriptor(file->fd()) : ZRVExtensions::sha1Hash(held_);
  }

 private:
  const ZRVData& held_;
  std::optional<zrv::update::MappedFile> mapped_;
  bool fromFile_ = false;
};

// The installed file, mapped read-only for the patch to read from; unreadable reads as empty.
std::optional<zrv::update::MappedFile> mapInstalledFile(const fs::path& file) {
  zrv::update::Descriptor opened(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!opened) return std::nullopt;
  return zrv::update::MappedFile::map(opened.get());
}

// Applies the decompressed patch in `patchDescriptor` to the `oldSize` old bytes at `old` and puts the new file
// at `file` (below `installBase`, in `fileFolder`); false when it could not be written.
bool writePatchedFile(const std::uint8_t* old, std::size_t oldSize, zrv::update::Descriptor& patchDescriptor,
                      const fs::path& installBase, const fs::path& fileFolder, const fs::path& file,
                      const std::function<void()>& releaseOld) {
  // The patch is used from its file, mapped, not copied into memory; the new file is written to a temporary
  // file beside the game file and renamed into place, the same outcome as writing it whole. A corrupt patch
  // throws out of here (an unreadable one reads as empty, which is corrupt too); nothing is left behind.
  auto mapped = zrv::update::MappedFile::map(patchDescriptor.get());
  patchDescriptor = zrv::update::Descriptor();
  static const std::uint8_t kNoPatch = 0;
  const std::uint8_t* patch = mapped ? mapped->data() : &kNoPatch;
  const std::size_t patchSize = mapped ? mapped->size() : 0;
  const std::string fileName = file.filename().string();
  auto folder = zrv::update::openInstallFolder(installBase, fileFolder, false);
  std::string temporary;
  std::optional<zrv::update::Descriptor> output;
  if (folder) output = zrv::update::createTemporaryFileIn(folder->get(), fileName, temporary, {});
  int failure = 0;
  try {
    // Without a place to write to the patch is still applied through, into nothing: a corrupt patch must
    // fail as such first.
    failure = zrv::bsdiff::patchToDescriptor(old, oldSize, patch, patchSize, output ? output->get() : -1,
                                             zrv::bzip2::kMaxDecompressedFileSize, [&] {
                                               if (mapped) mapped->releasePages();
                                               if (releaseOld) releaseOld();
                                             });
  } catch (...) {
    if (output) ::unlinkat(folder->get(), temporary.c_str(), 0);
    throw;
  }
  if (!output) return false;
  bool written = failure == 0 && ::fsync(output->get()) == 0;
  output.reset();
  if (!written || !zrv::update::replaceIn(folder->get(), temporary, fileName)) {
    ::unlinkat(folder->get(), temporary.c_str(), 0);
    return false;
  }
  return true;
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

// Whether a download's completion gets the SHA-1s of the compressed bytes and of the file. A fresh file's
// retry procedure never looks at them, and for a large game they cost a read of every byte twice over.
enum class DownloadHashes { computed, skipped };

void fetchDecompressed(const std::shared_ptr<ZRVManagedFile>& managed, const ZRVURL& url,
                       ZRVManagedFile::FileDownloadCompletion completion, ZRVManagedFile::FailureCallback failure,
                       DownloadHashes hashes);

}  // namespace

std::shared_ptr<ZRVManagedFile> ZRVManagedFile::initWithFilename(const std::string& name, const fs::path& installBase,
                                                                 const std::string& hash, const std::string& compHash,
                                                                 const std::optional<std::string>& download) {
  // An absolute name or one that climbs would put the file outside the install folder.
  if (installBase.empty() || !zrv::update::isContainedName(name)) return nullptr;
  auto file = std::make_shared<ZRVManagedFile>();
  file->name_ = name;
  file->installBase_ = installBase.native();
  // What installBase / name gives for a relative name: a separator between them unless the base ends in one.
  file->location_ = installBase.native();
  if (file->location_.back() != '/') file->location_ += '/';
  file->location_ += name;
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
ZRV_LOCKED_PATH_PROPERTY(ZRVManagedFile, installBase, setInstallBase, installBase_)
ZRV_LOCKED_PATH_PROPERTY(ZRVManagedFile, location, setLocation, location_)

std::string ZRVManagedFile::text(const char* key) const {
  return ZRVFormat(ZRVBundle::libraryBundle().localizedString(key), name());
}

void ZRVManagedFile::ensureDirectoriesExist() {
  const std::string fileName = name();
  if (fileName.find('/') == std::string::npos) return;
  // The folder part as a path text gives it: trailing slashes do not count, so "maps/" has an empty one.
  std::string_view trimmed = fileName;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.remove_suffix(1);
  std::size_t slash = trimmed.rfind('/');
  std::string_view folder = slash == std::string_view::npos ? std::string_view() : trimmed.substr(0, slash == 0 ? 1 : slash);
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
  // The location as text: most files only need it opened, not taken apart as a path.
  const std::string file = [this] {
    std::lock_guard lock(mutex_);
    return location_;
  }();
  // Opened once, to learn whether the file is there and to read it: checking every file of an install is
  // mostly this. Only a failure other than "not there" asks again the way it always did.
  zrv::update::Descriptor opened(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  const bool missing = !opened && (errno == ENOENT || errno == ENOTDIR);
  std::error_code error;
  if (missing || (!opened && !fs::exists(fs::path(file), error))) {
    ZRVLog::format("%@ not found. Downloading Fresh", name());
    freshDownload(mirrors, "MANAGED_FILE_FRESH_DOWNLOAD", std::move(status), std::move(completion),
                  std::move(settledSilently));
    return;
  }
  const std::string current =
      opened ? ZRVExtensions::sha1HashOfDescriptor(opened.get()) : ZRVExtensions::sha1Hash(fs::path(file));
  opened.reset();
  if (sha1Hash() == current) {
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
  const fs::path fileFolder = fs::path(name()).parent_path();
  std::optional<ZRVError> lastError;
  for (const ZRVURL& mirror : mirrors) {
    // The compressed patch goes to a temporary file beside the game file, not into memory.
    std::shared_ptr<BodyFile> bodyFile = BodyFile::create(installBase(), fileFolder, file.filename().string());
    ZRVData held;
    bool arrived = false;
    auto url = mirror.URLByAppendingPathComponent(*filename);
    if (url) {
      ZRVHTTPRequest request = ZRVHTTPRequest::GET(*url);
      request.maxBodySize = kMaxDownloadSize;
      if (bodyFile) request.bodyDescriptor = bodyFile->fd();
      ZRVHTTPResult result = ZRVHTTPClient::sharedClient().sendSynchronousRequest(request);
      arrived = result.body.has_value();
      if (arrived) held = std::move(*result.body);
      else lastError = result.error ? *result.error : noDataError();
      ZRVLog::format("%@", url->absoluteString());
    }
    DownloadedBytes downloaded(arrived ? bodyFile : nullptr, held);
    // A mismatch is remembered but the bytes are still tried: the servers' hashes have been known to lag.
    if (!arrived || downloaded.sha1(bodyFile) != *compPatchHash) {
      lastError = ZRVError::library("ManagedFile", 4, text("MANAGED_FILE_INVALID_COMPRESSED_HASH"));
    }

    // The temporary folder beside the file and everything in it are reached from the install folder one
    // name at a time, never through a link: a link planted at ".tmp" (or at the patch file) is refused.
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
    // The installed file is read through a mapping, never copied whole into memory.
    auto old = mapInstalledFile(file);
    // A patch that unpacks to more than any download may hold came from a broken or hostile mirror and counts
    // as a failed decompression.
    if (!arrived || !downloaded.readable() || !patchDescriptor ||
        !zrv::bzip2::decompressBZIP2ToDescriptor(downloaded.data(), downloaded.size(), patchDescriptor->get(),
                                                  kMaxDownloadSize, nullptr, [&] { downloaded.releasePages(); })) {
      if (patchDescriptor) removeTemporaryPatch(patchFolder->get(), patchFile, temporaryPatch, 168, 166);
      continue;
    }
    bodyFile.reset();  // the compressed patch is no longer needed

    ZRVLog::write("Decompressing Patch");
    if (writePatchedFile(old ? old->data() : nullptr, old ? old->size() : 0, *patchDescriptor, installBase(),
                         fileFolder, file, [&] {
                           if (old) old->releasePages();
                         })) {
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
    fetchDecompressed(
        self, *url,
        [procedure, completion](bool success, const fs::path&, const std::string&, const std::string&) {
          if (success) {
            if (completion) completion(true);
          } else {
            procedure->scheduleNext();
          }
        },
        [procedure](const ZRVError&) { procedure->scheduleNext(); }, DownloadHashes::skipped);
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
  fetchDecompressed(shared_from_this(), url, std::move(completion), std::move(failure), DownloadHashes::computed);
}

namespace {

void fetchDecompressed(const std::shared_ptr<ZRVManagedFile>& managed, const ZRVURL& url,
                       ZRVManagedFile::FileDownloadCompletion completion, ZRVManagedFile::FailureCallback failure,
                       DownloadHashes hashes) {
  ZRVHTTPRequest request = ZRVHTTPRequest::GET(url);
  request.maxBodySize = ZRVManagedFile::kMaxDownloadSize;
  // The compressed file goes to a temporary file beside the game file as it arrives, not into memory.
  std::shared_ptr<BodyFile> bodyFile =
      BodyFile::create(managed->installBase(), fs::path(managed->name()).parent_path(),
                       managed->location().filename().string());
  if (bodyFile) request.bodyDescriptor = bodyFile->fd();
  ZRVHTTPClient::sharedClient().sendAsynchronousRequest(
      std::move(request), ZRVOperationQueue::workQueue(),
      // The body file moves into the completion, which alone holds it: it is gone by the time the file reports,
      // even when the answer arrives before this call returns, so a run that ends leaves none behind.
      [self = managed, bodyFile = std::move(bodyFile), completion = std::move(completion),
       failure = std::move(failure), hashes](ZRVHTTPResult result) mutable {
        if (!result.body) {
          bodyFile.reset();
          if (failure) failure(result.error ? *result.error : noDataError());
          return;
        }
        DownloadedBytes downloaded(bodyFile, *result.body);
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
        if (!downloaded.readable() && !error) error = ZRVError::posix(errno);
        if (!output || !downloaded.readable() ||
            !zrv::bzip2::decompressBZIP2ToDescriptor(downloaded.data(), downloaded.size(), output->get(),
                                                      zrv::bzip2::kMaxDecompressedFileSize, &error,
                                                      [&] { downloaded.releasePages(); })) {
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
        if (hashes == DownloadHashes::skipped) {
          bodyFile.reset();
          if (completion) completion(true, file, std::string(), std::string());
          return;
        }
        const std::string compressedHash = downloaded.sha1(bodyFile);
        bodyFile.reset();
        if (completion) completion(true, file, compressedHash, ZRVExtensions::sha1Hash(file));
      });
}

}  // namespace
