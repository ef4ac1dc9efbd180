#include "network/https_delivery.hpp"

#include <algorithm>
#include <iterator>
#include <thread>

#include "model/identifying.hpp"
#include "network/answer.hpp"
#include "network/http_api.hpp"
#include "platform/file_ops.hpp"
#include "store/pending_frames.hpp"
#include "support/diagnostics.hpp"
#include "support/settings.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {

namespace {

void joinRecords(std::vector<std::string>& into, std::vector<std::string>& from) {
  into.insert(into.end(), std::make_move_iterator(from.begin()),
              std::make_move_iterator(from.end()));
}

}  // namespace

HttpsDelivery::HttpsDelivery(std::shared_ptr<network::HttpClient> http,
                             std::filesystem::path dataDirectory, ZStoreLimits limits,
                             support::RetryTimings retryTimings,
                             std::shared_ptr<support::SerialQueue> worker,
                             std::shared_ptr<support::RetryPolicy> retryPolicy)
    : http_(std::move(http)),
      limits_(limits),
      worker_(worker ? std::move(worker)
                     : std::make_shared<support::SerialQueue>(
                           "com.zelvanor.sdk.worker", &platform::lowerCurrentThreadPriority)),
      window_(std::clamp<std::uint64_t>(limits.maxRecordsInMemory, kMaxInFlight, kMaxOutstanding)),
      store_(std::move(dataDirectory), limits, line_),
      retryPolicy_(retryPolicy ? std::move(retryPolicy)
                               : std::make_shared<support::RetryPolicy>(retryTimings)) {
  store_.setStopFlag(&stopped_);
}

// Work still queued holds only a weak reference: it finds this delivery gone and does nothing.
HttpsDelivery::~HttpsDelivery() = default;

void HttpsDelivery::restore(std::function<void(std::uint64_t)> restored) {
  worker_->async([weak = weak_from_this(), restored = std::move(restored)]() mutable {
    auto self = weak.lock();
    if (!self) return;
    const std::uint64_t count = self->store_.open();
    {
      std::lock_guard lock(self->mutex_);
      self->counts_.restored = count;
    }
    self->bytesOnDisk_.store(self->store_.bytesOnDisk());
    self->syncStoreCounts();
    restored(count);
    if (self->store_.openUnfinished()) self->retryOpenLater(std::move(restored));
  });
}

void HttpsDelivery::retryOpenLater(std::function<void(std::uint64_t)> restored) {
  // Another process still holds the store (most often the last run, still shutting down): what
  // it leaves behind is taken over as soon as it lets go, not at the next start.
  worker_->asyncAfter(retryPolicy_->failed(support::RetryReason::storeBusy),
                      [weak = weak_from_this(), restored = std::move(restored)]() mutable {
                        auto self = weak.lock();
                        if (!self || self->stopped_.load()) return;
                        const std::uint64_t found = self->store_.retryOpen();
                        if (found > 0) {
                          {
                            std::lock_guard lock(self->mutex_);
                            self->counts_.restored += found;
                          }
                          self->bytesOnDisk_.store(self->store_.bytesOnDisk());
                          self->syncStoreCounts();
                          restored(found);
                        }
                        if (self->store_.openUnfinished()) {
                          self->retryOpenLater(std::move(restored));
                        } else {
                          self->retryPolicy_->succeeded(support::RetryReason::storeBusy);
                        }
                      });
}

std::uint64_t HttpsDelivery::room() const {
  const std::uint64_t taken = outstanding_.load();
  return taken >= window_ ? 0 : window_ - taken;
}

std::uint64_t HttpsDelivery::recordsHeld() const {
  // Records taken for the network include those it reads from disk: counted as if in memory,
  // which only makes the queue move its own to disk a little sooner.
  return outstanding_.load(std::memory_order_relaxed) +
         toDiskInInbox_.load(std::memory_order_relaxed);
}

