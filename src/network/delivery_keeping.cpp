// Delivery's keeping side: records written for a later attempt (and retried when the disk
// refused them), what the queue is told about room and drops, shutdown, and deletion.
#include <algorithm>

#include "network/https_delivery.hpp"
#include "support/diagnostics.hpp"

namespace zelvanor::detail {

void HttpsDelivery::keep(std::vector<std::string> records) {
  if (records.empty()) return;
  // What the disk would not take waits in memory behind earlier such records, oldest first.
  PendingStore::Kept kept;
  if (keepBacklog_.empty()) kept = store_.keep(records);
  for (std::size_t i = kept.handled(); i < records.size(); ++i) {
    keepBacklog_.push_back(std::move(records[i]));
  }
  std::uint64_t dropped = 0;
  if (keepBacklog_.size() > limits_.maxRecordsInMemory) {
    dropped = keepBacklog_.size() - limits_.maxRecordsInMemory;
    keepBacklog_.erase(keepBacklog_.begin(),
                       keepBacklog_.begin() + static_cast<std::ptrdiff_t>(dropped));
  }
  backlogDropped_ += dropped;
  {
    std::lock_guard lock(mutex_);
    counts_.keptOnDisk += kept.written;
  }
  syncStoreCounts();
  if (!keepBacklog_.empty()) scheduleRetry();
  bytesOnDisk_.store(store_.bytesOnDisk());
}

void HttpsDelivery::scheduleRetry() {
  if (retryScheduled_ || stopped_.load()) return;
  retryScheduled_ = true;
  worker_->asyncAfter(retryPolicy_->failed(support::RetryReason::diskRefused),
                      [weak = weak_from_this()] {
                        if (auto self = weak.lock()) self->retryWrites();
                      });
}

void HttpsDelivery::retryWrites() {
  retryScheduled_ = false;
  if (!keepBacklog_.empty()) {
    const PendingStore::Kept kept = store_.keep(keepBacklog_);
    keepBacklog_.erase(keepBacklog_.begin(),
                       keepBacklog_.begin() + static_cast<std::ptrdiff_t>(kept.handled()));
    std::lock_guard lock(mutex_);
    counts_.keptOnDisk += kept.written;
  }
  if (!spillBacklog_.empty()) {
    const std::vector<std::string> batch(spillBacklog_.begin(), spillBacklog_.end());
    const std::size_t written = store_.spill(batch);
    spillBacklog_.erase(spillBacklog_.begin(),
                        spillBacklog_.begin() + static_cast<std::ptrdiff_t>(written));
  }
  bytesOnDisk_.store(store_.bytesOnDisk());
  syncStoreCounts();
  if (keepBacklog_.empty() && spillBacklog_.empty()) {
    retryPolicy_->succeeded(support::RetryReason::diskRefused);
  } else {
    scheduleRetry();
  }
  notifyQueue();
}

void HttpsDelivery::settle(std::uint64_t count, bool network) {
  std::lock_guard lock(mutex_);
  unsettled_ -= std::min(unsettled_, count);
  if (network && count > 0) {
    outstanding_ -= std::min(outstanding_.load(), count);
    roomFreed_ = true;
  }
  if (unsettled_ == 0) settled_.notify_all();
}

void HttpsDelivery::syncStoreCounts(bool last) {
  std::uint64_t newlyDropped = 0;
  std::uint64_t newlyQuarantined = 0;
  {
    std::lock_guard lock(mutex_);
    const std::uint64_t dropped = store_.counts().droppedForSpace + backlogDropped_;
    newlyDropped = dropped - std::min(dropped, counts_.droppedForSpace);
    newlyQuarantined = store_.counts().quarantined - counts_.quarantined;
    counts_.droppedForSpace = dropped;
    counts_.quarantined = store_.counts().quarantined;
  }
  // Said outside the lock: the host's sink may call back into the SDK.
  for (const auto& finding : store_.takeFindings()) {
    if (diagnosing(ZLogLevel::error))
      diagnose(ZLogLevel::error, "in the data directory, " + finding);
  }
  dropsUnsaid_ += newlyDropped;
  const auto now = std::chrono::steady_clock::now();
  if (dropsUnsaid_ > 0 && (last || !dropsSaidAt_ || now - *dropsSaidAt_ >= kDropLinesEvery)) {
    newlyDropped = std::exchange(dropsUnsaid_, 0);
    dropsSaidAt_ = now;
  } else {
    newlyDropped = 0;
  }
  if (newlyDropped > 0 && diagnosing(ZLogLevel::error)) {
    diagnose(ZLogLevel::error, std::to_string(newlyDropped) +
                                   " oldest record(s) dropped: storage full (the store may hold " +
                                   std::to_string(limits_.maxBytesOnDisk) + " bytes on disk and " +
                                   std::to_string(limits_.maxRecordsInMemory) +
                                   " records in memory, or the disk refused them)");
  }
  if (newlyQuarantined > 0 && diagnosing(ZLogLevel::error)) {
    diagnose(ZLogLevel::error, std::to_string(newlyQuarantined) +
                                   " stored record(s) unreadable, moved aside to " +
                                   std::string(PendingStore::kQuarantineFileName));
  }
}

void HttpsDelivery::notifyQueue() {
  // The queue hands over more when there is room. Called with no lock held: the queue's lock
  // comes first everywhere else.
  std::function<void()> listener;
  {
    std::lock_guard lock(mutex_);
    if (stopped_.load()) return;
    listener = listener_;
  }
  // Room is offered in large steps: one refill per half window, not one per answer. Only room
  // that answers freed is offered: a turn that only wrote to disk leaves the queue's lock to the
  // host, which a burst keeps busy.
  if (listener && roomFreed_ && room() >= window_ / 2) {
    roomFreed_ = false;
    listener();
  }
}

std::uint64_t HttpsDelivery::bytesOnDisk() const {
  return bytesOnDisk_.load();
}

void HttpsDelivery::shutdown(std::vector<std::string> unsent, std::vector<std::string> templates) {
  {
    std::lock_guard lock(mutex_);
    if (stopped_.exchange(true)) return;
  }
  inboxTaken_.notify_all();  // a host pacing itself by the disk goes on
  // A request the collector has already answered but whose answer is still on its way would be
  // kept and sent again at the next start. A short grace lets those answers land; anything slower
  // is cancelled, so exit stays quick.
  waitUntilSettled(kInFlightGrace);
  // Cancelling in-flight requests reports each as a transport failure, which the worker gathers
  // ahead of the waiting and the unsent records: file order stays send order.
  http_->shutdown();
  worker_->async([this, unsent = std::move(unsent), templates = std::move(templates)]() mutable {
    // Hand-overs still gathering: a timer that stopping the worker drops. They go first.
    drainInbox();
    // Everything undelivered in memory goes down in one batch, oldest first; records that wait
    // on disk already stay where they are, ahead of these at the next start.
    std::vector<std::string> batch = std::move(keepBacklog_);
    for (auto& record : cancelled_) batch.push_back(std::move(record));
    for (auto& item : waiting_) {
      // Records read from disk (held back by a "come back later") are still in their segment.
      if (!item.ref) batch.push_back(std::move(item.bytes));
    }
    for (auto& record : spillBacklog_) batch.push_back(std::move(record));
    for (auto& record : unsent) batch.push_back(std::move(record));
    // Records tracked while all this ran are kept behind the unsent ones. Then the door closes: a
    // host that never stops tracking must not hold shutdown up, so a later record waits for these
    // to be written and is then written by its own thread.
    {
      std::lock_guard lock(mutex_);
      for (auto& record : late_) batch.push_back(std::move(record));
      late_.clear();
      lateDoorClosed_ = true;
    }
    const PendingStore::Kept kept = store_.keep(batch);
    (void)store_.writeTemplates(templates);
    store_.close();
    bytesOnDisk_.store(store_.bytesOnDisk());
    backlogDropped_ += batch.size() - kept.handled();  // the disk would take no more
    syncStoreCounts(/*last=*/true);
    std::lock_guard lock(mutex_);
    counts_.keptOnDisk += kept.written;
    unsettled_ = 0;
    outstanding_ = 0;
    diskWanted_ = 0;
    settled_.notify_all();
    lateWritten_ = true;
    lateDone_.notify_all();
  });
  worker_->stop();
}

void HttpsDelivery::deleteLocalData() {
  worker_->sync([this] {
    std::uint64_t viaNetwork = 0;
    std::uint64_t kept = 0;
    {
      std::lock_guard lock(mutex_);
      if (stopped_.load()) return;
      for (auto& command : inbox_) {
        if (const auto* sendCommand = std::get_if<SendCommand>(&command)) {
          (sendCommand->networkAvailable ? viaNetwork : kept) += sendCommand->records.size();
        }
      }
      inbox_.clear();
    }
    viaNetwork += waiting_.size();
    waiting_.clear();
    spillBacklog_.clear();
    keepBacklog_.clear();
    cancelled_.clear();
    keptToRetry_ = false;
    retryWhenIdle_ = false;
    // Answers for requests already out find a newer generation: they keep nothing.
    ++generation_;
    store_.eraseAll();
    bytesOnDisk_.store(store_.bytesOnDisk());
    settle(viaNetwork, true);
    settle(kept, false);
  });
  notifyQueue();
}

void HttpsDelivery::resumeSending() {
  worker_->async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self || self->stopped_.load()) return;
    if (self->keptToRetry_ && !self->retryPolicy_->waiting(support::RetryReason::collector) &&
        self->networkAvailable_) {
      self->retryKept();
    }
    self->startWaiting();
    self->notifyQueue();
  });
}

HttpsDelivery::Counts HttpsDelivery::counts() const {
  std::lock_guard lock(mutex_);
  Counts counts = counts_;
  counts.awaitingAnswer = unsettled_;
  counts.bytesOnDisk = bytesOnDisk_.load();
  return counts;
}

bool HttpsDelivery::waitUntilSettled(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  // Records on disk let go with the gate open are waited for too, until they are read (and then
  // in flight) or gone. The line has no signal of its own: it is looked at in short slices.
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (unsettled_ == 0 && line_->takenThrough() >= diskWanted_) return true;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return false;
    settled_.wait_until(lock, std::min(deadline, now + kWaitSlice));
  }
}

}  // namespace zelvanor::detail
