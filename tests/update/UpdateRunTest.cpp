#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVOperation.h>
#include <ZRVKit/ZRVOperationQueue.h>
#include <ZRVKit/ZRVPatcher.h>

#include "update/FileItem.h"
#include "update/UpdateRun.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>

using namespace std::chrono_literals;
using zrv::update::FileCallbacks;
using zrv::update::FileItem;
using zrv::update::UpdateRun;

namespace {

// A run whose handlers count what they hear; its file items are driven by made-up file work.
struct ObservedRun {
  std::atomic<int> reports{0};
  std::atomic<int> completions{0};
  std::mutex mutex;
  std::vector<long> failureCodes;
  std::shared_ptr<UpdateRun> run;

  ObservedRun() {
    run = std::make_shared<UpdateRun>(UpdateRun(), "/nonexistent", UpdateRun::Handlers{
        [this](const std::string&, double) { ++reports; },
        [this](const std::string&) { ++completions; },
        [this](const ZRVError& error) {
          std::lock_guard lock(mutex);
          failureCodes.push_back(error.code());
        }});
  }
  int outcomes() {
    std::lock_guard lock(mutex);
    return completions.load() + static_cast<int>(failureCodes.size());
  }
  void start(std::size_t files, const zrv::update::FileWork& work) {
    std::vector<FileItem> items;
    for (std::size_t i = 0; i < files; ++i) items.push_back(zrv::update::makeFileItem(run, 0, work));
    zrv::update::startFileItems(*run, items, ZRVOperation::operationWithBlock([run = run] { run->reportOutcome(); }));
  }
};

bool eventually(const std::function<bool()>& done) { return ZRVOperationQueue::mainQueue().runUntil(done, 20s); }

}  // namespace

TEST(UpdateRun, EveryWayAFileEndsGivesItsPlaceBackOnce) {
  // Three times as many files as may be in flight: a place that is never given back (or given back twice)
  // stops the later files from starting.
  const std::size_t files = 3 * ZRVPatcher::kFilesInFlight;
  const ZRVError failed = ZRVError::library("ManagedFile", 3, "");
  const struct {
    const char* name;
    std::function<void(const FileCallbacks&)> work;
    int completions, failures, reportsPerFile;
  } cases[] = {
      {"reports done", [](const FileCallbacks& c) { c.status("s"); c.completion(true, "done"); }, 1, 0, 2},
      {"fails", [&](const FileCallbacks& c) { c.failure(failed); }, 0, 1, 0},
      {"fails everywhere: silent", [](const FileCallbacks& c) { c.settledSilently(); }, 0, 0, 0},
      {"lets go of its callbacks unheard", [](const FileCallbacks&) {}, 0, 0, 0},
      {"reports twice, then goes silent",
       [](const FileCallbacks& c) { c.completion(true, "a"); c.completion(true, "b"); c.settledSilently(); }, 1, 0, 2},
      {"silent, then reports", [](const FileCallbacks& c) { c.settledSilently(); c.completion(true, "late"); }, 0, 0, 1},
      {"reports later on another thread",
       [](const FileCallbacks& c) { ZRVOperationQueue::workQueue().addOperationWithBlock([c] { c.completion(true, "done"); }); },
       1, 0, 1},
      {"throws", [](const FileCallbacks&) { throw std::runtime_error("corrupt"); }, 1, 0, 0},
  };
  for (const auto& c : cases) {
    ObservedRun observed;
    std::atomic<std::size_t> started{0};
    observed.start(files, [&](const FileCallbacks& callbacks) {
      struct CountedOnTheWayOut {  // once the work is over, however it ended
        std::atomic<std::size_t>& count;
        ~CountedOnTheWayOut() { ++count; }
      } counted{started};
      c.work(callbacks);
    });
    const bool ends = c.completions + c.failures > 0;
    ASSERT_TRUE(eventually([&] {
      return started.load() == files && observed.run->gate().inFlight() == 0 && (!ends || observed.outcomes() > 0);
    })) << c.name << ": " << started.load() << " started";
    EXPECT_EQ(observed.completions.load(), c.completions) << c.name;
    std::lock_guard lock(observed.mutex);
    EXPECT_EQ(observed.failureCodes.size(), static_cast<std::size_t>(c.failures)) << c.name;
    EXPECT_EQ(observed.reports.load(), static_cast<int>(files) * c.reportsPerFile) << c.name;
  }
}

TEST(UpdateRun, TheFirstFailureIsTheOneReported) {
  for (const auto& order : std::vector<std::vector<long>>{{7, 3, 5}, {3, 7, 5}}) {
    ObservedRun observed;
    std::mutex mutex;
    std::vector<FileCallbacks> held;
    observed.start(order.size(), [&](const FileCallbacks& callbacks) {
      std::lock_guard lock(mutex);
      held.push_back(callbacks);
    });
    ASSERT_TRUE(eventually([&] {
      std::lock_guard lock(mutex);
      return held.size() == order.size();
    }));
    for (std::size_t i = 0; i < order.size(); ++i) held[i].failure(ZRVError::library("ManagedFile", order[i], ""));
    ASSERT_TRUE(eventually([&] { return observed.outcomes() > 0; }));
    std::lock_guard lock(observed.mutex);
    EXPECT_EQ(observed.failureCodes, std::vector<long>{order.front()});
    EXPECT_EQ(observed.completions.load(), 0);
    EXPECT_FALSE(observed.run->updateSuccessful());
  }
}

TEST(UpdateRun, FilesAreListedOnlyAsTheGateHasRoomForThem) {
  // However long the list, no more items exist at once than files in flight: a long manifest costs no memory
  // per file. The work counts its item as gone when it starts, while the item still holds its place.
  ObservedRun observed;
  const int files = 20 * static_cast<int>(ZRVPatcher::kFilesInFlight);
  std::atomic<int> made{0}, alive{0}, mostAlive{0};
  auto work = [&](const FileCallbacks& callbacks) {
    --alive;
    callbacks.completion(true, "done");
  };
  zrv::update::FileItemFeed::start(
      observed.run->gate(),
      [&]() -> std::optional<FileItem> {
        if (made == files) return std::nullopt;
        ++made;
        mostAlive = std::max(mostAlive.load(), ++alive);
        return zrv::update::makeFileItem(observed.run, 0, work);
      },
      ZRVOperation::operationWithBlock([run = observed.run] { run->reportOutcome(); }));
  ASSERT_TRUE(eventually([&] { return observed.outcomes() > 0; }));
  EXPECT_EQ(made.load(), files);
  EXPECT_EQ(observed.reports.load(), files);
  EXPECT_EQ(observed.completions.load(), 1);
  EXPECT_LE(mostAlive.load(), static_cast<int>(ZRVPatcher::kFilesInFlight));
}
