#pragma once
// Starts the game from the container and reports when it started and when it exited, on the main queue.
// The first use in a process unpacks the launcher's "Frameworks.zip" into the container.

#include <ZRVKit/ZRVKitExport.h>
#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

class ZRVKIT_EXPORT ZRVGameManager {
 public:
  using Started = std::function<void(bool started)>;
  using Exited = std::function<void(bool exited, int status)>;

  /// The exit status reported for a game that could not be started.
  static constexpr int kGameNotStartedStatus = 1000;

  /// The shared manager; the first call unpacks the launcher's frameworks into the container before it
  /// returns.
  static ZRVGameManager& sharedManager();

  /// Whether a new manager performs the one-time set-up. The shared manager does; a manager of its own
  /// (an embedding application's or a test's) may choose.
  enum class SetUp { none, frameworks };
  explicit ZRVGameManager(SetUp setUp = SetUp::none);
  ZRVGameManager(const ZRVGameManager&) = delete;
  ZRVGameManager& operator=(const ZRVGameManager&) = delete;

  /// Starts container/"Quillmoor" on the work queue and returns at once. The game runs in the container with
  /// the launcher's environment plus the cookie, the game server, the persistence flag and the library
  /// paths, and inherits standard input, output and error only. `started(true)` and later
  /// `exited(true, status)` run on the main queue, in that order; a game that cannot be started gets only
  /// `exited(true, 1000)`. A game killed by a signal reports 128 plus the signal number. An absent cookie or
  /// game server removes the variable. `exited` must be given.
  void startGameWithCookie(std::optional<std::string> cookie, std::optional<std::string> gameserver, bool persistent,
                           Started started, Exited exited);

  /// A text slot for the embedding application; the library neither reads nor writes it.
  std::string output() const;
  void setOutput(std::string output);

  /// The process of the most recent start (0 before the first, and after a start that failed).
  pid_t task() const;
  void setTask(pid_t task);

 private:
  struct State;

  void _performOneTimeSetup();
  static void _launch(const std::shared_ptr<State>& state, const std::optional<std::string>& cookie,
                      const std::optional<std::string>& gameserver, bool persistent, const Started& started,
                      const Exited& exited);

  std::shared_ptr<State> state_;
};
