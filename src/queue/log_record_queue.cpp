#include "queue/log_record_queue.hpp"

#include <algorithm>

namespace zelvanor::detail {

ZLogRecordQueue::ZLogRecordQueue(std::shared_ptr<RecordTransport> transport,
                                 std::uint64_t maxRecordsInMemory)
    : state_(std::make_shared<State>()) {
  state_->transport = std::move(transport);
  state_->maxInMemory = std::max<std::uint64_t>(maxRecordsInMemory, 1);
  std::weak_ptr<State> weak = state_;
  state_->transport->setListener([weak](std::uint64_t droppedFromDisk) {
    auto state = weak.lock();
    if (!state) return;
    std::lock_guard lock(state->mutex);
    if (droppedFromDisk > 0) state->dropFromDiskLocked(droppedFromDisk);
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
    state->addRestoredLocked(count);
    // A flush or threshold the host reached while the store was looked at would have sent
    // these first: it is applied to them now. One taken over later gets the host's last drain
    // again, as if its records had been in front then: it does not wait for the next event.
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
  if (state.inMemory + state.transport->recordsHeld() >= state.maxInMemory) state.spillLocked();
  state.entries.push_back(Entry{0, std::move(record)});
  ++state.total;
  ++state.inMemory;
  const std::uint64_t threshold = batchSize();
  if (state.total - state.released >= threshold) state.drainLocked(threshold);
  state.peakInMemory =
      std::max(state.peakInMemory, state.inMemory + state.transport->recordsHeld());
}

void ZLogRecordQueue::enqueueFromKeptTemplates(std::vector<std::string> records) {
  State& state = *state_;
  std::lock_guard lock(state.mutex);
  if (state.closed) {
    for (auto& record : records) state.transport->keepLate(std::move(record));
    return;
  }
  const std::uint64_t count = records.size();
  if (count > 0) {
    // Like a spill: a run on disk at the back of the table, in the order the store holds them.
    if (!state.entries.empty() && state.entries.back().onDisk > 0) {
      state.entries.back().onDisk += count;
    } else {
      state.entries.push_back(Entry{count, {}});
    }
    state.total += count;
  }
  state.transport->spillFromKeptTemplates(std::move(records));
  const std::uint64_t threshold = batchSize();
  if (count > 0 && state.total - state.released >= threshold) state.drainLocked(threshold);
}

void ZLogRecordQueue::drain(std::uint64_t threshold) {
  std::lock_guard lock(state_->mutex);
  state_->drainLocked(threshold);
}

void ZLogRecordQueue::State::drainLocked(std::uint64_t threshold) {
  if (threshold == kNoThreshold) threshold = 0;
  lastDrain = threshold;
  if (restoring) drainWhileRestoring = std::min(drainWhileRestoring.value_or(threshold), threshold);
  // Sending the oldest one at a time until fewer than the threshold remain, in one step.
  const std::uint64_t waiting = total - released;
  if (waiting == 0 || waiting < threshold) return;
  released += threshold == 0 ? waiting : waiting - threshold + 1;
  pumpLocked();
}

void ZLogRecordQueue::State::pumpLocked() {
  // Hand-over happens under the lock so that records reach the transport in table order even when
  // several host threads enqueue at once; the transport only queues them.
  while (released > 0 && !entries.empty()) {
    const bool gateOpen = networkAvailable.load();
    std::uint64_t room = gateOpen ? transport->room() : released;
    if (room == 0) return;
    std::uint64_t fromDisk = 0;
    std::vector<std::string> records;
    if (entries.front().onDisk > 0) {
      Entry& run = entries.front();
      fromDisk = std::min({run.onDisk, released, room});
      run.onDisk -= fromDisk;
      if (run.onDisk == 0) entries.pop_front();
      released -= fromDisk;
      total -= fromDisk;
      room -= fromDisk;
    }
    while (room > 0 && released > 0 && !entries.empty() && entries.front().onDisk == 0) {
      records.push_back(std::move(entries.front().bytes));
      entries.pop_front();
      --released;
      --total;
      --inMemory;
      --room;
    }
    transport->send(fromDisk, std::move(records), gateOpen);
  }
}

void ZLogRecordQueue::State::spillLocked() {
  // The newest records in memory follow every record on disk, so moving them behind those keeps
  // the order; the oldest stay in memory, ready to go first.
  std::size_t first = entries.size();
  while (first > 0 && entries[first - 1].onDisk == 0) --first;
  if (first == entries.size()) return;
  std::vector<std::string> records;
  records.reserve(entries.size() - first);
  for (std::size_t i = first; i < entries.size(); ++i)
    records.push_back(std::move(entries[i].bytes));
  entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(first), entries.end());
  inMemory -= records.size();
  if (!entries.empty() && entries.back().onDisk > 0) {
    entries.back().onDisk += records.size();
  } else {
    entries.push_back(Entry{records.size(), {}});
  }
  transport->spill(std::move(records));
}

void ZLogRecordQueue::State::addRestoredLocked(std::uint64_t count) {
  // Restored records are the oldest of all: they go in front of everything not yet sent off.
  std::uint64_t skip = released;
  auto at = entries.begin();
  while (skip > 0 && at != entries.end()) {
    const std::uint64_t size = at->onDisk > 0 ? at->onDisk : 1;
    if (size > skip) {
      // Split a run on disk so that its released part stays in front.
      Entry rest{size - skip, {}};
      at->onDisk = skip;
      at = entries.insert(std::next(at), rest);
      break;
    }
    skip -= size;
    ++at;
  }
  if (at != entries.end() && at->onDisk > 0) {
    at->onDisk += count;
  } else {
    entries.insert(at, Entry{count, {}});
  }
  total += count;
}

void ZLogRecordQueue::State::dropFromDiskLocked(std::uint64_t count) {
  // The store drops the oldest records on disk: the first runs on disk here.
  for (auto it = entries.begin(); count > 0 && it != entries.end();) {
    if (it->onDisk == 0) {
      ++it;
      continue;
    }
    const std::uint64_t gone = std::min(count, it->onDisk);
    // Everything before this run is released or not alike; a released prefix shrinks with it.
    std::uint64_t before = 0;
    for (auto b = entries.begin(); b != it; ++b) before += b->onDisk > 0 ? b->onDisk : 1;
    if (released > before) released -= std::min(released - before, gone);
    it->onDisk -= gone;
    total -= gone;
    count -= gone;
    it = it->onDisk == 0 ? entries.erase(it) : std::next(it);
  }
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
  return state_->total - state_->released;
}

ZLogRecordQueue::Waiting ZLogRecordQueue::waiting() const {
  std::lock_guard lock(state_->mutex);
  const State& state = *state_;
  return Waiting{state.inMemory, state.total - state.inMemory,
                 state.released > 0 || state.restoring};
}

std::size_t ZLogRecordQueue::recordsInMemory() const {
  std::lock_guard lock(state_->mutex);
  return state_->inMemory;
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
  state_->entries.clear();
  state_->templates.clear();
  state_->total = 0;
  state_->released = 0;
  state_->inMemory = 0;
}

std::vector<std::string> ZLogRecordQueue::takeRecords() {
  std::lock_guard lock(state_->mutex);
  std::vector<std::string> records;
  for (auto& entry : state_->entries) {
    if (entry.onDisk == 0) records.push_back(std::move(entry.bytes));
  }
  state_->entries.clear();
  state_->total = 0;
  state_->released = 0;
  state_->inMemory = 0;
  state_->closed = true;
  return records;
}

}  // namespace zelvanor::detail
