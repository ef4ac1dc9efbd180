#include "network/https_delivery.hpp"

#include <array>
#include <optional>
#include <thread>

#include "network/http_api.hpp"
#include "queue/logs_file_manager.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {

HttpsDelivery::HttpsDelivery(std::shared_ptr<network::HttpClient> http,
                             std::filesystem::path pendingFile)
    : http_(std::move(http)), pendingFile_(std::move(pendingFile)) {}

HttpsDelivery::~HttpsDelivery() {
  worker_.stop();
}

void HttpsDelivery::send(OutgoingRecord record, bool networkAvailable) {
  // The sandbox switch and the timeout apply as the record is handed over, as if its request
  // were built now; the request itself is built when a connection is free.
  const RequestSettings settings = RequestSettings::current();
  // Records the worker is done with, freed here by the thread that allocated them. Freed on the
  // worker they would contend with the host's own allocations for the allocator's lock. A couple
  // per hand-over keeps the cost on the host's thread small and even.
  std::array<std::optional<OutgoingRecord>, kFreedPerHandOver> encodedEarlier;
  {
    std::lock_guard lock(mutex_);
    if (!stopped_.load()) {
      ++unsettled_;
      for (auto& slot : encodedEarlier) {
        if (encoded_.empty()) break;
        slot = std::move(encoded_.back());
        encoded_.pop_back();
      }
      // Queued under the lock that shutdown takes to stop: the drain runs before shutdown's own
      // work on the worker, so the record is either sent or kept.
      inbox_.push_back(HandedOver{std::move(record), networkAvailable, settings});
      if (!drainQueued_) {
        drainQueued_ = true;
        worker_.async([weak = weak_from_this()] {
          if (auto self = weak.lock()) self->drainInbox();
        });
      }
      return;
    }
  }
  // Handed over after shutdown began: nothing will send it now, so it is kept like a record
  // tracked after the queue closed.
  keepLate(std::move(record));
}

void HttpsDelivery::keepLate(OutgoingRecord record) {
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
  if (auto encoded = record.json()) ZLogsFileManager::appendRecordData(*encoded, pendingFile_);
}

void HttpsDelivery::drainInbox() {
  // Let a burst gather: hand-overs made meanwhile join this drain without waking the worker.
  // Shutdown does not wait for the window; it has already stopped new hand-overs.
  if (!stopped_.load()) std::this_thread::sleep_for(kGatherWindow);
  {
    std::lock_guard lock(mutex_);
    draining_.swap(inbox_);
    drainQueued_ = false;
  }
  for (auto& item : draining_) {
    sendOnWorker(std::move(item.record), item.networkAvailable, item.settings);
  }
  draining_.clear();  // every record was moved out: the capacity is what is kept
}

void HttpsDelivery::sendOnWorker(OutgoingRecord record, bool networkAvailable,
                                 RequestSettings settings) {
  auto encoded = record.json();
  {
    std::lock_guard lock(mutex_);
    if (encoded_.size() < kRecordsHandedBack) encoded_.push_back(std::move(record));
  }
  if (!encoded) {
    std::lock_guard lock(mutex_);
    ++counts_.unencodable;
    settleOne();
    return;
  }
  std::string bytes = std::move(encoded).value();
  if (!networkAvailable) {
    keepOnDisk(bytes);
    return;
  }
  // After shutdown began this waits here, and shutdown's task behind it keeps it on disk.
  waiting_.push_back(Waiting{std::move(bytes), settings});
  startWaiting();
}

void HttpsDelivery::startWaiting() {
  // After shutdown the waiting records belong to the pending file (shutdown writes them).
  while (!stopped_.load() && inFlight_ < kMaxInFlight && !waiting_.empty()) {
    std::string bytes = std::move(waiting_.front().bytes);
    const RequestSettings settings = waiting_.front().settings;
    waiting_.pop_front();
    auto request = ZHttpApi::trackEncoded(bytes).urlRequest(settings);
    if (!request) {
      // No parsable endpoint: the record cannot go anywhere.
      std::lock_guard lock(mutex_);
      ++counts_.unencodable;
      settleOne();
      continue;
    }
    ++inFlight_;
    std::weak_ptr<HttpsDelivery> weak = weak_from_this();
    http_->send(std::move(*request), [weak, bytes = std::move(bytes)](
                                         network::HttpOutcome outcome) mutable {
      auto self = weak.lock();
      if (!self) return;
      if (self->worker_.isCurrent()) {
        // The client answered at once on this thread (it has shut down).
        self->finished(std::move(outcome), bytes);
        return;
      }
      // File access and the window stay on the worker.
      self->worker_.async([weak, outcome = std::move(outcome), bytes = std::move(bytes)]() mutable {
        if (auto owner = weak.lock()) owner->finished(std::move(outcome), bytes);
      });
    });
  }
}

