#pragma once
// One game file under update management: judged by its SHA-1, brought up to date by a binary patch from the
// mirrors or by a whole (bzip2) download.

#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVKitExport.h>
#include <ZRVKit/ZRVURL.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class ZRVKIT_EXPORT ZRVManagedFile : public std::enable_shared_from_this<ZRVManagedFile> {
 public:
  using StatusCallback = std::function<void(const std::string& status)>;
  using CompletionCallback = std::function<void(bool success, const std::string& message)>;
  using FailureCallback = std::function<void(const ZRVError& error)>;
  using DownloadCompletion = std::function<void(bool success)>;
  using PatchDownloadCompletion = std::function<void(bool success, const std::filesystem::path& location)>;
  /// success, the file's location, SHA-1 of the downloaded compressed bytes, SHA-1 of the file now on disk.
  using FileDownloadCompletion = std::function<void(bool success, const std::filesystem::path& location,
                                                    const std::string& compressedHash, const std::string& fileHash)>;

  /// Whole downloads above this size count as failed downloads, so that a hostile mirror cannot exhaust memory.
  static constexpr std::size_t kMaxDownloadSize = std::size_t{2} << 30;
  /// About what updating one file holds in memory at most, whatever the file's size: downloads go to a
  /// temporary file beside it, the installed file and the patch are read through mappings whose pages are let
  /// go every 16 MiB, and the new file is written through a fixed buffer; the rest is the decoders' tables.
  static constexpr std::size_t kBytesHeldWhileUpdating = std::size_t{64} << 20;

  /// Nothing when the file's location cannot be formed. `download` absent: the name is downloaded.
  static std::shared_ptr<ZRVManagedFile> initWithFilename(const std::string& name,
                                                          const std::filesystem::path& installBase,
                                                          const std::string& hash, const std::string& compHash,
                                                          const std::optional<std::string>& download);

  // The file's fields: its name relative to the install folder, the manifest's hashes and download name,
  // the install folder and the file's location in it.
  std::string name() const;
  void setName(std::string name);
  std::string compHash() const;
  void setCompHash(std::string compHash);
  std::string download() const;
  void setDownload(std::string download);
  std::string sha1Hash() const;
  void setSha1Hash(std::string hash);
  std::filesystem::path installBase() const;
  void setInstallBase(std::filesystem::path installBase);
  std::filesystem::path location() const;
  void setLocation(std::filesystem::path location);

  /// Brings the file up to date from `mirrors`; `patches` maps the SHA-1 of an older content to its patch record.
  /// Status and completion arrive on the caller's thread or a work-queue thread. `failure` is never called.
  /// When the whole download fails on every mirror nothing at all is reported; `settledSilently`, if given, is
  /// told then (it is the updater's own hook and reaches no user). A corrupt patch throws (ZRVException or
  /// std::out_of_range) out of this call, as out of applyPatch.
  void update(const std::vector<ZRVURL>& mirrors, const ZRVJSON& patches, StatusCallback status,
              CompletionCallback completion, FailureCallback failure, std::function<void()> settledSilently = {});

  /// After a patch that could not be applied: the fresh download of update(), announced as such.
  void recoverFromFailedPatch(const std::vector<ZRVURL>& mirrors, StatusCallback status,
                              CompletionCallback completion, std::function<void()> settledSilently = {});

  /// Downloads the patch synchronously from the mirrors in turn and applies it; true when the file was written.
  bool applyPatch(const ZRVJSON& patch, const std::vector<ZRVURL>& mirrors, std::optional<ZRVError>* error = nullptr);

  void ensureDirectoriesExist();

  /// The patch record for the content now at `location` ("" names an unreadable file), if `patches` has one.
  std::optional<ZRVJSON> getPatch(const ZRVJSON& patches) const;

  void downloadFreshFile(const std::vector<ZRVURL>& mirrors, DownloadCompletion completion);
  void downloadPatch(const ZRVJSON& patch, const std::vector<ZRVURL>& mirrors, PatchDownloadCompletion completion,
                     FailureCallback failure);
  void downloadFile(const ZRVURL& url, FileDownloadCompletion completion, FailureCallback failure);

  ZRVManagedFile() = default;

 private:
  void freshDownload(const std::vector<ZRVURL>& mirrors, const std::string& statusKey, StatusCallback status,
                     CompletionCallback completion, std::function<void()> settledSilently);
  std::string text(const char* key) const;

  mutable std::mutex mutex_;
  std::string name_;
  std::string compHash_;
  std::string download_;
  std::string sha1Hash_;
  // Kept as text (the getters hand out paths): an update makes a managed file for each of tens of thousands
  // of entries, and a path splits itself into its parts whenever it is made or copied.
  std::string installBase_;
  std::string location_;
};
