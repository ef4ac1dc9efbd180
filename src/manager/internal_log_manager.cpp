#include "manager/internal_log_manager.hpp"

#include <simdjson.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "manager/privacy.hpp"
#include "model/identifying.hpp"
#include "platform/platform.hpp"
#include "support/diagnostics.hpp"
#include "support/settings.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/platform.hpp"

namespace zelvanor::detail {

std::shared_ptr<ZInternalLogManager> ZInternalLogManager::create(ManagerSources sources) {
  std::shared_ptr<ZInternalLogManager> manager(new ZInternalLogManager(std::move(sources)));
  manager->subscribeToLifecycle();
  manager->queue_.restorePendingRecords();
  // Events an earlier run tracked before it knew the triple go in front of this run's, before any
  // identity result is applied: both run on the worker, in this order, after the store has opened.
  manager->postIdentityWork([](ZInternalLogManager& self) { self.restoreKeptTemplates(); });
  return manager;
}

ZInternalLogManager::ZInternalLogManager(ManagerSources sources)
    : sources_(std::move(sources)),
      queue_(sources_.transport, sources_.storeLimits.maxRecordsInMemory),
      worker_(sources_.worker
                  ? sources_.worker
                  : std::make_shared<support::SerialQueue>("com.zelvanor.sdk.worker",
                                                           &platform::lowerCurrentThreadPriority)),
      retryPolicy_(sources_.retryPolicy
                       ? sources_.retryPolicy
                       : std::make_shared<support::RetryPolicy>(sources_.retryTimings)) {
  // The host's last word on collection holds across starts; read before any request can start.
  // A switch the host made before this start is its last word, and is written down now.
  if (const auto& store = sources_.settingsStore) {
    if (settings().collectionSetByHost.load()) {
      const std::int64_t enabled = settings().collectionEnabled.load() ? 1 : 0;
      if (store->integer(kCollectionKey) != enabled) store->setInteger(kCollectionKey, enabled);
    } else if (auto stored = store->integer(kCollectionKey)) {
      settings().collectionEnabled.store(*stored != 0);
    }
  }
}

void ZInternalLogManager::postIdentityWork(std::function<void(ZInternalLogManager&)> work) {
  // Under the lock stop() takes: work handed over before it runs before stop returns.
  std::lock_guard lock(stopMutex_);
  if (stopped_) return;
  worker_->async([weak = weak_from_this(), work = std::move(work)] {
    if (auto self = weak.lock()) work(*self);
  });
}

void ZInternalLogManager::scheduleIdentityRetry() {
  if (identityRetryScheduled_ || isReady()) return;
  identityRetryScheduled_ = true;
  const auto wait = retryPolicy_->failed(support::RetryReason::identitySync);
  worker_->asyncAfter(wait, [weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    self->identityRetryScheduled_ = false;
    {
      std::lock_guard lock(self->stopMutex_);
      if (self->stopped_) return;
    }
    if (self->isReady()) return;
    self->sources_.identity->retry();
    self->scheduleIdentityRetry();
  });
}

void ZInternalLogManager::restoreKeptTemplates() {
  const HeldDiagnostics held;  // said once mutex_ is released
  std::vector<ZLogTemplate> templates;
  const std::vector<std::string> kept = sources_.transport->takeKeptTemplates();
  for (const std::string& text : kept) {
    // One that this build cannot read is dropped: it must not hold the others up.
    if (auto decoded = decodeJson<ZLogTemplate>(text)) {
      templates.push_back(std::move(*decoded));
    } else {
      tally_.unreadableTemplates.fetch_add(1, std::memory_order_relaxed);
      diagnose(ZLogLevel::error, "a waiting event kept by an earlier run is unreadable: " +
                                     decoded.error().describe());
    }
  }
  tally_.restoredTemplates.fetch_add(kept.size(), std::memory_order_relaxed);
  if (kept.empty()) return;
  std::unique_lock lock(mutex_);
  // The earlier run's file stays until their records are on disk: a kill before then finds the
  // templates again at the next start.
  keptTemplatesTaken_ = true;
  keptTemplatesInFront_ = templates.size();
  queue_.prependTemplates(std::move(templates));
  if (ready_) resolveTemplatesLocked(lock);
}

std::vector<std::string> ZInternalLogManager::takeTemplatesToKeep() {
  std::vector<std::string> texts;
  for (const ZLogTemplate& logTemplate : queue_.takeTemplates()) {
    if (auto text = encodeJson(logTemplate)) texts.push_back(std::move(text).value());
  }
  return texts;
}

void ZInternalLogManager::stop() {
  {
    std::lock_guard lock(stopMutex_);
    stopped_ = true;
  }
  // Identity results already handed over are applied before shutdown takes the queue's records.
  worker_->sync([] {});
}

void ZInternalLogManager::waitForIdentityWork() {
  worker_->sync([] {});
}

void ZInternalLogManager::subscribeToLifecycle() {
  using platform::LifecycleEvent;
  std::weak_ptr<ZInternalLogManager> weak = weak_from_this();
  auto on = [&](LifecycleEvent wanted, void (ZInternalLogManager::*handler)()) {
    cancellables_.insert(
        platform::lifecycleEvents().subscribe([weak, wanted, handler](const LifecycleEvent& event) {
          if (event != wanted) return;
          if (auto self = weak.lock()) ((*self).*handler)();
        }));
  };
  on(LifecycleEvent::willTerminate, &ZInternalLogManager::trackAppBackground);
  on(LifecycleEvent::willResignActive, &ZInternalLogManager::trackAppBackground);
  on(LifecycleEvent::willEnterForeground, &ZInternalLogManager::trackAppLaunch);
}

void ZInternalLogManager::configure(const ZConfiguration& configuration) {
  auto& process = settings();
  process.requestTimeout.store(configuration.timeout);
  process.usingSandbox.store(configuration.usingSandboxEnvironment);
  queue_.setBatchSize(configuration.batchSize);

  std::weak_ptr<ZInternalLogManager> weak = weak_from_this();
  subscribeToIdentity();

  fillDefaultAgent();
  postIdentityWork([](ZInternalLogManager& self) { self.scheduleIdentityRetry(); });

  cancellables_.insert(commonSubject_.subscribe(
      [weak](const std::optional<ZCommon>&) {
        if (auto self = weak.lock()) self->checkAppVersion();
      },
      /*skipCurrent=*/true));
  cancellables_.insert(readySubject_.subscribe(
      [weak](const bool& ready) {
        if (auto self = weak.lock()) self->resolveTemplates(ready);
      },
      /*skipCurrent=*/true));
}

void ZInternalLogManager::setCommon(ZCommon common) {
  const std::lock_guard setting(commonSetMutex_);
  {
    const std::lock_guard lock(mutex_);
    commonForRecords_ = common;
  }
  commonSubject_.send(std::move(common));
}

void ZInternalLogManager::subscribeToIdentity() {
  std::weak_ptr<ZInternalLogManager> weak = weak_from_this();
  // Identity results are applied on the SDK's worker, whichever thread delivers them.
  cancellables_.insert(sources_.identity->fetchXid([weak](const ZXid& xid) {
    if (auto self = weak.lock()) {
      self->postIdentityWork([xid](ZInternalLogManager& manager) { manager.handleIdentity(xid); });
    }
  }));
}

void ZInternalLogManager::fillDefaultAgent() {
  const std::string timezone = platform::timezoneText();
  const std::string appVersion = platform::appVersionOrUnknown();

  sources_.network->startIfNeeded();
  std::weak_ptr<ZInternalLogManager> weak = weak_from_this();
  cancellables_.insert(sources_.network->states().subscribe([weak](const NetworkState& state) {
    auto self = weak.lock();
    if (!self) return;
    self->setAgent(ZAgent{.networkState = std::string(rawValue(state))});
    const bool online = state != NetworkState::offline;
    self->queue_.setAvailableNetworking(online);
    bool returned = false;
    {
      std::lock_guard lock(self->mutex_);
      returned = online && !self->lastOnline_;
      self->lastOnline_ = online;
    }
    if (returned && !self->isReady()) {
      // The way out is back: the sync server is asked at once, not at the end of the wait.
      self->postIdentityWork([](ZInternalLogManager& manager) {
        if (manager.isReady()) return;
        manager.retryPolicy_->succeeded(support::RetryReason::identitySync);
        manager.sources_.identity->retry();
      });
    }
  }));

  const ZPlatformFacts facts = currentPlatformFacts();
  ZAgent agent{
      .os = facts.os,
      .osVersion = facts.osVersion,
      .appVersion = appVersion,
      .deviceModel = facts.deviceModel,
      .language = facts.language,
      .timezone = timezone,
  };
  if (facts.screen) agent.screen = platform::screenText(*facts.screen);
  setAgent(agent);
}

void ZInternalLogManager::handleIdentity(const ZXid& xid) {
  const HeldDiagnostics held;  // said once mutex_ is released
  // Before any record carries it: a collector's answer may echo it.
  hideInDiagnostics({xid.cid, xid.did, xid.sid});
  {
    std::unique_lock lock(mutex_);
    xid_ = xid;
    ready_ = true;
    // Templates turn into records before the lock is released (or, while a hook runs, events
    // tracked meanwhile wait behind them), so none tracked after the triple arrived can
    // overtake one tracked before.
    resolveTemplatesLocked(lock);
  }
  readyChanged_.notify_all();
  readySubject_.send(true);
}

bool ZInternalLogManager::waitUntilReady(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  // The triple is applied on the worker: waiting there would only wait out the timeout.
  if (worker_->isCurrent()) return ready_;
  return readyChanged_.wait_for(lock, timeout, [&] { return ready_; });
}

void ZInternalLogManager::onReady(std::function<void()> callback) {
  if (!callback) return;
  // Once per registration, though the subject may repeat itself and the call may race with the
  // triple's arrival.
  auto pending = std::make_shared<std::atomic<bool>>(true);
  auto once = [pending, callback = std::move(callback)](const bool& ready) {
    if (!ready || !pending->exchange(false)) return;
    try {
      const HostCallbackScope hostCode;
      callback();
    } catch (...) {
      // A throwing host callback must not take the SDK's thread down.
    }
  };
  // ready_ is set before the subject publishes it: a host that saw waitUntilReady return true
  // is called back at once, not when the subject catches up.
  bool readyNow = false;
  {
    std::lock_guard lock(mutex_);
    readyNow = ready_;
  }
  if (readyNow) {
    once(true);
    return;
  }
  // No lock held: when the triple arrived meanwhile, the callback runs within subscribe.
  cancellables_.insert(readySubject_.subscribe(std::move(once)));
}

bool ZInternalLogManager::flushAndWait(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  queue_.flush();
  if (worker_->isCurrent()) {
    // Answers are taken on this very thread: none can arrive while it waits here.
    diagnose(ZLogLevel::warning,
             "flushAndWait called on the SDK's worker (an onReady callback?): records are sent, "
             "but their answers cannot be waited for there");
    return false;
  }
  // The queue hands records over as the transport makes room, so both sides are checked until
  // neither holds one without an outcome. Short slices: the queue has no signal to wait on.
  constexpr std::chrono::milliseconds kSlice{5};
  for (;;) {
    const auto now = std::chrono::steady_clock::now();
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
    if (!queue_.waiting().handingOver &&
        sources_.transport->waitUntilSettled(
            std::clamp(left, std::chrono::milliseconds(0), kSlice)) &&
        !queue_.waiting().handingOver) {
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    if (queue_.waiting().handingOver) std::this_thread::sleep_for(kSlice);
  }
}

ZCounters ZInternalLogManager::counters() const {
  const TransportCounts sent = sources_.transport->counts();
  const ZLogRecordQueue::Waiting waiting = queue_.waiting();
  ZCounters counters;
  counters.tracked = tally_.tracked.load(std::memory_order_relaxed);
  counters.restored = sent.restored + tally_.restoredTemplates.load(std::memory_order_relaxed);
  counters.delivered = sent.delivered;
  counters.refused = sent.refused;
  counters.keptOnDisk = sent.keptOnDisk;
  counters.resent = sent.resent;
  counters.dropped = ZDropCounts{
      .noCommonBlock = tally_.noCommonBlock.load(std::memory_order_relaxed),
      .noAction = tally_.noAction.load(std::memory_order_relaxed),
      .incompleteContext = tally_.incompleteContext.load(std::memory_order_relaxed),
      .unencodable = tally_.unencodable.load(std::memory_order_relaxed),
      .storageFull = sent.droppedForSpace,
      .unreadable = sent.quarantined + tally_.unreadableTemplates.load(std::memory_order_relaxed),
      .collectionOff = tally_.collectionOff.load(std::memory_order_relaxed),
      .beforeSend = tally_.beforeSend.load(std::memory_order_relaxed),
  };
  counters.waitingInMemory = waiting.inMemory;
  counters.waitingOnDisk = waiting.onDisk;
  counters.awaitingAnswer = sent.awaitingAnswer;
  counters.bytesOnDisk = sent.bytesOnDisk;
  counters.templatesWaiting = queue_.templateCount();
  return counters;
}

}  // namespace zelvanor::detail
