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

namespace {

constexpr const char* kUnstable = "Zelvanor Status unstable not yet.";
constexpr const char* kNoRecord = "Can't make logRecord.";
constexpr const char* kCannotEncode = "Can't Encode logRecord";
constexpr const char* kCannotMakeString = "Can't create jsonString.";

std::int64_t nowInWholeSeconds() {
  using namespace std::chrono;
  return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

template <class T>
void takeIfPresent(std::optional<T>& stored, const std::optional<T>& given) {
  if (given) stored = given;
}

ZAction appAction(const char* name, const char* kind) {
  return ZAction(ZAction::ZActionType::app, name, kind);
}

void hide(std::optional<std::string>& value) {
  if (value) value = "<hidden>";
}

/// The record as a debug line may show it: identifiers and tokens are replaced.
ZLogRecord withoutSecrets(ZLogRecord record) {
  record.xid = ZXid{"<hidden>", "<hidden>", "<hidden>"};
  if (record.ucid) hide(record.ucid->id);
  if (record.agent) hide(record.agent->ip);
  if (ZId* id = record.id ? &*record.id : nullptr) {
    for (auto* member : {&id->accountId, &id->accessToken, &id->appUserId, &id->plovaUserId,
                         &id->hestroUserId, &id->tunqaId, &id->appId, &id->slid, &id->clid,
                         &id->uuid, &id->webId, &id->adid, &id->customId, &id->customGroupId}) {
      hide(*member);
    }
  }
  return record;
}

std::string describeAction(const ZAction& action) {
  return "(action " + action.type + " \"" + action.name + "\")";
}

}  // namespace

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
      identityBackoff_(sources_.retryTimings) {
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
  const auto wait = identityBackoff_.failed();
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

std::optional<std::string> ZInternalLogManager::encodeRecord(const ZLogRecord& record) {
  // Encoded once, here: from now on the record is its bytes, in memory, on disk and on the wire.
  // One that cannot be encoded (invalid UTF-8, a number JSON cannot hold) is dropped.
  auto encoded = encodeJson(record);
  if (!encoded) {
    tally_.unencodable.fetch_add(1, std::memory_order_relaxed);
    diagnose(ZLogLevel::error, "event dropped " + describeAction(record.action) +
                                   ": it cannot be encoded as JSON: " + encoded.error().describe());
    return std::nullopt;
  }
  return std::move(encoded).value();
}

void ZInternalLogManager::enqueueRecord(const ZLogRecord& record) {
  if (auto encoded = encodeRecord(record)) queue_.enqueue(std::move(*encoded));
}

// Work still on the worker holds only a weak reference: it finds the manager gone.
ZInternalLogManager::~ZInternalLogManager() = default;

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
        manager.identityBackoff_.succeeded();
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

void ZInternalLogManager::resolveTemplates(bool ready) {
  const HeldDiagnostics held;  // said once mutex_ is released
  if (!ready) return;
  std::unique_lock lock(mutex_);
  resolveTemplatesLocked(lock);
}

void ZInternalLogManager::resolveTemplatesLocked(std::unique_lock<std::mutex>& lock) {
  const bool hooked = beforeSendSet();
  resolving_ = hooked;
  while (resolveTemplatesOnce(lock, hooked) && hooked && queue_.templateCount() > 0) {
  }
  resolving_ = false;
}

bool ZInternalLogManager::resolveTemplatesOnce(std::unique_lock<std::mutex>& lock, bool hooked) {
  std::vector<ZLogTemplate> templates = queue_.takeTemplates();
  if (templates.empty() && !keptTemplatesTaken_) return false;
  const std::optional<ZCommon> common = commonSubject_.value();
  // Records built from an earlier run's templates reach the store before its file forgets them;
  // this run's templates become records as any track does, behind those.
  const std::size_t kept = std::min(std::exchange(keptTemplatesInFront_, 0), templates.size());
  const bool keptTaken = std::exchange(keptTemplatesTaken_, false);
  struct Built {
    ZLogRecord record;
    bool fromKept = false;
  };
  std::vector<Built> built;
  built.reserve(templates.size());
  for (std::size_t i = 0; i < templates.size(); ++i) {
    // A template whose context is still incomplete is dropped, as a track would drop it.
    if (!common || !agent_ || !xid_) {
      tally_.incompleteContext.fetch_add(1, std::memory_order_relaxed);
      diagnose(ZLogLevel::error, std::string("waiting event dropped: ") +
                                     (common ? "the device's agent block is not known"
                                             : "no common block had been set") +
                                     " when the identity triple arrived");
      continue;
    }
    auto record = ZLogRecordBuilder::buildRecordFromTemplate(contextLocked(common), templates[i]);
    if (!record) {
      tally_.noAction.fetch_add(1, std::memory_order_relaxed);
      diagnose(ZLogLevel::error, "waiting event dropped: no action block was set");
      continue;
    }
    built.push_back(Built{std::move(*record), i < kept});
  }
  if (hooked) {
    // The host's hook never runs under the SDK's lock.
    const std::uint64_t generation = generation_;
    lock.unlock();
    std::erase_if(built, [&](Built& item) { return !passesBeforeSend(item.record); });
    lock.lock();
    if (generation != generation_) return false;  // the app's data was deleted meanwhile
  }
  std::vector<std::string> fromKept;
  bool keptHandedOver = !keptTaken;
  for (const Built& item : built) {
    if (!item.fromKept && !keptHandedOver) {
      keptHandedOver = true;
      queue_.enqueueFromKeptTemplates(std::exchange(fromKept, {}));
    }
    if (!item.fromKept) {
      enqueueRecord(item.record);
    } else if (auto encoded = encodeRecord(item.record)) {
      fromKept.push_back(std::move(*encoded));
    }
  }
  if (!keptHandedOver) queue_.enqueueFromKeptTemplates(std::move(fromKept));
  return true;
}

void ZInternalLogManager::setDeploymentType(DeploymentType type) {
  std::lock_guard lock(mutex_);
  sdk_.type = type;
}

void ZInternalLogManager::setAgent(const ZAgent& agent) {
  std::lock_guard lock(mutex_);
  setAgentLocked(agent);
}

void ZInternalLogManager::setAgentLocked(const ZAgent& given) {
  if (!agent_) {
    agent_ = given;
    return;
  }
  ZAgent& stored = *agent_;
  takeIfPresent(stored.userAgent, given.userAgent);
  takeIfPresent(stored.ip, given.ip);
  takeIfPresent(stored.os, given.os);
  takeIfPresent(stored.osVersion, given.osVersion);
  takeIfPresent(stored.appVersion, given.appVersion);
  takeIfPresent(stored.deviceModel, given.deviceModel);
  // The collector has always received the device model here; the given deviceNumber is never
  // taken once an agent is stored. Kept as the collector's data expects it.
  takeIfPresent(stored.deviceNumber, given.deviceModel);
  takeIfPresent(stored.browser, given.browser);
  takeIfPresent(stored.browserVersion, given.browserVersion);
  takeIfPresent(stored.carrier, given.carrier);
  takeIfPresent(stored.networkState, given.networkState);
  takeIfPresent(stored.language, given.language);
  takeIfPresent(stored.screen, given.screen);
  takeIfPresent(stored.timezone, given.timezone);
}

void ZInternalLogManager::setId(const ZId& given) {
  hideInDiagnostics(identifyingValues(given));
  std::lock_guard lock(mutex_);
  if (!id_) {
    id_ = given;
    return;
  }
  ZId& stored = *id_;
  takeIfPresent(stored.accountId, given.accountId);
  takeIfPresent(stored.accessToken, given.accessToken);
  takeIfPresent(stored.appUserId, given.appUserId);
  takeIfPresent(stored.plovaUserId, given.plovaUserId);
  takeIfPresent(stored.hestroUserId, given.hestroUserId);
  takeIfPresent(stored.tunqaId, given.tunqaId);
  takeIfPresent(stored.appId, given.appId);
  takeIfPresent(stored.slid, given.slid);
  takeIfPresent(stored.clid, given.clid);
  takeIfPresent(stored.uuid, given.uuid);
  takeIfPresent(stored.webId, given.webId);
  takeIfPresent(stored.webIdEnabled, given.webIdEnabled);
  takeIfPresent(stored.adid, given.adid);
  takeIfPresent(stored.adidEnabled, given.adidEnabled);
  takeIfPresent(stored.customId, given.customId);
  takeIfPresent(stored.customGroupId, given.customGroupId);
}

#define ZELVANOR_BUILDER_SETTER(Name, Type)    \
  void ZInternalLogManager::Name(Type value) { \
    std::lock_guard lock(mutex_);              \
    builder_.Name(std::move(value));           \
  }
ZELVANOR_BUILDER_SETTER(setAgreement, ZAgreement)
ZELVANOR_BUILDER_SETTER(setApp, ZApp)
ZELVANOR_BUILDER_SETTER(setClick, ZClick)
ZELVANOR_BUILDER_SETTER(setLocation, ZLocation)
ZELVANOR_BUILDER_SETTER(setPage, ZPage)
ZELVANOR_BUILDER_SETTER(setPromotion, ZPromotion)
ZELVANOR_BUILDER_SETTER(setStatus, ZStatus)
ZELVANOR_BUILDER_SETTER(setUsage, ZUsage)
ZELVANOR_BUILDER_SETTER(setAction, ZAction)
ZELVANOR_BUILDER_SETTER(setDomain, ZDomain)
ZELVANOR_BUILDER_SETTER(setUtm, ZUtm)
ZELVANOR_BUILDER_SETTER(appendBucket, ZBucket)
ZELVANOR_BUILDER_SETTER(appendBuckets, std::vector<ZBucket>)
ZELVANOR_BUILDER_SETTER(appendViewImpressionContent, ZViewImpressionContent)
ZELVANOR_BUILDER_SETTER(appendViewImpressionContents, std::vector<ZViewImpressionContent>)
#undef ZELVANOR_BUILDER_SETTER

ZUcid ZInternalLogManager::deriveUcidLocked() const {
  ZUcid ucid;
  if (common_) {
    ucid.serviceName = common_->serviceName;
    ucid.serviceId = common_->serviceId;
  }
  if (id_) {
    for (const auto* candidate :
         {&id_->appUserId, &id_->accountId, &id_->plovaUserId, &id_->hestroUserId, &id_->tunqaId,
          &id_->accessToken, &id_->customId}) {
      if (*candidate && !(*candidate)->empty()) {
        ucid.id = **candidate;
        return ucid;
      }
    }
  }
  if (xid_) ucid.id = xid_->cid;
  return ucid;
}

RecordContext ZInternalLogManager::contextLocked(std::optional<ZCommon> common) const {
  return RecordContext{*xid_, sdk_, std::move(common), id_, deriveUcidLocked(), agent_};
}

void ZInternalLogManager::track(bool verbose, bool disabled) {
  const HeldDiagnostics held;  // said once mutex_ is released
  const HeldRecords records(*this);
  std::lock_guard lock(mutex_);
  trackLocked(verbose, disabled);
}

void ZInternalLogManager::track(ZLogTemplate blocks, bool verbose, bool disabled) {
  const HeldDiagnostics held;  // said once mutex_ is released
  const HeldRecords records(*this);
  std::lock_guard lock(mutex_);
  trackBlocksLocked(std::move(blocks), verbose, disabled);
}

void ZInternalLogManager::trackLocked(bool verbose, bool disabled) {
  // Every outcome below used to empty the builder at its own point; taking its blocks first
  // leaves it just as empty and lets a host's own blocks go the same way.
  trackBlocksLocked(builder_.makeTemplate(), verbose, disabled);
}

void ZInternalLogManager::trackBlocksLocked(ZLogTemplate blocks, bool verbose, bool disabled) {
  if (!disabled) tally_.tracked.fetch_add(1, std::memory_order_relaxed);
  if (!settings().collectionEnabled.load(std::memory_order_relaxed)) {
    if (!disabled) dropForCollectionOff();
    return;
  }
  if (!ready_ || resolving_) {
    if (verbose && diagnosing(ZLogLevel::debug)) {
      // A template holds only the event's own blocks: nothing secret.
      if (auto json = encodeJson(blocks, JsonStyle::pretty)) {
        diagnose(ZLogLevel::debug, "event waits for the identity triple:\n" + *json);
      }
    }
    if (!disabled) queue_.appendTemplate(std::move(blocks));
    return;
  }
  std::optional<ZCommon> common = commonSubject_.value();
  if (!common) {
    if (disabled) return;
    tally_.noCommonBlock.fetch_add(1, std::memory_order_relaxed);
    if (diagnosing(ZLogLevel::error)) {
      diagnose(ZLogLevel::error,
               "event dropped " +
                   (blocks.action ? describeAction(*blocks.action) : std::string("(no action)")) +
                   ": no common block has been set; set one before tracking");
    }
    return;
  }
  const std::int64_t now = nowInWholeSeconds();
  if (!agent_ || !xid_) {
    if (disabled) return;
    tally_.incompleteContext.fetch_add(1, std::memory_order_relaxed);
    diagnose(ZLogLevel::error, "event dropped: the device's agent block is not known yet");
    return;
  }
  common->requestTimeStamp = now;
  auto record = ZLogRecordBuilder::buildRecord(contextLocked(std::move(common)), std::move(blocks));
  if (!record) {
    if (disabled) return;
    tally_.noAction.fetch_add(1, std::memory_order_relaxed);
    diagnose(ZLogLevel::error, "event dropped: no action block was set; every event needs one");
    return;
  }
  if (verbose && diagnosing(ZLogLevel::debug)) {
    if (auto json = encodeJson(withoutSecrets(*record), JsonStyle::pretty)) {
      diagnose(ZLogLevel::debug, "record " + describeAction(record->action) + ":\n" + *json);
    }
  }
  if (disabled) return;
  const bool hooked = beforeSendSet();
  if (hooked && heldRecordsHere()) {
    heldRecordsHere()->push_back(HookedRecord{std::move(*record), generation_});
    return;
  }
  // No path builds records without HeldRecords while a hook is set; kept safe anyway.
  if (!hooked || passesBeforeSend(*record)) enqueueRecord(*record);
}

std::string ZInternalLogManager::getData() {
  std::lock_guard lock(mutex_);
  std::optional<ZCommon> common = commonSubject_.value();
  if (!ready_ || !common || !agent_ || !id_ || !xid_) return kUnstable;
  common->requestTimeStamp = nowInWholeSeconds();
  auto record = builder_.buildRecord(contextLocked(std::move(common)));
  if (!record) return kNoRecord;
  auto json = encodeJson(*record, JsonStyle::pretty);
  if (!json) return kCannotEncode;
  if (!simdjson::validate_utf8(json->data(), json->size())) return kCannotMakeString;
  return std::move(json).value();
}

void ZInternalLogManager::trackAppEventLocked(ZApp app, ZAction action) {
  builder_.setApp(std::move(app));
  builder_.setAction(std::move(action));
  trackLocked(false, false);
}

void ZInternalLogManager::trackAppLaunch() {
  const HeldDiagnostics held;  // said once mutex_ is released
  const HeldRecords records(*this);
  std::lock_guard lock(mutex_);
  trackAppEventLocked(ZApp{.appLaunch = true}, appAction("앱실행", "launch"));
}

void ZInternalLogManager::trackAppBackground() {
  const HeldDiagnostics held;  // said once mutex_ is released
  const HeldRecords records(*this);
  std::lock_guard lock(mutex_);
  trackAppEventLocked(ZApp{.appExit = true}, appAction("백그라운드", "background"));
}

void ZInternalLogManager::checkAppVersion() {
  const HeldDiagnostics held;  // said once mutex_ is released
  // Runs within the common block's delivery, and deliveries never overlap, so two host threads
  // setting the common block at once still see one install. The settings file is written
  // outside the manager's lock: other threads' events never wait for the disk.
  if (!settings().collectionEnabled.load()) {
    // Nothing is recorded or written while collection is off; done when it is back on.
    versionCheckSkipped_.store(true);
    return;
  }
  const auto& store = sources_.settingsStore;
  const std::optional<std::string> previous =
      store ? store->string("latestAppVersion") : std::nullopt;
  const std::string current = platform::appVersionOrUnknown();

  if (store && previous == current) {
    trackAppLaunch();
    return;
  }
  if (previous) {
    const HeldRecords records(*this);
    std::lock_guard lock(mutex_);
    trackAppEventLocked(ZApp{.appUpdate = true}, appAction("앱업데이트", "update"));
  } else {
    std::string installDate;
    std::int64_t installTimestamp = 0;
    {
      std::lock_guard installLock(installMutex_);
      if (!installFactsKnown_) {
        // The first install's date and timestamp are kept, so every later install event of this
        // app (a lost settings file aside) reports the same moment.
        auto storedDate = store ? store->string("appInstalledDate") : std::nullopt;
        auto storedTimestamp = store ? store->integer("appInstalledTimestamp") : std::nullopt;
        installDate_ = storedDate ? *storedDate : platform::todayInstallDate();
        installTimestamp_ = storedTimestamp ? *storedTimestamp : nowInWholeSeconds();
        if (store && !storedDate) store->setString("appInstalledDate", installDate_);
        if (store && !storedTimestamp)
          store->setInteger("appInstalledTimestamp", installTimestamp_);
        installFactsKnown_ = true;
      }
      // Copied under the lock: a deletion of the app's data may reset them meanwhile.
      installDate = installDate_;
      installTimestamp = installTimestamp_;
    }
    const HeldRecords records(*this);
    std::lock_guard lock(mutex_);
    trackAppEventLocked(ZApp{.appInstall = true,
                             .appLaunch = true,
                             .appInstallDate = installDate,
                             .appInstallTimestamp = installTimestamp},
                        appAction("앱설치", "install"));
  }
  if (store) store->setString("latestAppVersion", current);
  trackAppLaunch();
}

ZSDK ZInternalLogManager::sdk() const {
  std::lock_guard lock(mutex_);
  return sdk_;
}

std::optional<ZXid> ZInternalLogManager::xid() const {
  std::lock_guard lock(mutex_);
  return xid_;
}

std::optional<ZAgent> ZInternalLogManager::agent() const {
  std::lock_guard lock(mutex_);
  return agent_;
}

std::optional<ZId> ZInternalLogManager::id() const {
  std::lock_guard lock(mutex_);
  return id_;
}

}  // namespace zelvanor::detail
