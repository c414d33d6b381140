#include "launch/GameProcess.h"

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVFormat.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

extern char** environ;

namespace fs = std::filesystem;

namespace zrv::launch::GameProcess {

namespace {

void setVariable(std::vector<std::string>& environment, const std::string& name,
                 const std::optional<std::string>& value) {
  const std::string prefix = name + "=";
  std::erase_if(environment, [&](const std::string& entry) { return entry.starts_with(prefix); });
  if (value) environment.push_back(prefix + *value);
}

// Owns the spawn attributes and file actions, which must be destroyed whatever happens.
struct SpawnSettings {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  SpawnSettings() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
  }
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
};

[[noreturn]] void fail(const char* step, int errorNumber, const fs::path& executable) {
  throw ZRVException("GameLaunchException",
                     ZRVFormat("%@ failed for \"%@\": %@", step, executable, std::strerror(errorNumber)));
}

}  // namespace

std::vector<std::string> environmentFor(const fs::path& container, const std::optional<std::string>& cookie,
                                        const std::optional<std::string>& gameserver, bool persistent) {
  std::vector<std::string> environment;
  for (char** entry = environ; entry && *entry; ++entry) environment.emplace_back(*entry);
  const std::string libraries = (container / "Libraries.bundle").string();
  const std::string frameworks = (container / "Frameworks").string();
  setVariable(environment, "ZRV_PLAYCOOKIE", cookie);
  setVariable(environment, "ZRV_GAMESERVER", gameserver);
  setVariable(environment, "ZRV_PERSISTCOOKIE", std::string(persistent ? "1" : "0"));
  setVariable(environment, "DYLD_LIBRARY_PATH", libraries);
  setVariable(environment, "DYLD_FRAMEWORK_PATH", frameworks);
  // The loader of this system reads its own variable; an inherited value is replaced, not extended.
  setVariable(environment, "LD_LIBRARY_PATH", libraries + ":" + frameworks);
  return environment;
}

pid_t spawn(const fs::path& executable, const fs::path& directory, const std::vector<std::string>& environment) {
  SpawnSettings settings;
  int result = posix_spawn_file_actions_addchdir_np(&settings.actions, directory.c_str());
  if (result != 0) fail("posix_spawn_file_actions_addchdir_np", result, executable);
  // Every descriptor of the launcher above standard error stays behind, whoever opened it and however.
  result = posix_spawn_file_actions_addclosefrom_np(&settings.actions, STDERR_FILENO + 1);
  if (result != 0) fail("posix_spawn_file_actions_addclosefrom_np", result, executable);

  // The game starts with default signal handling and nothing blocked, whatever this thread had.
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&settings.attributes, &none);
  posix_spawnattr_setsigdefault(&settings.attributes, &all);
  posix_spawnattr_setflags(&settings.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<char*> environmentPointers;
  environmentPointers.reserve(environment.size() + 1);
  for (const std::string& entry : environment) environmentPointers.push_back(const_cast<char*>(entry.c_str()));
  environmentPointers.push_back(nullptr);
  std::string path = executable.string();
  char* arguments[] = {path.data(), nullptr};

  pid_t process = 0;
  result = posix_spawn(&process, path.c_str(), &settings.actions, &settings.attributes, arguments,
                       environmentPointers.data());
  if (result != 0) fail("posix_spawn", result, executable);
  return process;
}

void watch(pid_t process, std::function<void(int status)> ended) {
  std::thread([process, ended = std::move(ended)] {
    int status = 0;
    pid_t waited;
    do {
      waited = ::waitpid(process, &status, 0);
    } while (waited < 0 && errno == EINTR);
    int exitStatus = 0;
    if (waited < 0) {
      exitStatus = 128;  // someone else collected the game: its status is lost
    } else if (WIFEXITED(status)) {
      exitStatus = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
      exitStatus = 128 + WTERMSIG(status);
    }
    ended(exitStatus);
  }).detach();
}

}  // namespace zrv::launch::GameProcess