void HttpsDelivery::keepPaceWithDisk() {
  if (toDiskInInbox_.load() < limits_.maxRecordsInMemory || worker_->isCurrent()) return;
  std::unique_lock lock(mutex_);
  if (stopped_.load() || paceGivenUpAt_ == inboxesTaken_) return;
  const std::uint64_t takenBefore = inboxesTaken_;
  const bool caughtUp = inboxTaken_.wait_for(lock, kPaceLimit, [&] {
    return stopped_.load() || toDiskInInbox_.load() < limits_.maxRecordsInMemory;
  });
  if (!caughtUp && inboxesTaken_ == takenBefore) paceGivenUpAt_ = inboxesTaken_;
}

void HttpsDelivery::setListener(std::function<void()> listener) {
  std::lock_guard lock(mutex_);
  listener_ = std::move(listener);
}

void HttpsDelivery::post(Command command) {
  inbox_.push_back(std::move(command));
  if (!drainQueued_) {
    drainQueued_ = true;
    // Hand-overs from the host gather for a moment (a timer: the worker serves the network
    // meanwhile); those the worker makes itself (the queue refilling the window after answers)
    // are taken at once. Shutdown does not wait for the window, nor does a burst already past
    // the memory limit: those records belong on disk now.
    auto drain = [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->drainInbox();
    };
    if (!worker_->isCurrent() && !stopped_.load() &&
        toDiskInInbox_.load() < limits_.maxRecordsInMemory) {
      worker_->asyncAfter(kGatherWindow, std::move(drain));
    } else {
      worker_->async(std::move(drain));
    }
  }
}

void HttpsDelivery::send(std::uint64_t diskThrough, std::vector<std::string> records,
                         bool networkAvailable) {
  // The sandbox switch and the timeout apply as the record is handed over, as if its request
  // were built now; the request itself is built when a connection is free.
  const RequestSettings settings = RequestSettings::current();
  {
    std::lock_guard lock(mutex_);
    if (!stopped_.load()) {
      // Records on disk count once read (then they are in flight); until then a wait for them
      // watches the line.
      unsettled_ += records.size();
      if (networkAvailable) {
        outstanding_ += records.size();
        diskWanted_ = std::max(diskWanted_, diskThrough);
      } else {
        toDiskInInbox_ += records.size();
      }
      // Queued under the lock that shutdown takes to stop: the drain runs before shutdown's own
      // work on the worker, so every record is either sent or kept.
      post(SendCommand{diskThrough, std::move(records), networkAvailable, settings});
      return;
    }
  }
  // Handed over after shutdown began: nothing will send them now. Those on disk stay there.
  for (auto& record : records) keepLate(std::move(record));
}

void HttpsDelivery::networkChanged(bool available) {
  worker_->async([weak = weak_from_this(), available] {
    auto self = weak.lock();
    if (!self || self->stopped_.load()) return;
    const bool returned = available && !self->networkAvailable_;
    self->networkAvailable_ = available;
    if (!returned) return;
    // The way out is back: no reason left to wait, and what was kept meanwhile goes now.
    self->retryPolicy_->succeeded(support::RetryReason::collector);
    self->probing_ = false;
    self->retryKept();
    self->startWaiting();
  });
}

void HttpsDelivery::spill(std::vector<std::string> records) {
  {
    std::lock_guard lock(mutex_);
    if (!stopped_.load()) {
      toDiskInInbox_ += records.size();
      line_->join(records.size());
      post(SpillCommand{std::move(records)});
      return;
    }
  }
  for (auto& record : records) keepLate(std::move(record));
}

void HttpsDelivery::spillFromKeptTemplates(std::vector<std::string> records) {
  {
    std::lock_guard lock(mutex_);
    if (!stopped_.load()) {
      toDiskInInbox_ += records.size();
      line_->join(records.size());
      post(SpillCommand{std::move(records), /*fromKeptTemplates=*/true});
      return;
    }
  }
  // Shutdown rewrites the templates file; these are kept behind the unsent ones.
  for (auto& record : records) keepLate(std::move(record));
}

void HttpsDelivery::keepLate(std::string record) {
  {
    std::unique_lock lock(mutex_);
    if (!lateDoorClosed_) {
      // Shutdown keeps these behind the unsent ones, on the worker.
      late_.push_back(std::move(record));
      return;
    }
    // The worker is writing the last of them; this one goes after it.
    lateDone_.wait(lock, [&] { return lateWritten_; });
  }
  // Shutdown is over; nothing else will keep it.
  (void)store_.appendAfterClose(record);
}

