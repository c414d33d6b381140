#pragma once
// The game's process: its environment, its start with posix_spawn and the watcher of its end.

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zrv::launch::GameProcess {

/// The launcher's own environment with the game's variables set (or removed, for an absent value).
std::vector<std::string> environmentFor(const std::filesystem::path& container, const std::optional<std::string>& cookie,
                                        const std::optional<std::string>& gameserver, bool persistent);

/// Starts `executable` without arguments in `directory` with `environment`. Only standard input, output and
/// error reach the game. Throws ZRVException when the game cannot be started.
pid_t spawn(const std::filesystem::path& executable, const std::filesystem::path& directory,
            const std::vector<std::string>& environment);

/// Waits on a thread of its own for `process` to end and calls `ended` there with its exit status
/// (128 plus the signal number for a game killed by a signal).
void watch(pid_t process, std::function<void(int status)> ended);

}  // namespace zrv::launch::GameProcess
