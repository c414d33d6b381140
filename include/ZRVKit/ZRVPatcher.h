#pragma once
// Brings an installed copy of the game up to date: the extra graphics framework, the mirror list, the patch
// manifest, then one work item per game file (see ZRVManagedFile), and finally the executable bit and the
// outcome: "Everything is up to date" or the first error.
//
// Threads: the "InvalidLocation" failure and the first framework status arrive on the caller's thread, the
// framework unzip's outcome on the main queue, everything else on work-queue threads.

#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVHTTPResponse.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVKitExport.h>
#include <ZRVKit/ZRVURL.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class ZRVManagedFile;
namespace zrv::update {
class UpdateRun;
struct FrameworkStaging;
}  // namespace zrv::update

class ZRVKIT_EXPORT ZRVPatcher {
 public:
  using UpdateHandler = std::function<void(const std::string& status, double progress)>;
  using CompletionHandler = std::function<void(const std::string& message)>;
  using FailureHandler = std::function<void(const ZRVError& error)>;
  using ZipCompletionHandler = std::function<void(bool success)>;
  using ReadJSONCompletion = std::function<void(bool success, std::optional<ZRVJSON> object,
                                                std::optional<ZRVHTTPResponse> response, std::optional<ZRVError> error)>;

  /// Progress share of one step, in percent: with the framework present, and with its download as one more step.
  static constexpr double kBaseProgress = 3.846;
  static constexpr double kBaseProgressWithFramework = 3.704;
  /// Server documents (manifest, mirror lists) above this size are not read.
  static constexpr std::size_t kMaxDocumentSize = std::size_t{64} << 20;
  /// How many game files are worked on at once, and how many bytes of installed files at most (a single larger
  /// file still goes, alone): patching holds a file's old and new contents in memory.
  static constexpr std::size_t kFilesInFlight = 8;
  static constexpr std::uintmax_t kBytesInFlight = std::uintmax_t{1} << 30;

  /// The one shared patcher, made on first use.
  static ZRVPatcher& defaultPatcher();

  /// The endpoint table: nine keys ("cg-framework", "production-manifest", ...) and their URLs, formed from
  /// the host table (so a redirect applies). Throws "Cannot create URL from %@." if one cannot be formed.
  std::map<std::string, ZRVURL> baseUrls() const;
  /// The platform word looked up in each manifest entry's "only" list.
  const std::string& platform() const { return platform_; }

  /// Brings the game files in `location` up to date. `update` hears every status with the running progress;
  /// exactly one of `completion` ("Everything is up to date") and `failure` (the first error) ends a run —
  /// except when a file's whole download fails on every mirror: then nothing is reported at all, and the
  /// caller's own time-out has to notice. No location: `failure` at once with "InvalidLocation" code 1.
  void checkForGameUpdates(const std::optional<std::filesystem::path>& location, UpdateHandler update,
                           CompletionHandler completion, FailureHandler failure);

  /// The manifest's "hash" of every file of this platform; empty when the manifest cannot be read.
  void getGameHashFromManifest(std::function<void(std::map<std::string, std::string> hashes)> completion);

  /// GET and parse; the HTTP status is not examined. Completion on the work queue.
  static void readJSON(const ZRVURL& url, ReadJSONCompletion completion);
  /// GET and write the body atomically to `location` + ".zip"; `progress` is never called.
  void downloadFile(const ZRVURL& url, const std::filesystem::path& location, std::function<void(double)> progress,
                    std::function<void(bool success)> completion);
  /// Unpacks `archive` into its own folder (`location` is not used); the outcome on the main queue.
  void unzipFile(const std::filesystem::path& archive, const std::filesystem::path& location,
                 ZipCompletionHandler completion);
  /// The unzipper's notifications, on the main queue: the end and the failure hand the outcome to the
  /// pending unzip completion and delete the archive.
  void onZKArchiveDidBeginUnzip(const std::filesystem::path& archive);
  void onZKArchiveDidEndUnzip(const std::filesystem::path& archive);
  void onZKArchiveDidFail(const std::filesystem::path& archive);

  /// "[<date> ZRVKit] <message>" to the system log.
  void log(std::string_view message);

  // Properties of the current or last run, read from (and written into) that run. `progress` is never reset:
  // a second run starts from the first's value. `error` and `updateSuccessful` are reset when a run reaches
  // its file list. The unzip completion belongs to the unzipper, not to a run.
  UpdateHandler updateHandler() const;
  void setUpdateHandler(UpdateHandler handler);
  CompletionHandler completionHandler() const;
  void setCompletionHandler(CompletionHandler handler);
  FailureHandler failureHandler() const;
  void setFailureHandler(FailureHandler handler);
  ZipCompletionHandler zipCompletionHandler() const;
  void setZipCompletionHandler(ZipCompletionHandler handler);
  std::filesystem::path location() const;
  void setLocation(std::filesystem::path location);
  /// A copy of the manifest, for callers outside the run; the run itself reads the shared one.
  ZRVJSON manifest() const;
  void setManifest(ZRVJSON manifest);
  /// The manifest as read once per run, shared read-only: no copy, however large the document.
  std::shared_ptr<const ZRVJSON> sharedManifest() const;
  std::vector<ZRVURL> mirrorURLs() const;
  void setMirrorURLs(std::vector<ZRVURL> mirrors);
  std::optional<ZRVError> error() const;
  void setError(std::optional<ZRVError> error);
  bool updateSuccessful() const;
  void setUpdateSuccessful(bool successful);
  double baseProgress() const;
  void setBaseProgress(double value);
  double progress() const;
  void setProgress(double value);

  ZRVPatcher();
  ZRVPatcher(const ZRVPatcher&) = delete;
  ZRVPatcher& operator=(const ZRVPatcher&) = delete;

 private:
  using Run = std::shared_ptr<zrv::update::UpdateRun>;

  // The steps of one run, in order; each takes the run it belongs to.
  void _downloadRequiredFramework(const Run& run);
  void _unpackRequiredFramework(const Run& run, const std::shared_ptr<zrv::update::FrameworkStaging>& staging);
  void _downloadMirrorsAndThenManifest(const Run& run);
  void _downloadMirrorsCompleted(std::function<void(std::vector<ZRVURL>)> completion);
  void _downloadManifestAndThenPatchGameFiles(const Run& run);
  void _downloadManifestCompleted(std::function<void(std::optional<ZRVJSON>)> completion);
  void _patchGameFilesIfNecessary(const Run& run);
  void _patchingComplete(const zrv::update::UpdateRun& run);
  ZRVURL endpoint(const std::string& key) const;
  /// The run the properties show: the current one, or the last one once it has ended.
  Run currentRun() const;

  std::string platform_ = "darwin";

  mutable std::mutex mutex_;
  Run run_;
  ZipCompletionHandler zipCompletionHandler_;
};
