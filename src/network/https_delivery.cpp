#include "network/https_delivery.hpp"

#include <algorithm>
#include <iterator>
#include <thread>

#include "model/identifying.hpp"
#include "network/http_api.hpp"
#include "platform/file_ops.hpp"
#include "queue/pending_frames.hpp"
#include "support/diagnostics.hpp"
#include "support/settings.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {

namespace {

void joinRecords(std::vector<std::string>& into, std::vector<std::string>& from) {
  into.insert(into.end(), std::make_move_iterator(from.begin()),
              std::make_move_iterator(from.end()));
}

/// The record's bytes become the request's body as they are: moved, never copied. Only a
/// record that is not delivered is copied back out, to wait again.
std::shared_ptr<const std::string> shareBytes(std::string bytes) {
  return std::make_shared<const std::string>(std::move(bytes));
}

}  // namespace

HttpsDelivery::HttpsDelivery(std::shared_ptr<network::HttpClient> http,
                             std::filesystem::path dataDirectory, ZStoreLimits limits,
                             support::RetryTimings retryTimings,
                             std::shared_ptr<support::SerialQueue> worker)
    : http_(std::move(http)),
      limits_(limits),
      worker_(worker ? std::move(worker)
                     : std::make_shared<support::SerialQueue>(
                           "com.zelvanor.sdk.worker", &platform::lowerCurrentThreadPriority)),
      window_(std::clamp<std::uint64_t>(limits.maxRecordsInMemory, kMaxInFlight, kMaxOutstanding)),
      store_(std::move(dataDirectory), limits),
      backoff_(retryTimings) {
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
    if (self->store_.openUnfinished()) self->retryOpenLater(std::move(restored), kFirstOpenRetry);
  });
}

