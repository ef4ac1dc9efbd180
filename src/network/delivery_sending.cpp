// Delivery's sending side: the oldest waiting record goes out when a connection is free and no
// back-off holds it, and each answer decides whether the record leaves the disk, waits first in
// line, or is kept for a later attempt.
#include <algorithm>
#include <iterator>

#include "model/identifying.hpp"
#include "network/answer.hpp"
#include "network/http_api.hpp"
#include "network/https_delivery.hpp"
#include "support/diagnostics.hpp"
#include "support/settings.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {

std::optional<HttpsDelivery::Next> HttpsDelivery::nextQueued() {
  if (auto read = store_.next(diskSendThrough_)) {
    return Next{shareBytes(std::move(read->bytes)), read->ref, diskSettings_};
  }
  // Records may still follow on disk: the backlog in memory is behind them.
  if (store_.readPaused() || spillBacklog_.empty() || !line_->takeOne(diskSendThrough_)) {
    return std::nullopt;
  }
  Next next{shareBytes(std::move(spillBacklog_.front())), std::nullopt, diskSettings_};
  spillBacklog_.pop_front();
  return next;
}

void HttpsDelivery::sendFromDiskThrough(std::uint64_t through, const RequestSettings& settings) {
  if (through <= diskSendThrough_) return;
  diskSendThrough_ = through;
  diskSettings_ = settings;
}

