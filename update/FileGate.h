#pragma once
// Lets a bounded number of game files be worked on at once, without a thread waiting for a turn: a file
// that cannot start now is started by the one that leaves. The updater queues a file's work item only from
// `start`, so a waiting file is no queued work either and cannot make the work queue start threads. Besides
// the count, the bytes that the files in flight hold in memory are bounded, each file counted at what its
// caller says it will hold. A file that claims more than the whole budget still goes, alone.
//
// A file's place is a Ticket, handed to `start`. The place is given back when the ticket is released or
// destroyed, whichever comes first, and only then: a ticket cannot be copied, and a released ticket is empty.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace zrv::update {

class FileGate : public std::enable_shared_from_this<FileGate> {
 public:
  class Ticket {
   public:
    Ticket() = default;
    Ticket(Ticket&& other) noexcept
        : gate_(std::move(other.gate_)), bytes_(std::exchange(other.bytes_, 0)) {}
    Ticket& operator=(Ticket&& other) noexcept {
      if (this != &other) {
        release();
        gate_ = std::move(other.gate_);
        bytes_ = std::exchange(other.bytes_, 0);
      }
      return *this;
    }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;
    ~Ticket() { release(); }

    /// Gives the place back; the ticket is empty afterwards, so a second release does nothing.
    void release() {
      if (auto gate = std::move(gate_)) gate->leave(std::exchange(bytes_, 0));
    }
    /// True while the ticket holds a place.
    explicit operator bool() const { return gate_ != nullptr; }

   private:
    friend class FileGate;
    Ticket(std::shared_ptr<FileGate> gate, std::uintmax_t bytes) : gate_(std::move(gate)), bytes_(bytes) {}

    std::shared_ptr<FileGate> gate_;
    std::uintmax_t bytes_ = 0;
  };
  using Start = std::function<void(Ticket)>;

  /// Tickets keep their gate alive, so a gate is always shared.
  static std::shared_ptr<FileGate> make(std::size_t width, std::uintmax_t byteBudget) {
    return std::shared_ptr<FileGate>(new FileGate(width, byteBudget));
  }

  /// Runs `start` with the file's ticket now if the file fits, else when enough has left (on the thread that
  /// releases). Files start in the order they entered.
  void enter(std::uintmax_t bytes, Start start) {
    {
      std::lock_guard lock(mutex_);
      if (!waiting_.empty() || !fits(bytes)) {
        waiting_.push_back({bytes, std::move(start)});
        anyWaiting_.store(true, std::memory_order_release);
        return;
      }
      admit(bytes);
    }
    start(Ticket(shared_from_this(), bytes));
  }

  /// Files holding a place now.
  std::size_t inFlight() const {
    std::lock_guard lock(mutex_);
    return count_;
  }

  /// True while no file waits and another would find a free place by count (its bytes may still hold it back).
  /// Read without the lock, as a hint for a caller deciding whether to make its next file now: `enter` decides,
  /// so a stale answer costs at most a file that waits for its turn.
  bool hasFreePlace() const {
    return !anyWaiting_.load(std::memory_order_acquire) && count_.load(std::memory_order_acquire) < width_;
  }

  /// Called on the releasing thread, outside the gate's lock, each time a place is given back and the waiting
  /// files that fit have started: a caller that makes its files only as they can go adds the next one here.
  /// An empty function ends the calls; the gate holds `refill` (and what it holds) until then.
  void setRefill(std::function<void()> refill) {
    auto shared = refill ? std::make_shared<const std::function<void()>>(std::move(refill)) : nullptr;
    std::lock_guard lock(mutex_);
    refill_ = std::move(shared);
  }

 private:
  struct Waiting {
    std::uintmax_t bytes;
    Start start;
  };

  FileGate(std::size_t width, std::uintmax_t byteBudget) : width_(width), byteBudget_(byteBudget) {}

  /// Only a ticket gives a place back; starts the waiting files that now fit.
  void leave(std::uintmax_t bytes) {
    std::vector<Waiting> starting;
    std::shared_ptr<const std::function<void()>> refill;  // shared, not copied: leaving allocates nothing
    {
      std::lock_guard lock(mutex_);
      --count_;
      bytesInFlight_ -= bytes;
      while (!waiting_.empty() && fits(waiting_.front().bytes)) {
        admit(waiting_.front().bytes);
        starting.push_back(std::move(waiting_.front()));
        waiting_.pop_front();
      }
      anyWaiting_.store(!waiting_.empty(), std::memory_order_release);
      refill = refill_;
    }
    for (auto& file : starting) file.start(Ticket(shared_from_this(), file.bytes));
    if (refill) (*refill)();
  }

  bool fits(std::uintmax_t bytes) const {
    return count_ == 0 || (count_ < width_ && bytesInFlight_ + bytes <= byteBudget_);
  }
  void admit(std::uintmax_t bytes) {
    ++count_;
    bytesInFlight_ += bytes;
  }

  const std::size_t width_;
  const std::uintmax_t byteBudget_;
  mutable std::mutex mutex_;
  std::atomic<std::size_t> count_{0};  // changed under the lock; hasFreePlace reads it without
  std::uintmax_t bytesInFlight_ = 0;
  std::deque<Waiting> waiting_;
  std::atomic<bool> anyWaiting_{false};  // !waiting_.empty(), for hasFreePlace
  std::shared_ptr<const std::function<void()>> refill_;
};

}  // namespace zrv::update
