#pragma once
// One game file's work item in an update run. The item waits outside the work queue until the run's file
// gate admits it, then updates its file; it ends when the file reports (done or failed). Whatever ends the
// file's work (a report, the silence of a file that could not be downloaded anywhere, or the file letting go
// of its callbacks without a word) gives the file's place at the gate back, once.

#include <ZRVKit/ZRVError.h>

#include "update/FileGate.h"

#include <cstdint>
#include <functional>
#include <memory>
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

/// Starts a run's items as they are made, so the first files are worked on while later ones are still being
/// listed: each goes through the run's gate in the order given, and `final` runs once every item has ended.
class FileItemStarter {
 public:
  FileItemStarter(UpdateRun& run, std::shared_ptr<ZRVOperation> final) : run_(run), final_(std::move(final)) {}
  FileItemStarter(const FileItemStarter&) = delete;
  FileItemStarter& operator=(const FileItemStarter&) = delete;

  /// `final` waits for the item, which then goes to the gate.
  void start(const FileItem& item);
  /// There are no more items: `final` is queued, and holds no thread until every item has ended.
  void finish();

 private:
  UpdateRun& run_;
  const std::shared_ptr<ZRVOperation> final_;
};

/// Queues `final` once every item has ended, then lets the items through the run's gate in their order.
void startFileItems(UpdateRun& run, const std::vector<FileItem>& items, const std::shared_ptr<ZRVOperation>& final);

}  // namespace zrv::update