void HttpsDelivery::startWaiting() {
  // After shutdown the waiting records belong to the pending store (shutdown writes them).
  while (!stopped_.load() && inFlight_ < kMaxInFlight) {
    // Backing off: nothing goes out until the wait ends, and then one alone.
    if (retryPolicy_->waiting(support::RetryReason::collector) || (probing_ && inFlight_ > 0)) {
      break;
    }
    // Collection off: everything stays where it is until it is back on (resumeSending).
    if (!settings().collectionEnabled.load(std::memory_order_relaxed)) break;
    // Records on disk let go before the oldest one in memory go first.
    const std::uint64_t taken = line_->takenThrough();
    const bool fromDisk =
        taken < diskSendThrough_ && (waiting_.empty() || waiting_.front().diskThrough > taken);
    if (!fromDisk && waiting_.empty()) break;
    Next record;
    if (fromDisk) {
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
      if (!queued) {
        // Unreadable ones read past up to the line's limit: what is in memory is next.
        if (line_->takenThrough() > taken) continue;
        // The line counts records the store no longer has: nothing would ever come to read.
        if (diagnosing(ZLogLevel::warning)) {
          diagnose(ZLogLevel::warning, std::to_string(diskSendThrough_ - taken) +
                                           " record(s) counted on disk were not found there");
        }
        line_->leave(diskSendThrough_ - taken);
        continue;
      }
      record = std::move(*queued);
      std::lock_guard lock(mutex_);
      ++unsettled_;
      ++outstanding_;
    } else {
      Waiting& front = waiting_.front();
      record.bytes = shareBytes(std::move(front.bytes));
      record.ref = front.ref;
      record.settings = front.settings;
      waiting_.pop_front();
    }
    const RequestSettings settings = record.settings;
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

void HttpsDelivery::finished(network::HttpOutcome outcome, Next record) {
  if (inFlight_ > 0) --inFlight_;
  const AnswerKind kind = classifyAnswer(outcome);
  const auto* response = std::get_if<network::HttpResponse>(&outcome);
  const bool verdict = kind == AnswerKind::delivered || kind == AnswerKind::refused;
  if (record.generation != generation_ && !verdict) {
    // Sent before the app's data was deleted: nothing of it is kept or sent again.
    settle(1, true);
    startWaiting();
    notifyQueue();
    return;
  }
  if (response && kind != AnswerKind::redirected) redirectReported_ = false;
  if (verdict) {
    judged(*response, record, kind == AnswerKind::delivered);
  } else if (stopped_.load()) {
    // Cancelled by shutdown, or an answer that keeps the record while shutdown waited for
    // answers: kept with the rest in its one write.
    if (record.ref) {
      store_.unsent(*record.ref);
      settle(1, true);
    } else {
      cancelled_.push_back(*record.bytes);
    }
  } else if (kind == AnswerKind::comeBackLater) {
    // Kept, first in line, and tried again after the wait the answer asks for.
    hold(std::move(record));
    backOff(response->retryAfter);
  } else {
    reportFailure(outcome);
    keepAfterFailure(record);
  }
  if (retryWhenIdle_) retryKept();
  startWaiting();
  notifyQueue();
}

void HttpsDelivery::judged(const network::HttpResponse& response, const Next& record,
                           bool delivered) {
  // A verdict on the record: either way it leaves the disk and is not kept.
  if (record.ref) store_.answered(*record.ref);
  {
    std::lock_guard lock(mutex_);
    ++(delivered ? counts_.delivered : counts_.refused);
  }
  if (!delivered && diagnosing(ZLogLevel::error)) {
    // A collector may echo the record: its own ids are hidden too, even those of a record an
    // earlier run kept, before the answer is cut short.
    const auto sent = decodeJson<ZLogRecord>(*record.bytes);
    diagnose(ZLogLevel::error, "record dropped: refused by the collector (HTTP " +
                                   std::to_string(response.status) + "), which answered " +
                                   answerStart(response.body, sent ? identifyingValues(*sent)
                                                                   : std::vector<std::string>{}));
  } else if (delivered && diagnosing(ZLogLevel::debug)) {
    diagnose(ZLogLevel::debug, "record delivered (HTTP " + std::to_string(response.status) + ")");
  }
  settle(1, true);
  if (probing_ || retryPolicy_->failuresInARow(support::RetryReason::collector) > 0) {
    // The collector answers again: back to the full window, and what was kept goes out too.
    probing_ = false;
    retryPolicy_->succeeded(support::RetryReason::collector);
  }
  if (keptToRetry_ && networkAvailable_) retryKept();
}

void HttpsDelivery::reportFailure(const network::HttpOutcome& outcome) {
  if (const auto* response = std::get_if<network::HttpResponse>(&outcome)) {
    // A redirect: said once, not for every record; every request gets it until it is fixed.
    if (!std::exchange(redirectReported_, true) && diagnosing(ZLogLevel::error)) {
      diagnose(ZLogLevel::error,
               "the collector answered with a redirect (HTTP " + std::to_string(response->status) +
                   (response->redirectTo.empty() ? std::string()
                                                 : " to " + answerStart(response->redirectTo)) +
                   "), which is not followed: check the collector's URL; records are kept on disk "
                   "and sent again later");
    }
    return;
  }
  const auto& failure = std::get<network::TransportError>(outcome);
  const ZLogLevel level = failure.tls ? ZLogLevel::error : ZLogLevel::warning;
  if (diagnosing(level)) {
    diagnose(level, std::string(failure.tls ? "TLS failure" : "transport failure") +
                        " sending a record: " + failure.description +
                        "; it is kept on disk and sent again later");
  }
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
  if (retryPolicy_->waiting(support::RetryReason::collector)) return;
  const auto wait = retryPolicy_->failed(support::RetryReason::collector, retryAfter);
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
  if (stopped_.load() || retryPolicy_->waiting(support::RetryReason::collector)) return;
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
  // Everything on disk that was let go (kept records taken back just now, and those let go
  // while the gate was closed) went out, or was handed over, before anything still waiting in
  // memory: it goes ahead of that, behind only records held by a "come back later", which are
  // the next to go. Records the disk would not take follow the ones on disk.
  const RequestSettings settings = RequestSettings::current();
  const std::uint64_t through =
      std::max({diskSendThrough_, diskLetGo_, line_->takenThrough()}) + added;
  sendFromDiskThrough(through, settings);
  std::vector<std::string> backlog = std::move(keepBacklog_);
  keepBacklog_.clear();
  {
    std::lock_guard lock(mutex_);
    diskWanted_ = std::max(diskWanted_, through);
    unsettled_ += backlog.size();
    outstanding_ += backlog.size();
    // Only records this run kept count as sent again; what other processes of the app appended
    // meanwhile was left on disk for this one, like what an earlier run left.
    const std::uint64_t back = added + backlog.size();
    const std::uint64_t ours =
        std::min(back, counts_.keptOnDisk - std::min(counts_.keptOnDisk, counts_.resent));
    counts_.resent += ours;
    counts_.restored += back - ours;
  }
  auto at = std::find_if(waiting_.begin(), waiting_.end(),
                         [](const Waiting& item) { return !item.heldSince; });
  for (auto it = at; it != waiting_.end(); ++it)
    it->diskThrough = std::max(it->diskThrough, through);
  for (auto& record : backlog) {
    at = std::next(waiting_.insert(at, Waiting{std::move(record), through, settings, {}, {}}));
  }
  bytesOnDisk_.store(store_.bytesOnDisk());
}

}  // namespace zelvanor::detail
