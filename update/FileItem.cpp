#include "update/FileItem.h"

#include <ZRVKit/ZRVLog.h>
#include <ZRVKit/ZRVOperation.h>
#include <ZRVKit/ZRVOperationQueue.h>

#include "update/UpdateRun.h"

#include <mutex>

namespace zrv::update {

namespace {

// The one end of a file's work. The first report or silence wins; later calls do nothing. If the file lets go
// of its callbacks without calling one, the ticket goes back as the last of them is destroyed.
class FileEnding {
 public:
  FileEnding(FileGate::Ticket ticket, std::function<void()> finishItem)
      : ticket_(std::move(ticket)), finishItem_(std::move(finishItem)) {}

  void reported() { end(true); }
  void wentSilent() { end(false); }

 private:
  void end(bool finishesItem) {
    FileGate::Ticket ticket;
    std::function<void()> finishItem;
    {
      std::lock_guard lock(mutex_);
      if (ended_) return;
      ended_ = true;
      ticket = std::move(ticket_);
      finishItem = std::move(finishItem_);
    }
    ticket.release();  // the next file may start before this item ends
    if (finishesItem) finishItem();
  }

  std::mutex mutex_;
  bool ended_ = false;
  FileGate::Ticket ticket_;
  std::function<void()> finishItem_;
};

FileCallbacks callbacksEndingIn(const std::shared_ptr<UpdateRun>& run, const std::shared_ptr<FileEnding>& ending) {
  FileCallbacks callbacks;
  // A file reports a status only on its way to being patched or downloaded; one that is up to date only completes.
  callbacks.status = [run](const std::string& text) {
    run->noteChangingInstall();
    run->reportStatus(text);
  };
  callbacks.completion = [run, ending](bool, const std::string& text) {
    run->reportStatus(text);
    ending->reported();
  };
  callbacks.failure = [run, ending](const ZRVError& error) {
    run->recordFileFailure(error);
    ZRV_LOG_METHOD_ERROR("ZRVPatcher", "_patchGameFilesIfNecessary", error.localizedDescription());
    ending->reported();
  };
  callbacks.settledSilently = [ending] { ending->wentSilent(); };
  return callbacks;
}

}  // namespace

FileItem makeFileItem(const std::shared_ptr<UpdateRun>& run, std::uintmax_t bytes, FileWork work) {
  // Admission happens before the item is queued, so the queue hands the ticket over to the item's block.
  auto admitted = std::make_shared<FileGate::Ticket>();
  FileItem item;
  item.bytes = bytes;
  item.operation = ZRVOperation::asynchronousOperationWithBlock(
      [run, admitted, work = std::move(work)](std::function<void()> finish) {
        auto ending = std::make_shared<FileEnding>(std::move(*admitted), std::move(finish));
        work(callbacksEndingIn(run, ending));
      });
  item.admit = [admitted, operation = item.operation](FileGate::Ticket ticket) {
    *admitted = std::move(ticket);
    ZRVOperationQueue::workQueue().addOperation(operation);
  };
  return item;
}

// An item may end before the next is made, or before `final` is queued: a dependency that has already ended
// counts as met, and `final` becomes ready only once it is queued, so it cannot run before the last item.
void FileItemFeed::start(FileGate& gate, Next next, std::shared_ptr<ZRVOperation> final) {
  std::shared_ptr<FileItemFeed> feed(new FileItemFeed(gate, std::move(next), std::move(final)));
  gate.setRefill([feed] { feed->fill(); });
  feed->fill();
}

// Each call asks for one look at the gate. The thread that finds no look under way makes them all, its own and
// those asked for meanwhile, so the list is never walked on two threads at once and no freed place is missed.
void FileItemFeed::fill() {
  if (looksAsked_.fetch_add(1, std::memory_order_acq_rel) != 0) return;
  do {
    while (!ended_ && gate_.hasFreePlace()) ended_ = !addNext();
  } while (looksAsked_.fetch_sub(1, std::memory_order_acq_rel) != 1);
}

bool FileItemFeed::addNext() {
  std::optional<FileItem> item = next_();
  if (!item) {
    gate_.setRefill(nullptr);  // lets go of the feed once the calls under way are done
    ZRVOperationQueue::workQueue().addOperation(final_);
    return false;
  }
  final_->addDependency(item->operation);
  gate_.enter(item->bytes, item->admit);
  return true;
}

void startFileItems(UpdateRun& run, const std::vector<FileItem>& items, const std::shared_ptr<ZRVOperation>& final) {
  auto left = std::make_shared<std::vector<FileItem>>(items);
  auto at = std::make_shared<std::size_t>(0);
  FileItemFeed::start(run.gate(), [left, at]() -> std::optional<FileItem> {
    if (*at == left->size()) return std::nullopt;
    return (*left)[(*at)++];
  }, final);
}

}  // namespace zrv::update
