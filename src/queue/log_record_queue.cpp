#include "queue/log_record_queue.hpp"

#include <algorithm>
#include <iterator>

namespace zelvanor::detail {

ZLogRecordQueue::ZLogRecordQueue(std::shared_ptr<RecordTransport> transport,
                                 std::uint64_t maxRecordsInMemory)
    : state_(std::make_shared<State>()) {
  state_->transport = std::move(transport);
  state_->line = &state_->transport->diskLine();
  state_->maxInMemory = std::max<std::uint64_t>(maxRecordsInMemory, 1);
  std::weak_ptr<State> weak = state_;
  state_->transport->setListener([weak] {
    auto state = weak.lock();
    if (!state) return;
    std::lock_guard lock(state->mutex);
    state->pumpLocked();
  });
}

void ZLogRecordQueue::restorePendingRecords() {
  {
    std::lock_guard lock(state_->mutex);
    state_->restoring = true;
  }
  std::weak_ptr<State> weak = state_;
  state_->transport->restore([weak](std::uint64_t count) {
    auto state = weak.lock();
    if (!state) return;
    std::lock_guard lock(state->mutex);
    // Later calls: the store was held by another process at the start and is taken over now.
    const bool tookOverLater = !state->restoring;
    state->restoring = false;
    if (count == 0 || state->closed) return;
    // They joined the disk line, in front of everything in memory. A flush or threshold the host
    // reached while the store was looked at would have sent these first: it is applied to them
    // now. One taken over later gets the host's last drain again, as if its records had been in
    // front then: it does not wait for the next event.
    if (const auto threshold = std::exchange(state->drainWhileRestoring, std::nullopt)) {
      state->drainLocked(*threshold);
    } else if (tookOverLater && state->lastDrain) {
      state->drainLocked(*state->lastDrain);
    }
  });
}

void ZLogRecordQueue::setAvailableNetworking(bool available) {
  // The first report goes through too: the transport assumes a network until told otherwise, and
  // must know it started offline to send what it keeps once the network comes.
  const bool first = !state_->networkReported.exchange(true);
  if (state_->networkAvailable.exchange(available) != available || first) {
    state_->transport->networkChanged(available);
  }
}

void ZLogRecordQueue::enqueue(std::string record) {
  State& state = *state_;
  std::lock_guard lock(state.mutex);
  if (state.closed) {
    state.transport->keepLate(std::move(record));
    return;
  }
  // Records the transport holds in memory (taken for the network, or not yet written to disk)
  // count too: beyond the limit, records go to disk, not to another place in memory.
  if (state.records.size() + state.transport->recordsHeld() >= state.maxInMemory) {
    state.spillLocked();
  }
  state.records.push_back(std::move(record));
  const std::uint64_t threshold = batchSize();
  if (state.waitingLocked() >= threshold) state.drainLocked(threshold);
  state.peakInMemory =
      std::max(state.peakInMemory, state.records.size() + state.transport->recordsHeld());
}

void ZLogRecordQueue::enqueueFromKeptTemplates(std::vector<std::string> records) {
  State& state = *state_;
  std::lock_guard lock(state.mutex);
  if (state.closed) {
    for (auto& record : records) state.transport->keepLate(std::move(record));
    return;
  }
  const bool any = !records.empty();
  // They go to disk behind everything enqueued so far: what is in memory goes first.
  if (any) state.spillLocked();
  state.transport->spillFromKeptTemplates(std::move(records));
  const std::uint64_t threshold = batchSize();
  if (any && state.waitingLocked() >= threshold) state.drainLocked(threshold);
}

void ZLogRecordQueue::drain(std::uint64_t threshold) {
  std::lock_guard lock(state_->mutex);
  state_->drainLocked(threshold);
}

void ZLogRecordQueue::State::drainLocked(std::uint64_t threshold) {
  if (threshold == kNoThreshold) threshold = 0;
  lastDrain = threshold;
  if (restoring) drainWhileRestoring = std::min(drainWhileRestoring.value_or(threshold), threshold);
  // Sending the oldest one at a time until fewer than the threshold remain, in one step; the
  // oldest are those on disk.
  const std::uint64_t waiting = waitingLocked();
  if (waiting == 0 || waiting < threshold) return;
  const std::uint64_t letGo = threshold == 0 ? waiting : waiting - threshold + 1;
  const std::uint64_t fromDisk = line->release(letGo);
  if (fromDisk > 0) diskReleased = true;
  released = std::min<std::uint64_t>(records.size(), released + (letGo - fromDisk));
  pumpLocked();
}

void ZLogRecordQueue::State::pumpLocked() {
  // Hand-over happens under the lock so that records reach the transport in table order even when
  // several host threads enqueue at once; the transport only queues them. Records in memory carry
  // the disk line's position: they go out after every record on disk let go before them.
  while (released > 0 || diskReleased) {
    const bool gateOpen = networkAvailable.load();
    const std::uint64_t room = gateOpen ? transport->room() : released;
    if (room == 0 && !diskReleased) return;
    const std::uint64_t count = std::min(room, released);
    std::vector<std::string> batch(
        std::make_move_iterator(records.begin()),
        std::make_move_iterator(records.begin() + static_cast<std::ptrdiff_t>(count)));
    records.erase(records.begin(), records.begin() + static_cast<std::ptrdiff_t>(count));
    released -= count;
    diskReleased = false;
    transport->send(line->releasedThrough(), std::move(batch), gateOpen);
  }
}

void ZLogRecordQueue::State::spillLocked() {
  if (records.empty()) return;
  // Every record in memory follows every record on disk, so only moving all of them behind those
  // keeps the order. Those already released stay released: they are let go on the line instead.
  std::vector<std::string> batch(std::make_move_iterator(records.begin()),
                                 std::make_move_iterator(records.end()));
  records.clear();
  transport->spill(std::move(batch));
  if (released > 0 && line->release(std::exchange(released, 0)) > 0) diskReleased = true;
}

void ZLogRecordQueue::appendTemplate(ZLogTemplate logTemplate) {
  std::lock_guard lock(state_->mutex);
  state_->templates.push_back(std::move(logTemplate));
}

void ZLogRecordQueue::prependTemplates(std::vector<ZLogTemplate> templates) {
  std::lock_guard lock(state_->mutex);
  auto& list = state_->templates;
  list.insert(list.begin(), std::make_move_iterator(templates.begin()),
              std::make_move_iterator(templates.end()));
}

std::vector<ZLogTemplate> ZLogRecordQueue::takeTemplates() {
  std::lock_guard lock(state_->mutex);
  return std::exchange(state_->templates, {});
}

std::size_t ZLogRecordQueue::recordCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->waitingLocked();
}

ZLogRecordQueue::Waiting ZLogRecordQueue::waiting() const {
  std::lock_guard lock(state_->mutex);
  const State& state = *state_;
  return Waiting{state.records.size(), state.line->waiting(),
                 state.released > 0 || state.restoring};
}

std::size_t ZLogRecordQueue::recordsInMemory() const {
  std::lock_guard lock(state_->mutex);
  return state_->records.size();
}

std::uint64_t ZLogRecordQueue::peakRecordsInMemory() const {
  std::lock_guard lock(state_->mutex);
  return state_->peakInMemory;
}

std::size_t ZLogRecordQueue::templateCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->templates.size();
}

void ZLogRecordQueue::discardAll() {
  std::lock_guard lock(state_->mutex);
  state_->records.clear();
  state_->templates.clear();
  state_->released = 0;
  state_->diskReleased = false;
}

std::vector<std::string> ZLogRecordQueue::takeRecords() {
  std::lock_guard lock(state_->mutex);
  std::vector<std::string> records(std::make_move_iterator(state_->records.begin()),
                                   std::make_move_iterator(state_->records.end()));
  state_->records.clear();
  state_->released = 0;
  state_->diskReleased = false;
  state_->closed = true;
  return records;
}

}  // namespace zelvanor::detail