void HttpsDelivery::retryOpenLater(std::function<void(std::uint64_t)> restored,
                                   std::chrono::milliseconds wait) {
  // Another process still holds the store (most often the last run, still shutting down): what
  // it leaves behind is taken over as soon as it lets go, not at the next start.
  worker_->asyncAfter(
      wait, [weak = weak_from_this(), restored = std::move(restored), wait]() mutable {
        auto self = weak.lock();
        if (!self || self->stopped_.load()) return;
        const std::uint64_t found = self->store_.retryOpen();
        if (found > 0) {
          {
            std::lock_guard lock(self->mutex_);
            self->counts_.restored += found;
          }
          self->droppedToReport_ += self->store_.takeDroppedQueued();
          self->bytesOnDisk_.store(self->store_.bytesOnDisk());
          self->syncStoreCounts();
          restored(found);
        }
        if (self->store_.openUnfinished()) {
          self->retryOpenLater(std::move(restored), std::min(wait * 2, kLastOpenRetry));
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

void HttpsDelivery::setListener(std::function<void(std::uint64_t)> listener) {
  std::lock_guard lock(mutex_);
  listener_ = std::move(listener);
}

void HttpsDelivery::post(Command command) {
  inbox_.push_back(std::move(command));
  if (!drainQueued_) {
    drainQueued_ = true;
    // Hand-overs from the host gather for a moment; those the worker makes itself (the queue
    // refilling the window after answers) are taken at once.
    const bool gather = !worker_->isCurrent();
    worker_->async([weak = weak_from_this(), gather] {
      if (auto self = weak.lock()) self->drainInbox(gather);
    });
  }
}

void HttpsDelivery::send(std::uint64_t fromDisk, std::vector<std::string> records,
                         bool networkAvailable) {
  // The sandbox switch and the timeout apply as the record is handed over, as if its request
  // were built now; the request itself is built when a connection is free.
  const RequestSettings settings = RequestSettings::current();
  {
    std::lock_guard lock(mutex_);
    if (!stopped_.load()) {
      const std::uint64_t count = fromDisk + records.size();
      unsettled_ += count;
      if (networkAvailable) {
        outstanding_ += count;
      } else {
        toDiskInInbox_ += records.size();
      }
      // Queued under the lock that shutdown takes to stop: the drain runs before shutdown's own
      // work on the worker, so every record is either sent or kept.
      post(SendCommand{fromDisk, std::move(records), networkAvailable, settings});
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
    self->backoff_.succeeded();
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
  if (!store_.hasDirectory()) return;
  std::string frame;
  appendFrame(frame, record);
  (void)platform::appendPrivate(store_.pendingFile(), frame);
}

std::vector<std::string> HttpsDelivery::takeKeptTemplates() {
  std::vector<std::string> templates;
  worker_->sync([&] { templates = store_.takeTemplates(); });
  return templates;
}

void HttpsDelivery::drainInbox(bool gather) {
  // Let a burst gather: hand-overs made meanwhile join this drain without waking the worker.
  // Shutdown does not wait for the window; it has already stopped new hand-overs. Nor does a
  // burst already past the memory limit: those records belong on disk now.
  if (gather && !stopped_.load() && toDiskInInbox_.load() < limits_.maxRecordsInMemory) {
    std::this_thread::sleep_for(kGatherWindow);
  }
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
        // Records a later hand-over reads from disk would come between: not joined.
        if (!next || next->networkAvailable || next->fromDisk > 0) break;
        joinRecords(sendCommand->records, next->records);
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
  draining_.clear();  // every record was moved out: the capacity is what is kept
  notifyQueue();
}

void HttpsDelivery::handleSend(SendCommand& command) {
  if (!command.networkAvailable) {
    // Gate closed: the records wait for a later start. Those on disk already are; they stay.
    std::vector<std::string> toKeep;
    std::uint64_t alreadyOnDisk = 0;
    for (std::uint64_t i = 0; i < command.fromDisk; ++i) {
      auto queued = nextQueued();
      // Past a long run of unreadable pieces the reading goes on, unless shutdown began.
      while (!queued && store_.readPaused() && !stopped_.load()) queued = nextQueued();
      if (!queued) break;
      if (queued->ref) {
        store_.unsent(*queued->ref);
        ++alreadyOnDisk;
      } else {
        toKeep.push_back(*queued->bytes);
      }
    }
    for (auto& record : command.records) toKeep.push_back(std::move(record));
    {
      std::lock_guard lock(mutex_);
      counts_.keptOnDisk += alreadyOnDisk;
    }
    if (diagnosing(ZLogLevel::info)) {
      diagnose(ZLogLevel::info, std::to_string(command.fromDisk + command.records.size()) +
                                    " record(s) kept on disk: the network is offline; they go "
                                    "out when it returns");
    }
    keptToRetry_ = true;
    keep(std::move(toKeep));
    settle(command.fromDisk + command.records.size(), false);
    return;
  }
  if (command.fromDisk > 0) {
    waiting_.push_back(Waiting{{}, command.fromDisk, command.settings, std::nullopt, std::nullopt});
  }
  for (auto& record : command.records) {
    waiting_.push_back(Waiting{std::move(record), 0, command.settings, std::nullopt, std::nullopt});
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
  droppedToReport_ += dropped + store_.takeDroppedQueued();
  backlogDropped_ += dropped;
  syncStoreCounts();
  if (!spillBacklog_.empty()) scheduleRetry();
  bytesOnDisk_.store(store_.bytesOnDisk());
}

std::optional<HttpsDelivery::Next> HttpsDelivery::nextQueued() {
  if (auto read = store_.next()) return Next{shareBytes(std::move(read->bytes)), read->ref, {}};
  // Records may still follow on disk: the backlog in memory is behind them.
  if (store_.readPaused() || spillBacklog_.empty()) return std::nullopt;
  Next next{shareBytes(std::move(spillBacklog_.front())), std::nullopt, {}};
  spillBacklog_.pop_front();
  return next;
}

void HttpsDelivery::startWaiting() {
  // After shutdown the waiting records belong to the pending store (shutdown writes them).
  while (!stopped_.load() && inFlight_ < kMaxInFlight && !waiting_.empty()) {
    // Backing off: nothing goes out until the wait ends, and then one alone.
    if (backoff_.waiting() || (probing_ && inFlight_ > 0)) break;
    // Collection off: everything stays where it is until it is back on (resumeSending).
    if (!settings().collectionEnabled.load(std::memory_order_relaxed)) break;
    Waiting& front = waiting_.front();
    const RequestSettings settings = front.settings;
    Next record;
    record.settings = settings;
    if (front.fromDisk > 0) {
      // The store's cursor stops at the oldest record not yet answered, so a slow answer must
      // not let many later ones go out: a kill would send all of those again.
      if (store_.unansweredSpread() >= kMaxInFlight) break;
      auto queued = nextQueued();
      if (!queued && store_.readPaused()) {
        // A long run of unreadable pieces: read on in a later turn, so that answers, hand-overs
        // and shutdown get the worker meanwhile.
        continueReadingLater();
        break;
      }
      if (--front.fromDisk == 0) waiting_.pop_front();
      if (!queued) {
        // Dropped for space or moved aside as unreadable since the queue counted it.
        settle(1, true);
        continue;
      }
      record.bytes = std::move(queued->bytes);
      record.ref = queued->ref;
    } else {
      record.bytes = shareBytes(std::move(front.bytes));
      record.ref = front.ref;
      waiting_.pop_front();
    }
    auto request = ZHttpApi::trackEncoded(record.bytes).urlRequest(settings);
    record.sentAs = sentCount_++;
    record.generation = generation_;
    ++inFlight_;
    std::weak_ptr<HttpsDelivery> weak = weak_from_this();
    http_->send(std::move(request),
                [weak, record = std::move(record)](network::HttpOutcome outcome) mutable {
                  auto self = weak.lock();
                  if (!self) return;
                  if (self->worker_->isCurrent()) {
                    // The client answered at once on this thread (it has shut down).
                    self->finished(std::move(outcome), std::move(record));
                    return;
                  }
                  // File access and the window stay on the worker.
                  self->worker_->async(
                      [weak, outcome = std::move(outcome), record = std::move(record)]() mutable {
                        if (auto owner = weak.lock()) {
                          owner->finished(std::move(outcome), std::move(record));
                        }
                      });
                });
  }
}

void HttpsDelivery::continueReadingLater() {
  if (readingLater_ || stopped_.load()) return;
  readingLater_ = true;
  worker_->async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    self->readingLater_ = false;
    self->startWaiting();
    self->notifyQueue();
  });
}

namespace {

/// Answers a load balancer or a busy collector gives that say "come back later" rather than
/// judge the record; only the exact body ok turns them into a delivery.
bool meansComeBackLater(const network::HttpResponse& response) {
  return (response.status == 429 || response.status == 502 || response.status == 503 ||
          response.status == 504) &&
         response.body != "ok";
}

/// A redirect is no verdict on the record (an endpoint moved, or a proxy in the way): it is kept
/// as after a transport failure, and never followed, since records go only where the host said.
bool isRedirect(const network::HttpResponse& response) {
  return response.status >= 300 && response.status < 400 && response.body != "ok";
}

/// The start of an answer, as one printable line: enough to tell a proxy's error page from the
/// collector's verdict.
/// Identifying values (the SDK's own, and `more`) are hidden before the cut, so that none shows
/// in part; only the start of a long answer is searched, room for a long token included.
std::string answerStart(std::string_view body, const std::vector<std::string>& more = {}) {
  constexpr std::size_t kShown = 120;
  constexpr std::size_t kSearched = kShown + 8192;
  const std::string hidden = withoutHiddenValues(body.substr(0, kSearched), more);
  std::string text;
  for (const char c : std::string_view(hidden).substr(0, kShown)) {
    const auto byte = static_cast<unsigned char>(c);
    text.push_back(byte < 0x20 || byte == 0x7f ? ' ' : c);
  }
  if (hidden.size() > kShown || body.size() > kSearched) text += "...";
  return text.empty() ? "(empty)" : "\"" + text + "\"";
}

}  // namespace

void HttpsDelivery::finished(network::HttpOutcome outcome, Next record) {
  if (inFlight_ > 0) --inFlight_;
  const auto* response = std::get_if<network::HttpResponse>(&outcome);
  const bool comeBackLater = response && meansComeBackLater(*response);
  const bool redirected = response && isRedirect(*response);
  if (record.generation != generation_ && !(response && !comeBackLater && !redirected)) {
    // Sent before the app's data was deleted: nothing of it is kept or sent again.
    settle(1, true);
    startWaiting();
    notifyQueue();
    return;
  }
  if (response && !redirected) redirectReported_ = false;
  if (redirected && !stopped_.load()) {
    // Said once, not for every record: every request gets the same answer until it is fixed.
    if (!std::exchange(redirectReported_, true) && diagnosing(ZLogLevel::error)) {
      diagnose(ZLogLevel::error,
               "the collector answered with a redirect (HTTP " + std::to_string(response->status) +
                   (response->redirectTo.empty() ? std::string()
                                                 : " to " + answerStart(response->redirectTo)) +
                   "), which is not followed: check the collector's URL; records are kept on disk "
                   "and sent again later");
    }
    keepAfterFailure(record);
  } else if (comeBackLater && !stopped_.load()) {
    // Kept, first in line, and tried again after the wait the answer asks for.
    hold(std::move(record));
    backOff(response->retryAfter);
  } else if (response && !comeBackLater && !redirected) {
    // The collector treats only the exact body ok as success; anything else is a verdict on the
    // record, so it is not kept (the HTTP status is not looked at). Either way it leaves the disk.
    if (record.ref) store_.answered(*record.ref);
    const bool delivered = response->body == "ok";
    {
      std::lock_guard lock(mutex_);
      if (delivered) {
        ++counts_.delivered;
      } else {
        ++counts_.refused;
      }
    }
    if (!delivered && diagnosing(ZLogLevel::error)) {
      // A collector may echo the record: its own ids are hidden too, even those of a record an
      // earlier run kept, before the answer is cut short.
      const auto sent = decodeJson<ZLogRecord>(*record.bytes);
      diagnose(ZLogLevel::error,
               "record dropped: refused by the collector (HTTP " +
                   std::to_string(response->status) + "), which answered " +
                   answerStart(response->body,
                               sent ? identifyingValues(*sent) : std::vector<std::string>{}));
    } else if (delivered && diagnosing(ZLogLevel::debug)) {
      diagnose(ZLogLevel::debug,
               "record delivered (HTTP " + std::to_string(response->status) + ")");
    }
    settle(1, true);
    if (probing_ || backoff_.failuresInARow() > 0) {
      // The collector answers again: back to the full window, and what was kept goes out too.
      probing_ = false;
      backoff_.succeeded();
    }
    if (keptToRetry_ && backoff_.failuresInARow() == 0 && networkAvailable_) retryKept();
  } else if (stopped_.load()) {
    // Cancelled by shutdown, or asked to come back later while shutdown waited for answers:
    // kept with the rest in its one write.
    if (record.ref) {
      store_.unsent(*record.ref);
      settle(1, true);
    } else {
      cancelled_.push_back(*record.bytes);
    }
  } else {
    // Transport failure: kept for a later attempt.
    const auto& failure = std::get<network::TransportError>(outcome);
    const ZLogLevel level = failure.tls ? ZLogLevel::error : ZLogLevel::warning;
    if (diagnosing(level)) {
      diagnose(level, std::string(failure.tls ? "TLS failure" : "transport failure") +
                          " sending a record: " + failure.description +
                          "; it is kept on disk and sent again later");
    }
    keepAfterFailure(record);
  }
  if (retryWhenIdle_) retryKept();
  startWaiting();
  notifyQueue();
}

void HttpsDelivery::keepAfterFailure(const Next& record) {
  // One read from disk stays where it is.
  if (record.ref) {
    store_.unsent(*record.ref);
    std::lock_guard lock(mutex_);
    ++counts_.keptOnDisk;
  } else {
    std::vector<std::string> one;
    one.push_back(*record.bytes);
    keep(std::move(one));
  }
  keptToRetry_ = true;
  settle(1, true);
  backOff(std::nullopt);
}

void HttpsDelivery::hold(Next record) {
  // Answers come back in any order: among the held ones, the record that went out first stays
  // first, so a batch held together goes out again in the order it was sent.
  const auto at = std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& item) {
    return !item.heldSince || *item.heldSince > record.sentAs;
  });
  waiting_.insert(at, Waiting{*record.bytes, 0, record.settings, record.ref, record.sentAs});
}

void HttpsDelivery::backOff(std::optional<std::chrono::seconds> retryAfter) {
  // Requests in flight together fail together: one wait for all of them, not one step each.
  if (backoff_.waiting()) return;
  const auto wait = backoff_.failed(retryAfter);
  probing_ = true;
  if (diagnosing(ZLogLevel::info)) {
    diagnose(ZLogLevel::info,
             std::string(retryAfter ? "the collector asked to wait" : "backing off") +
                 ": nothing is sent for " +
                 std::to_string(std::chrono::duration_cast<std::chrono::seconds>(wait).count()) +
                 " s, then one record goes first");
  }
  worker_->asyncAfter(wait, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->resume();
  });
}

void HttpsDelivery::resume() {
  if (stopped_.load() || backoff_.waiting()) return;
  // Records kept on disk in this run are older than those that waited meanwhile: they go first,
  // and the oldest of them is the probe. Chosen before the probe is, or a newer one would be.
  if (keptToRetry_) retryKept();
  startWaiting();
}

void HttpsDelivery::retryKept() {
  std::uint64_t added = 0;
  if (!store_.adoptKept(added)) {
    retryWhenIdle_ = true;
    return;
  }
  retryWhenIdle_ = false;
  keptToRetry_ = false;
  // Records the disk would not take wait in memory: they go behind the ones on disk.
  std::vector<std::string> backlog = std::move(keepBacklog_);
  keepBacklog_.clear();
  if (added == 0 && backlog.empty()) return;
  {
    std::lock_guard lock(mutex_);
    unsettled_ += added + backlog.size();
    outstanding_ += added + backlog.size();
    // Only records this run kept count as sent again; what other processes of the app appended
    // meanwhile was left on disk for this one, like what an earlier run left.
    const std::uint64_t back = added + backlog.size();
    const std::uint64_t ours =
        std::min(back, counts_.keptOnDisk - std::min(counts_.keptOnDisk, counts_.resent));
    counts_.resent += ours;
    counts_.restored += back - ours;
  }
  // They went out (or were handed over) before anything still waiting: they go ahead of it,
  // behind only records held by a "come back later", which are the next to go.
  const RequestSettings settings = RequestSettings::current();
  auto at = std::find_if(waiting_.begin(), waiting_.end(),
                         [](const Waiting& item) { return !item.heldSince; });
  if (added > 0)
    at = std::next(waiting_.insert(at, Waiting{{}, added, settings, std::nullopt, std::nullopt}));
  for (auto& record : backlog) {
    at = std::next(waiting_.insert(at, Waiting{std::move(record), 0, settings, {}, {}}));
  }
  bytesOnDisk_.store(store_.bytesOnDisk());
}

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
  droppedToReport_ += store_.takeDroppedQueued();
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
  worker_->asyncAfter(retryDelay_, [weak = weak_from_this()] {
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
  droppedToReport_ += store_.takeDroppedQueued();
  bytesOnDisk_.store(store_.bytesOnDisk());
  syncStoreCounts();
  if (keepBacklog_.empty() && spillBacklog_.empty()) {
    retryDelay_ = std::chrono::milliseconds(1000);
  } else {
    retryDelay_ = std::min(retryDelay_ * 2, std::chrono::milliseconds(60000));
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
  // The queue hands over more when there is room; a dropped oldest record on disk leaves its
  // count. Called with no lock held: the queue's lock comes first everywhere else.
  std::function<void(std::uint64_t)> listener;
  {
    std::lock_guard lock(mutex_);
    if (stopped_.load()) return;
    listener = listener_;
  }
  const std::uint64_t dropped = std::exchange(droppedToReport_, 0);
  // Room is offered in large steps: one refill per half window, not one per answer. Only room
  // that answers freed is offered: a turn that only wrote to disk leaves the queue's lock to the
  // host, which a burst keeps busy.
  if (listener && (dropped > 0 || (roomFreed_ && room() >= window_ / 2))) {
    roomFreed_ = false;
    listener(dropped);
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
  // A request the collector has already answered but whose answer is still on its way would be
  // kept and sent again at the next start. A short grace lets those answers land; anything slower
  // is cancelled, so exit stays quick.
  waitUntilSettled(kInFlightGrace);
  // Cancelling in-flight requests reports each as a transport failure, which the worker gathers
  // ahead of the waiting and the unsent records: file order stays send order.
  http_->shutdown();
  worker_->async([this, unsent = std::move(unsent), templates = std::move(templates)]() mutable {
    // Everything undelivered in memory goes down in one batch, oldest first; records that wait
    // on disk already stay where they are, ahead of these at the next start.
    std::vector<std::string> batch = std::move(keepBacklog_);
    for (auto& record : cancelled_) batch.push_back(std::move(record));
    for (auto& item : waiting_) {
      // Records read from disk (held back by a "come back later") are still in their segment.
      if (item.fromDisk == 0 && !item.ref) batch.push_back(std::move(item.bytes));
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
          const std::uint64_t count = sendCommand->fromDisk + sendCommand->records.size();
          (sendCommand->networkAvailable ? viaNetwork : kept) += count;
        }
      }
      inbox_.clear();
    }
    for (const Waiting& item : waiting_) viaNetwork += item.fromDisk > 0 ? item.fromDisk : 1;
    waiting_.clear();
    spillBacklog_.clear();
    keepBacklog_.clear();
    cancelled_.clear();
    keptToRetry_ = false;
    retryWhenIdle_ = false;
    droppedToReport_ = 0;
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
    if (self->keptToRetry_ && !self->backoff_.waiting() && self->networkAvailable_) {
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
  return settled_.wait_for(lock, timeout, [&] { return unsettled_ == 0; });
}

}  // namespace zelvanor::detail
