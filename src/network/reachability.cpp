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
  std::weak_ptr<ZReachability> weak = weak_from_this();
  {
    std::lock_guard lock(sourceMutex_);
    if (started_) return;
    started_ = true;
    source_ = makeSource_ ? makeSource_() : nullptr;
    // Without a way to watch, the state stays wifi and records are never held back.
    if (!source_) return;
    // Changes are published on the watch's own thread: no queue in between.
    const bool watching = source_->start([weak](std::uint32_t flags) {
      if (auto self = weak.lock()) self->changed(flags, /*fromHost=*/false);
    });
    if (!watching) {
      source_.reset();
      return;
    }
  }
  // Reading the flags asks the kernel about routes and links: not on the host's thread.
  if (worker_) {
    worker_->async([weak] {
      if (auto self = weak.lock()) self->firstReport();
    });
  } else {
    firstReport();
  }
}

void ZReachability::firstReport() {
  std::optional<std::uint32_t> flags;
  {
    std::lock_guard sourceLock(sourceMutex_);
    // Stopped before this report ran: reporting now would publish a made-up offline.
    if (!source_) return;
    flags = source_->currentFlags();
  }
  std::lock_guard lock(reportMutex_);
  if (hostDriven_) return;
  // The first report always publishes, even when the flags equal the initial 0.
  lastFlags_ = flags.value_or(0);
  reported_ = true;
  states_.send(stateFor(lastFlags_));
}

void ZReachability::pushFlags(std::uint32_t flags) {
  changed(flags, /*fromHost=*/true);
}

void ZReachability::changed(std::uint32_t flags, bool fromHost) {
  std::lock_guard lock(reportMutex_);
  if (fromHost) {
    hostDriven_ = true;
  } else if (hostDriven_) {
    return;
  }
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
    std::lock_guard lock(sourceMutex_);
    source = std::move(source_);
  }
  // Joins the watch's thread; a change it is publishing finishes first.
  if (source) source->stop();
}

}  // namespace zelvanor::detail
