// The one count of records waiting on disk to be sent. The store keeps it (what it finds at a
// start, what it drops for space, what it reads back); the queue counts it toward the batch
// threshold and lets its oldest go; delivery reads as far as the queue has let go. Nobody else
// keeps a number of records on disk.
//
// Records are numbered in the order they join the line; a position is how many have joined
// before. Those the queue has let go lie in front: "released through" is a position, and so is
// "taken through" (read for sending, or gone without being sent). A record in memory that follows
// records on disk carries the position it must wait for, not a count that could go stale.
#pragma once

#include <algorithm>
#include <cstdint>
#include <mutex>

namespace zelvanor::detail {

class DiskLine {
 public:
  /// Records joined the line behind the rest: moved to disk from the queue's memory (counted as
  /// they are handed over, before they are written), or found on disk at a start.
  void join(std::uint64_t count) {
    std::lock_guard lock(mutex_);
    joined_ += count;
  }
  /// Records joined and let go at once: this run's own kept records, sent again.
  void joinReleased(std::uint64_t count) {
    std::lock_guard lock(mutex_);
    joined_ += count;
    released_ += count;
  }
  /// Lets up to `count` of the oldest waiting ones go; how many it let go.
  std::uint64_t release(std::uint64_t count) {
    std::lock_guard lock(mutex_);
    const std::uint64_t now = std::min(count, joined_ - released_);
    released_ += now;
    return now;
  }
  /// A record let go before `through` waits to be read.
  bool mayTake(std::uint64_t through) const {
    std::lock_guard lock(mutex_);
    return mayTakeLocked(through);
  }
  /// One record let go is read for sending; false when none is let go before `through`.
  bool takeOne(std::uint64_t through) {
    std::lock_guard lock(mutex_);
    if (!mayTakeLocked(through)) return false;
    ++taken_;
    return true;
  }
  /// The oldest `count` records left the line without being sent from it: dropped for space,
  /// unreadable, or moved where a later start sends them. Those not yet let go leave the queue's
  /// count with them.
  void leave(std::uint64_t count) {
    std::lock_guard lock(mutex_);
    taken_ = std::min(joined_, taken_ + count);
    released_ = std::max(released_, taken_);
  }
  /// Everything in line is gone (the app's data was deleted). Positions go on from here.
  void clear() {
    std::lock_guard lock(mutex_);
    released_ = taken_ = joined_;
  }

  /// Records on disk (or on their way there) not yet read for sending.
  std::uint64_t waiting() const {
    std::lock_guard lock(mutex_);
    return joined_ - taken_;
  }
  /// Of those, the ones the queue has not let go: they count toward its threshold.
  std::uint64_t held() const {
    std::lock_guard lock(mutex_);
    return joined_ - released_;
  }
  std::uint64_t releasedThrough() const {
    std::lock_guard lock(mutex_);
    return released_;
  }
  std::uint64_t takenThrough() const {
    std::lock_guard lock(mutex_);
    return taken_;
  }

 private:
  bool mayTakeLocked(std::uint64_t through) const { return taken_ < std::min(released_, through); }

  mutable std::mutex mutex_;
  std::uint64_t joined_ = 0;
  std::uint64_t released_ = 0;  ///< never below taken_
  std::uint64_t taken_ = 0;
};

}  // namespace zelvanor::detail
