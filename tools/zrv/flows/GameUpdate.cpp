#include "flows/GameUpdate.h"

#include "flows/GameManifest.h"
#include "flows/ProgressDisplay.h"
#include "flows/ObserverScope.h"
#include "flows/StallGuard.h"
#include "flows/TransferLog.h"

#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVExtensions.h>
#include <ZRVKit/ZRVFormat.h>
#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVManagedFile.h>
#include <ZRVKit/ZRVPatcher.h>

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::string BadFile::line() const {
  std::string text = name + ": expected " + expected + ", found " + found + ", " + std::to_string(size) + " bytes";
  if (!servedBy.empty()) {
    text += ", served by " + servedBy;
    if (status) text += " with status " + std::to_string(*status);
  }
  return text;
}

int GameUpdateResult::exitCode() const {
  switch (outcome) {
    case Outcome::upToDate:
      return 0;
    case Outcome::unreachable:
      return 3;
    case Outcome::failed:
      break;
  }
  return 1;
}

ZRVJSON GameUpdateResult::document() const {
  static const char* kOutcomes[] = {"up-to-date", "failed", "unreachable"};
  ZRVJSON bad = ZRVJSON::array();
  for (const BadFile& file : badFiles) {
    bad.push_back({{"name", file.name},
                   {"expected", file.expected},
                   {"found", file.found},
                   {"size", file.size},
                   {"servedBy", file.servedBy.empty() ? ZRVJSON() : ZRVJSON(file.servedBy)},
                   {"status", file.status ? ZRVJSON(*file.status) : ZRVJSON()}});
  }
  return {{"upToDate", upToDate()},
          {"outcome", kOutcomes[static_cast<int>(outcome)]},
          {"message", message},
          {"filesChecked", filesChecked},
          {"filesRepaired", filesRepaired},
          {"badFiles", bad},
          {"details", details}};
}

namespace {

constexpr const char* kNotConfirmed = "could not confirm the game is up to date";

// What the library's callbacks hand to the main thread; shared with them, as they may outlive the wait.
struct RunState {
  bool finished = false;
  std::optional<std::string> completion;
  std::optional<std::string> failure;
  std::set<std::string> filesDone;
};

// One update: the display, the stall guard and the figures they show, fed while the main queue is pumped.
class UpdateSession {
 public:
  UpdateSession(const GameUpdateRequest& request, const GameManifest& game)
      : log_(std::make_shared<TransferLog>()),
        observing_(log_),
        display_(request.quiet ? ProgressDisplay::Mode::silent
                               : request.statusLine ? ProgressDisplay::Mode::statusLine
                                                    : ProgressDisplay::Mode::plainLines),
        guard_(request.stallTimeout, Clock::now()) {
    // The library's texts for a file that has ended, so that its status reports can be counted.
    ZRVBundle& texts = ZRVBundle::libraryBundle();
    for (const ManifestFile& file : game.files) {
      if (!file.updated) continue;
      ++filesTotal_;
      for (const char* key : {"MANAGED_FILE_FINISHED_FRESH_DOWNLOAD", "MANAGED_FILE_ALREADY_UP_TO_DATE",
                              "MANAGED_FILE_UPDATED"}) {
        endTexts_[ZRVFormat(texts.localizedString(key), file.name)] = file.name;
      }
    }
  }

  TransferLog& transfers() { return *log_; }
  ProgressDisplay& display() { return display_; }

  // A status report of the library.
  void libraryStatus(RunState& run, const std::string& text) {
    if (auto found = endTexts_.find(text); found != endTexts_.end()) run.filesDone.insert(found->second);
    filesDone_ = run.filesDone.size();
    status_ = text;
    showEndedTransfers();
    display_.status(figures());
  }

  // Pumps the main queue until `done` or a stall; false on a stall, with `stallReport` filled.
  bool pumpUntil(const std::function<bool()>& done, const std::function<std::set<std::string>()>& unfinished) {
    ZRVMainQueue& main = ZRVOperationQueue::mainQueue();
    while (!done()) {
      main.runUntil(done, std::chrono::milliseconds(250));
      showEndedTransfers();
      auto now = Clock::now();
      rate_.add(now, log_->bytesReceived());
      if (!done()) display_.tick(figures());
      if (!done() && guard_.stalled(now, filesDone_ + transfersEnded_, log_->bytesReceived(),
                                      StallGuard::processorTimeUsed())) {
        describeStall(unfinished ? unfinished() : std::set<std::string>());
        return false;
      }
    }
    return true;
  }

  const std::vector<std::string>& stallReport() const { return stallReport_; }

 private:
  // Transfers that ended are shown in the order they ended, before the status that follows them.
  void showEndedTransfers() {
    for (const ZRVTransferState& ended : log_->takeEnded()) {
      ++transfersEnded_;
      display_.transferEnded(ended);
    }
  }

