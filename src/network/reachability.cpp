#include "network/reachability.hpp"

namespace zelvanor::detail {

NetworkState ZReachability::stateFor(std::uint32_t flags) noexcept {
  if ((flags & platform::kReachableFlag) == 0) return NetworkState::offline;
  if (flags & platform::kIsWWANFlag) return NetworkState::mobile;
  return NetworkState::wifi;
}

ZReachability::~ZReachability() {
  stop();
}

void ZReachability::startIfNeeded() {
  std::lock_guard lock(mutex_);
  if (started_) return;
  started_ = true;
  source_ = makeSource_ ? makeSource_() : nullptr;
  // Without a way to watch, the state stays wifi and records are never held back.
  if (!source_) return;
  std::weak_ptr<ZReachability> weak = weak_from_this();
  const bool watching = source_->start([weak](std::uint32_t flags) {
    auto self = weak.lock();
    if (!self) return;
    self->queue_.async([weak, flags] {
      if (auto owner = weak.lock()) owner->systemChanged(flags);
    });
  });
  if (!watching) {
    source_.reset();
    return;
  }
  // The first report always publishes, even when the flags equal the initial 0.
  queue_.async([weak] {
    auto self = weak.lock();
    if (!self || self->hostDriven_) return;
    std::optional<std::uint32_t> flags;
    {
      std::lock_guard sourceLock(self->mutex_);
      // Stopped before this report ran: reporting now would publish a made-up offline.
      if (!self->source_) return;
      flags = self->source_->currentFlags();
    }
    self->lastFlags_ = flags.value_or(0);
    self->reported_ = true;
    self->states_.send(stateFor(self->lastFlags_));
  });
}

void ZReachability::pushFlags(std::uint32_t flags) {
  std::weak_ptr<ZReachability> weak = weak_from_this();
  // Synchronous: once the host's report returns, the next event it tracks sees the new state.
  queue_.sync([weak, flags] {
    auto self = weak.lock();
    if (!self) return;
    self->hostDriven_ = true;
    self->changed(flags);
  });
}

void ZReachability::systemChanged(std::uint32_t flags) {
  if (!hostDriven_) changed(flags);
}

void ZReachability::changed(std::uint32_t flags) {
  // Dedupe on the flags, not the state: two different flag words meaning wifi both publish. The
  // first report always publishes, also when it is 0 (offline) and no platform watch ran first.
  if (reported_ && flags == lastFlags_) return;
  reported_ = true;
  lastFlags_ = flags;
  states_.send(stateFor(flags));
}

void ZReachability::stop() {
  std::unique_ptr<platform::ReachabilityFlagSource> source;
  {
    std::lock_guard lock(mutex_);
    source = std::move(source_);
  }
  if (source) source->stop();
  queue_.stop();
}

}  // namespace zelvanor::detail
