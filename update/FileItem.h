#pragma once
// One game file's work item in an update run. The item waits outside the work queue until the run's file
// gate admits it, then updates its file; it ends when the file reports (done or failed). Whatever ends the
// file's work (a report, the silence of a file that could not be downloaded anywhere, or the file letting go
// of its callbacks without a word) gives the file's place at the gate back, once.

#include <ZRVKit/ZRVError.h>

#include "update/FileGate.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class ZRVOperation;

namespace zrv::update {

class UpdateRun;

/// What a file's work reports through; each may be called from any thread.
struct FileCallbacks {
  std::function<void(const std::string& text)> status;
  std::function<void(bool done, const std::string& text)> completion;
  std::function<void(const ZRVError& error)> failure;
  /// The file will say nothing more: its place goes back, and its item never ends.
  std::function<void()> settledSilently;
};

/// A file's own work: starts updating the file and ends through one of the callbacks, or through none.
using FileWork = std::function<void(const FileCallbacks& callbacks)>;

struct FileItem {
  /// Ends when the file has reported; never, when it went silent.
  std::shared_ptr<ZRVOperation> operation;
  /// What the gate counts for the file.
  std::uintmax_t bytes = 0;
  /// The gate's start: the item takes its ticket and goes to the work queue.
  std::function<void(FileGate::Ticket ticket)> admit;
};

/// An item whose status and completion texts go to the run's update handler with the run's progress, and
/// whose failure the run records (the first error wins).
FileItem makeFileItem(const std::shared_ptr<UpdateRun>& run, std::uintmax_t bytes, FileWork work);

/// Makes a run's items only as its gate has a free place for them, so that no more items (and managed files)
/// exist at once than files in flight, however long the list: a file is listed on the thread that gave a
/// place back, beside the work on the others. Items go through the gate in the order `next` makes them, and
/// `final` runs once every item has ended. The gate holds the feed until `next` has no more; the feed only
/// runs at its start and through the gate, so it can refer to the gate without holding it.
class FileItemFeed {
 public:
  /// The next item, or none when the list is done. Called by one thread at a time; must not throw.
  using Next = std::function<std::optional<FileItem>()>;

  /// Makes and starts the first items now, the others as places come free.
  static void start(FileGate& gate, Next next, std::shared_ptr<ZRVOperation> final);

 private:
  FileItemFeed(FileGate& gate, Next next, std::shared_ptr<ZRVOperation> final)
      : gate_(gate), next_(std::move(next)), final_(std::move(final)) {}
  /// Adds items while the gate has a free place; a call while another adds makes that one look again.
  void fill();
  /// Adds one item, or ends the list: false when there are no more.
  bool addNext();

  FileGate& gate_;
  Next next_;
  const std::shared_ptr<ZRVOperation> final_;
  std::atomic<int> looksAsked_{0};
  bool ended_ = false;  // only the thread making the looks reads or writes it
};

/// Queues `final` once every item has ended, then lets the items through the run's gate in their order.
void startFileItems(UpdateRun& run, const std::vector<FileItem>& items, const std::shared_ptr<ZRVOperation>& final);

}  // namespace zrv::update