  ProgressFigures figures() {
    ProgressFigures figures;
    figures.filesDone = filesDone_;
    figures.filesTotal = filesTotal_;
    figures.bytesReceived = log_->bytesReceived();
    figures.bytesPerSecond = rate_.bytesPerSecond();
    figures.status = status_;
    // An estimate only when every file still to come is downloading and each announced its length.
    auto running = log_->inFlight();
    if (figures.bytesPerSecond > 0 && !running.empty() && running.size() >= filesTotal_ - std::min(filesTotal_, filesDone_)) {
      std::uint64_t left = 0;
      bool known = true;
      for (const auto& transfer : running) {
        if (!transfer.expectedLength) known = false;
        else if (*transfer.expectedLength > transfer.received) left += *transfer.expectedLength - transfer.received;
      }
      if (known) figures.secondsLeft = static_cast<double>(left) / figures.bytesPerSecond;
    }
    return figures;
  }

  void describeStall(const std::set<std::string>& unfinished) {
    stallReport_.clear();
    for (const auto& transfer : log_->inFlight()) {
      stallReport_.push_back("in flight: " + transfer.url + " (" + byteCount(transfer.received) +
                             (transfer.expectedLength ? " of " + byteCount(*transfer.expectedLength) : std::string()) +
                             ")");
    }
    for (const auto& name : unfinished) stallReport_.push_back("not finished: " + name);
  }

  std::shared_ptr<TransferLog> log_;
  ObserverScope observing_;
  ProgressDisplay display_;
  StallGuard guard_;
  RateMeter rate_;
  std::map<std::string, std::string> endTexts_;
  std::size_t filesTotal_ = 0;
  std::size_t filesDone_ = 0;
  std::size_t transfersEnded_ = 0;
  std::string status_;
  std::vector<std::string> stallReport_;
};

std::string stallMessage(std::chrono::seconds timeout) {
  return "stalled: for " + std::to_string(timeout.count()) + " seconds no file finished and less than " +
         byteCount(StallGuard::kFloorBytesPerSecond) +
         "/s arrived, and nothing was decoded or patched; giving up";
}

// The library's run: its status reports counted and shown, its end awaited under the stall guard.
bool runLibraryUpdate(UpdateSession& session, const GameUpdateRequest& request, const GameManifest& game,
                      GameUpdateResult& result) {
  auto run = std::make_shared<RunState>();
  ZRVMainQueue& main = ZRVOperationQueue::mainQueue();
  UpdateSession* shown = &session;
  auto alive = std::make_shared<bool>(true);  // the session is gone once this run has returned
  ZRVPatcher::defaultPatcher().checkForGameUpdates(
      request.install,
      [run, alive, shown, &main](const std::string& status, double) {
        main.addOperationWithBlock([run, alive, shown, status] {
          if (*alive) shown->libraryStatus(*run, status);
        });
      },
      [run, &main](const std::string& message) {
        main.addOperationWithBlock([run, message] {
          run->completion = message;
          run->finished = true;
        });
      },
      [run, &main](const ZRVError& error) {
        main.addOperationWithBlock([run, message = error.localizedDescription()] {
          run->failure = message;
          run->finished = true;
        });
      });
  std::set<std::string> names;
  for (const auto& file : game.files) {
    if (file.updated) names.insert(file.name);
  }
  auto unfinished = [&] {
    std::set<std::string> left;
    for (const auto& name : names) {
      if (!run->filesDone.count(name)) left.insert(name);
    }
    return left;
  };
  bool ended = session.pumpUntil([&] { return run->finished; }, unfinished);
  *alive = false;
  if (!ended) {
    result.message = stallMessage(request.stallTimeout);
    for (const auto& line : session.stallReport()) result.details.push_back(line);
    return false;
  }
  if (run->failure) {
    result.message = *run->failure;
    return false;
  }
  result.message = run->completion.value_or("Everything is up to date");
  return true;
}

// The file's SHA-1 on disk ("missing" when there is no regular file) and its size.
std::pair<std::string, std::uintmax_t> digestOnDisk(const fs::path& file) {
  struct stat info {};
  if (::lstat(file.c_str(), &info) != 0) return {"missing", 0};
  if (!S_ISREG(info.st_mode)) return {S_ISLNK(info.st_mode) ? "a link" : "not a file", 0};
  return {ZRVExtensions::sha1Hash(file), static_cast<std::uintmax_t>(info.st_size)};
}

// Which mirror delivered the file's current content: the latest transfer of its whole file or a patch.
struct Delivery {
  ZRVURL mirror;
  std::optional<long> status;
  std::uint64_t identifier = 0;
};

std::optional<Delivery> deliveryOf(const ManifestFile& file, const std::vector<ZRVURL>& mirrors,
                                   const TransferLog& transfers) {
  std::vector<std::string> objects = file.patchFiles;
  if (auto decoded = ZRVURL::removingPercentEncoding(file.download)) objects.push_back(*decoded);
  std::optional<Delivery> latest;
  for (const ZRVURL& mirror : mirrors) {
    for (const auto& object : objects) {
      auto url = mirror.URLByAppendingPathComponent(object);
      if (!url) continue;
      auto ended = transfers.lastEnd(url->absoluteString());
      if (!ended || !ended->succeeded) continue;
      if (!latest || ended->identifier > latest->identifier) latest = Delivery{mirror, ended->statusCode, ended->identifier};
    }
  }
  return latest;
}

// One whole download of the file from one mirror through the library's managed file; false on a stall.
bool downloadFrom(UpdateSession& session, const ManifestFile& file, const fs::path& install, const ZRVURL& mirror) {
  auto managed = ZRVManagedFile::initWithFilename(file.name, install, file.hash, file.compHash, file.download);
  if (!managed) return true;
  auto done = std::make_shared<bool>(false);
  ZRVMainQueue& main = ZRVOperationQueue::mainQueue();
  managed->downloadFreshFile({mirror}, [done, &main](bool) { main.addOperationWithBlock([done] { *done = true; }); });
  return session.pumpUntil([done] { return *done; }, [&] { return std::set<std::string>{file.name}; });
}

// Checks every file; fetches a bad one again from the mirrors that did not deliver it until one is good.
void verifyAndRepair(UpdateSession& session, const GameUpdateRequest& request, const GameManifest& game,
                     GameUpdateResult& result) {
  std::vector<ZRVURL> mirrors = ZRVPatcher::defaultPatcher().mirrorURLs();
  for (const ManifestFile& file : game.files) {
    ++result.filesChecked;
    fs::path location = request.install / fs::path(file.name);
    auto [found, size] = digestOnDisk(location);
    if (found == file.hash) continue;
    auto delivered = deliveryOf(file, mirrors, session.transfers());
    std::set<std::string> tried;
    if (delivered) tried.insert(delivered->mirror.absoluteString());
    bool stalled = false;
    // A link in the way is never written through: such a file is reported, not repaired.
    bool writable = createFoldersFor(request.install, {file.name}).empty() && found != "a link";
    for (const ZRVURL& mirror : mirrors) {
      if (!writable || found == file.hash || tried.count(mirror.absoluteString())) continue;
      tried.insert(mirror.absoluteString());
      if (!downloadFrom(session, file, request.install, mirror)) {
        stalled = true;
        break;
      }
      std::tie(found, size) = digestOnDisk(location);
      auto url = mirror.URLByAppendingPathComponent(ZRVURL::removingPercentEncoding(file.download).value_or(""));
      auto ended = url ? session.transfers().lastEnd(url->absoluteString()) : std::nullopt;
      if (found == file.hash) {
        ++result.filesRepaired;
        session.display().note("Repaired " + file.name + " from " + mirror.absoluteString());
      } else if (ended && ended->succeeded) {
        delivered = Delivery{mirror, ended->statusCode, ended->identifier};
      }
    }
    if (found == file.hash) continue;
    BadFile bad{file.name, file.hash, found, size, {}, {}};
    if (delivered) {
      bad.servedBy = delivered->mirror.absoluteString();
      bad.status = delivered->status;
    }
    result.badFiles.push_back(std::move(bad));
    if (stalled) {
      result.details = session.stallReport();
      result.details.insert(result.details.begin(), stallMessage(request.stallTimeout));
      return;
    }
  }
}

}  // namespace

