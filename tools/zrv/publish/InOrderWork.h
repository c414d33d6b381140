#pragma once
// Items worked on by a few threads at once, started in their order while the memory they claim fits a budget,
// and finished in their order on the calling thread: the publisher makes its patches this way, so that a
// build's files use every core while at most about `budget` bytes of file contents are held at once, and its
// progress and manifest come out as from one thread.

#include <cstddef>
#include <cstdint>
#include <functional>

struct InOrderWork {
  /// Threads working at once; at least one.
  unsigned workers = 1;
  /// Bytes the started, unfinished items may claim together. An item claiming more starts alone.
  std::uintmax_t budget = 0;
  /// What item `i` claims while it runs.
  std::function<std::uintmax_t(std::size_t)> claim;
  /// Does item `i`, on a worker thread.
  std::function<void(std::size_t)> work;
  /// Told, on the calling thread, about each item in order once it and every item before it are done.
  std::function<void(std::size_t)> finished;
};

/// Runs items 0 .. count-1 as `plan` says. After an item throws no further item starts; once the started ones
/// have ended, the exception of the first failed item (in their order) is rethrown, and `finished` has been
/// told about the items before it only.
void runInOrder(std::size_t count, const InOrderWork& plan);

/// Threads for `requested` workers: 0 means one per core.
unsigned workerCount(unsigned requested);
