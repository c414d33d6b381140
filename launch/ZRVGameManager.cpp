#include <ZRVKit/ZRVGameManager.h>

#include "launch/GameProcess.h"

#include <ZRVKit/SSZipArchive.h>
#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVGlobals.h>
#include <ZRVKit/ZRVLog.h>
#include <ZRVKit/ZRVMainQueue.h>

#include <atomic>
#include <mutex>

using namespace zrv::launch;

namespace fs = std::filesystem;

namespace {

constexpr const char* kClassName = "ZRVGameManager";
constexpr const char* kStartOperation = "startGameWithCookie:andGameserver:andPersistent:started:exited:";

}  // namespace

// Shared with the launch operations, so that a manager may go away while its games still run.
struct ZRVGameManager::State {
  mutable std::mutex mutex;
  std::string output;
  std::atomic<pid_t> task{0};
};

ZRVGameManager& ZRVGameManager::sharedManager() {
  // The set-up runs inside the once-only initialisation: the first caller waits for the unpacking.
  static auto* manager = new ZRVGameManager(SetUp::frameworks);
  return *manager;
}

ZRVGameManager::ZRVGameManager(SetUp setUp) : state_(std::make_shared<State>()) {
  if (setUp == SetUp::frameworks) _performOneTimeSetup();
}

std::string ZRVGameManager::output() const {
  std::lock_guard lock(state_->mutex);
  return state_->output;
}

void ZRVGameManager::setOutput(std::string output) {
  std::lock_guard lock(state_->mutex);
  state_->output = std::move(output);
}

pid_t ZRVGameManager::task() const { return state_->task.load(); }
void ZRVGameManager::setTask(pid_t task) { state_->task.store(task); }

void ZRVGameManager::_performOneTimeSetup() {
  auto archive = ZRVBundle::mainBundle().URLForResource("Frameworks", "zip");
  if (!archive) return;
  ZRVGlobals& globals = ZRVGlobals::defaultGlobals();
  // The copy is deleted after unpacking, so every process copies and unpacks the archive again.
  globals.checkCopyItemAtURLToContainer(*archive, [&](bool copied, std::optional<ZRVError> error) {
    if (!copied) return;
    fs::path container;
    try {
      container = globals.containerURL();
    } catch (const ZRVException&) {
      return;
    }
    const fs::path source = container / "Frameworks.zip";
    if (!SSZipArchive::unzipFileAtPath(source, container)) {
      ZRV_LOG_METHOD_ERROR(kClassName, "sharedManager", error ? error->localizedDescription() : "(null)");
      return;
    }
    auto logRemoval = [](bool, std::optional<ZRVError> removalError) {
      // Nothing to remove is fine: most archives carry no resource-fork folder.
      if (removalError && !removalError->hasUnderlyingPOSIX(ENOENT)) {
        ZRV_LOG_METHOD_ERROR(kClassName, "sharedManager", removalError->localizedDescription());
      }
    };
    globals.removeItemAtURLFromContainer(source, logRemoval);
    globals.removeItemAtURLFromContainer(container / "__MACOSX", logRemoval);
  });
}

void ZRVGameManager::startGameWithCookie(std::optional<std::string> cookie, std::optional<std::string> gameserver,
                                         bool persistent, Started started, Exited exited) {
  ZRVOperationQueue::workQueue().addOperationWithBlock(
      [state = state_, cookie = std::move(cookie), gameserver = std::move(gameserver), persistent,
       started = std::move(started), exited = std::move(exited)] {
        _launch(state, cookie, gameserver, persistent, started, exited);
      });
}

void ZRVGameManager::_launch(const std::shared_ptr<State>& state, const std::optional<std::string>& cookie,
                             const std::optional<std::string>& gameserver, bool persistent, const Started& started,
                             const Exited& exited) {
  fs::path container;
  try {
    container = ZRVGlobals::defaultGlobals().containerURL();
  } catch (const ZRVException& exception) {
    ZRV_LOG_METHOD_ERROR(kClassName, kStartOperation, exception.what());
    return;
  }
  // The game runs with the container as its folder, so every path handed to it must be absolute.
  container = fs::absolute(container);
  const fs::path executable = container / "Quillmoor";
  // Files carry no icons here: giving the executable the launcher's icon has nothing to do.
  const auto environment = GameProcess::environmentFor(container, cookie, gameserver, persistent);

  ZRVMainQueue& mainQueue = ZRVOperationQueue::mainQueue();
  pid_t process = 0;
  try {
    // Each start replaces the previous game as the task, even one that then fails to start.
    state->task.store(0);
    process = GameProcess::spawn(executable, container, environment);
    state->task.store(process);
  } catch (const ZRVException& exception) {
    ZRVLog::format("-[%@ %@]+%d: exception %@.", kClassName, kStartOperation, __LINE__, exception.what());
    // Callers must pass `exited`; one that did not still must not bring the launcher down here.
    mainQueue.addOperationWithBlock([exited] {
      if (exited) exited(true, kGameNotStartedStatus);
    });
    return;
  }

  // Queued on the serial main queue before the watcher exists, so started always comes before exited.
  auto startedReported = std::make_shared<std::atomic<bool>>(false);
  mainQueue.addOperationWithBlock([startedReported, started] {
    if (!startedReported->load()) {
      if (started) started(true);
      startedReported->store(true);
    }
  });
  GameProcess::watch(process, [startedReported, exited, &mainQueue](int status) {
    startedReported->store(false);
    mainQueue.addOperationWithBlock([exited, status] {
      if (exited) exited(true, status);
    });
  });
}