GameUpdateResult updateGame(const GameUpdateRequest& request) {
  GameUpdateResult result;
  auto idle = request.stallTimeout.count() > 0
                  ? std::min<std::chrono::milliseconds>(request.stallTimeout, std::chrono::seconds(60))
                  : std::chrono::milliseconds(std::chrono::seconds(60));
  ManifestFetch fetched = fetchGameManifest(idle);
  if (!fetched.manifest) {
    result.outcome = fetched.reached ? GameUpdateResult::Outcome::failed : GameUpdateResult::Outcome::unreachable;
    result.message = std::string(kNotConfirmed) + ": the patch manifest at " + fetched.url + " could not be read (" +
                     fetched.problem + ")";
    return result;
  }
  const GameManifest& game = *fetched.manifest;
  std::vector<std::string> names;
  for (const auto& file : game.files) names.push_back(file.name);
  std::error_code ignored;
  fs::create_directories(request.install, ignored);
  for (auto& problem : createFoldersFor(request.install, names)) result.details.push_back(std::move(problem));
  for (const auto& name : game.refusedNames) {
    result.details.push_back("refused: \"" + name + "\" would lie outside the install folder");
  }

  UpdateSession session(request, game);
  bool ran = runLibraryUpdate(session, request, game, result);
  if (ran) {
    std::string libraryMessage = result.message;
    verifyAndRepair(session, request, game, result);
    if (result.badFiles.empty() && game.refusedNames.empty()) {
      result.outcome = GameUpdateResult::Outcome::upToDate;
      result.message = libraryMessage;
    } else if (!result.badFiles.empty()) {
      result.message = "the game is not up to date: " + std::to_string(result.badFiles.size()) +
                       " file(s) differ from the manifest and no mirror gave a good copy";
    } else {
      result.message = std::string(kNotConfirmed) + ": the manifest names files outside the install folder";
    }
  }
  session.display().finish();
  return result;
}