void HttpsDelivery::finished(network::HttpOutcome outcome, const std::string& bytes) {
  if (inFlight_ > 0) --inFlight_;
  if (const auto* response = std::get_if<network::HttpResponse>(&outcome)) {
    // The collector treats only the exact body ok as success; anything else is a verdict on the
    // record, so it is not kept (the HTTP status is not looked at).
    std::lock_guard lock(mutex_);
    if (response->body == "ok") {
      ++counts_.delivered;
    } else {
      ++counts_.rejected;
    }
    settleOne();
  } else {
    // Transport failure: keep it for the next start.
    keepOnDisk(bytes);
  }
  startWaiting();
}

void HttpsDelivery::keepOnDisk(const std::string& bytes) {
  ZLogsFileManager::appendRecordData(bytes, pendingFile_);
  std::lock_guard lock(mutex_);
  ++counts_.keptOnDisk;
  settleOne();
}

void HttpsDelivery::keepUnsent(const OutgoingRecord& record) {
  auto encoded = record.json();
  if (encoded) {
    keepOnDisk(encoded.value());
    return;
  }
  std::lock_guard lock(mutex_);
  ++counts_.unencodable;
  settleOne();
}

void HttpsDelivery::settleOne() {
  if (unsettled_ > 0) --unsettled_;
  if (unsettled_ == 0) settled_.notify_all();
}

std::vector<OutgoingRecord> HttpsDelivery::takePendingRecords() {
  ZLogsFileManager::RecordTexts restored;
  worker_.sync([&] { restored = ZLogsFileManager::readRecordTexts(pendingFile_); });
  std::vector<OutgoingRecord> records;
  records.reserve(restored.texts.size());
  for (const std::string_view text : restored.texts) {
    records.push_back(OutgoingRecord::restored(restored.content, text));
  }
  return records;
}

void HttpsDelivery::shutdown(std::vector<OutgoingRecord> unsent) {
  {
    std::lock_guard lock(mutex_);
    if (stopped_.exchange(true)) return;
  }
  // A request the collector has already answered but whose answer is still on its way would be
  // kept and sent again at the next start. A short grace lets those answers land; anything slower
  // is cancelled, so exit stays quick.
  waitUntilSettled(kInFlightGrace);
  // Cancelling in-flight requests reports each as a transport failure, which queues its bytes
  // for the pending file on the worker ahead of the waiting and the unsent records: file order
  // stays send order.
  http_->shutdown();
  worker_.async([this] {
    while (!waiting_.empty()) {
      keepOnDisk(waiting_.front().bytes);
      waiting_.pop_front();
    }
  });
  {
    std::lock_guard lock(mutex_);
    unsettled_ += unsent.size();
  }
  worker_.async([this, unsent = std::move(unsent)] {
    for (const auto& record : unsent) keepUnsent(record);
  });
  // Records tracked while all this ran are kept behind the unsent ones. Then the door closes: a
  // host that never stops tracking must not hold shutdown up, so a later record waits for these
  // to be written and is then written by its own thread.
  worker_.async([this] {
    std::vector<OutgoingRecord> late;
    {
      std::lock_guard lock(mutex_);
      late.swap(late_);
      unsettled_ += late.size();
      lateDoorClosed_ = true;
    }
    for (const auto& record : late) keepUnsent(record);
    std::lock_guard lock(mutex_);
    lateWritten_ = true;
    lateDone_.notify_all();
  });
  worker_.stop();
}

HttpsDelivery::Counts HttpsDelivery::counts() const {
  std::lock_guard lock(mutex_);
  return counts_;
}

bool HttpsDelivery::waitUntilSettled(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return settled_.wait_for(lock, timeout, [&] { return unsettled_ == 0; });
}

}  // namespace zelvanor::detail
