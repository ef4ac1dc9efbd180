#include "queue/log_record_queue.hpp"

namespace zelvanor::detail {

ZLogRecordQueue::ZLogRecordQueue(std::shared_ptr<RecordTransport> transport)
    : transport_(std::move(transport)) {}

void ZLogRecordQueue::restorePendingRecords() {
  auto restored = transport_->takePendingRecords();
  std::lock_guard lock(mutex_);
  for (auto& record : restored) recordTable_.push_back(std::move(record));
}

void ZLogRecordQueue::enqueue(OutgoingRecord record) {
  std::lock_guard lock(mutex_);
  if (closed_) {
    transport_->keepLate(std::move(record));
    return;
  }
  recordTable_.push_back(std::move(record));
  const std::uint64_t threshold = batchSize();
  if (recordTable_.size() >= threshold) drainLocked(threshold);
}

void ZLogRecordQueue::drain(std::uint64_t threshold) {
  std::lock_guard lock(mutex_);
  drainLocked(threshold);
}

void ZLogRecordQueue::drainLocked(std::uint64_t threshold) {
  if (threshold == kNoThreshold) threshold = 0;
  // Hand-over happens under the lock so that records reach the transport in table order even when
  // several host threads enqueue at once; the transport only queues them.
  while (!recordTable_.empty() && recordTable_.size() >= threshold) {
    OutgoingRecord oldest = std::move(recordTable_.front());
    recordTable_.pop_front();
    transport_->send(std::move(oldest), isAvailableNetworking());
  }
}

void ZLogRecordQueue::appendTemplate(ZLogTemplate logTemplate) {
  std::lock_guard lock(mutex_);
  recordTemplates_.push_back(std::move(logTemplate));
}

std::vector<ZLogTemplate> ZLogRecordQueue::takeTemplates() {
  std::lock_guard lock(mutex_);
  return std::exchange(recordTemplates_, {});
}

std::size_t ZLogRecordQueue::recordCount() const {
  std::lock_guard lock(mutex_);
  return recordTable_.size();
}

std::size_t ZLogRecordQueue::templateCount() const {
  std::lock_guard lock(mutex_);
  return recordTemplates_.size();
}

std::vector<OutgoingRecord> ZLogRecordQueue::takeRecords() {
  std::lock_guard lock(mutex_);
  std::vector<OutgoingRecord> records(std::make_move_iterator(recordTable_.begin()),
                                      std::make_move_iterator(recordTable_.end()));
  recordTable_.clear();
  closed_ = true;
  return records;
}

}  // namespace zelvanor::detail