std::vector<std::string> HttpsDelivery::takeKeptTemplates() {
  std::vector<std::string> templates;
  worker_->sync([&] { templates = store_.takeTemplates(); });
  return templates;
}

void HttpsDelivery::drainInbox() {
  {
    std::lock_guard lock(mutex_);
    draining_.swap(inbox_);
    drainQueued_ = false;
  }
  // A burst arrives as many hand-overs of a record or a few: consecutive ones bound for disk the
  // same way are written together, one write for the lot, so that the worker keeps up with a
  // host tracking as fast as it can and what goes beyond the memory limit is on disk promptly.
  std::uint64_t toDisk = 0;
  for (std::size_t i = 0; i < draining_.size(); ++i) {
    if (auto* sendCommand = std::get_if<SendCommand>(&draining_[i])) {
      while (!sendCommand->networkAvailable && i + 1 < draining_.size()) {
        auto* next = std::get_if<SendCommand>(&draining_[i + 1]);
        if (!next || next->networkAvailable) break;
        joinRecords(sendCommand->records, next->records);
        sendCommand->diskThrough = std::max(sendCommand->diskThrough, next->diskThrough);
        ++i;
      }
      if (!sendCommand->networkAvailable) toDisk += sendCommand->records.size();
      handleSend(*sendCommand);
    } else {
      auto& spillCommand = std::get<SpillCommand>(draining_[i]);
      while (!spillCommand.fromKeptTemplates && i + 1 < draining_.size()) {
        auto* next = std::get_if<SpillCommand>(&draining_[i + 1]);
        if (!next || next->fromKeptTemplates) break;
        joinRecords(spillCommand.records, next->records);
        ++i;
      }
      toDisk += spillCommand.records.size();
      handleSpill(spillCommand);
    }
  }
  toDiskInInbox_ -= std::min(toDiskInInbox_.load(), toDisk);
  {
    std::lock_guard lock(mutex_);
    ++inboxesTaken_;
  }
  inboxTaken_.notify_all();
  draining_.clear();  // every record was moved out: the capacity is what is kept
  notifyQueue();
}

void HttpsDelivery::handleSend(SendCommand& command) {
  diskLetGo_ = std::max(diskLetGo_, command.diskThrough);
  if (!command.networkAvailable) {
    // Gate closed: the records wait for a later start. Those on disk already are; they stay, and
    // go out once the network returns.
    const std::uint64_t count = command.records.size();
    if (count > 0 && diagnosing(ZLogLevel::info)) {
      diagnose(ZLogLevel::info, std::to_string(count) +
                                    " record(s) kept on disk: the network is offline; they go "
                                    "out when it returns");
    }
    keptToRetry_ = true;
    keep(std::move(command.records));
    settle(count, false);
    return;
  }
  sendFromDiskThrough(command.diskThrough, command.settings);
  for (auto& record : command.records) {
    waiting_.push_back(
        Waiting{std::move(record), command.diskThrough, command.settings, std::nullopt, {}});
  }
  startWaiting();
}

void HttpsDelivery::handleSpill(SpillCommand& command) {
  std::size_t written = 0;
  // Behind records the disk would not take, nothing may go to disk first: order is the point.
  if (spillBacklog_.empty()) written = store_.spill(command.records);
  // Only once they are all on disk: in memory they would be lost to a kill with their templates.
  if (command.fromKeptTemplates && written == command.records.size()) store_.forgetTakenTemplates();
  for (std::size_t i = written; i < command.records.size(); ++i) {
    spillBacklog_.push_back(std::move(command.records[i]));
  }
  std::uint64_t dropped = 0;
  while (spillBacklog_.size() > limits_.maxRecordsInMemory) {
    spillBacklog_.pop_front();
    ++dropped;
  }
  line_->leave(dropped);
  backlogDropped_ += dropped;
  syncStoreCounts();
  if (!spillBacklog_.empty()) scheduleRetry();
  bytesOnDisk_.store(store_.bytesOnDisk());
}

}  // namespace zelvanor::detail
