// The manager's records: templates resolved once the triple is known, the host's agent and id
// blocks, the events it tracks and the app's own (install, update, launch, background).
#include "manager/internal_log_manager.hpp"

#include <simdjson.h>
#include <algorithm>
#include <chrono>
#include <thread>
#include "manager/privacy.hpp"
#include "model/identifying.hpp"
#include "model/record_view.hpp"
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

std::optional<std::string> ZInternalLogManager::encodeRecord(const ZLogRecord& record) {
  // Encoded once, here: from now on the record is its bytes, in memory, on disk and on the wire.
  // One that cannot be encoded (invalid UTF-8, a number JSON cannot hold) is dropped.
  auto encoded = encodeJson(record);
  if (!encoded) {
    dropUnencodable(record.action, encoded.error());
    return std::nullopt;
  }
  // The encoder reserves room for a large record; a record waits at its own size.
  std::string bytes = std::move(encoded).value();
  bytes.shrink_to_fit();
  return bytes;
}

void ZInternalLogManager::dropUnencodable(const ZAction& action, const CodecError& error) {
  tally_.unencodable.fetch_add(1, std::memory_order_relaxed);
  diagnose(ZLogLevel::error, "event dropped " + describeAction(action) +
                                 ": it cannot be encoded as JSON: " + error.describe());
}

void ZInternalLogManager::enqueueRecord(const ZLogRecord& record) {
  if (auto encoded = encodeRecord(record)) queue_.enqueue(std::move(*encoded));
}

// Work still on the worker holds only a weak reference: it finds the manager gone.
ZInternalLogManager::~ZInternalLogManager() = default;

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
  const std::optional<ZCommon> common = commonForRecords_;
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
  // The ucid never names the service, even when the common block does: its service fields stay
  // absent, as collectors have always received it.
  ZUcid ucid;
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
  {
    const HeldDiagnostics held;  // said once mutex_ is released
    const HeldRecords records(*this);
    std::lock_guard lock(mutex_);
    trackLocked(verbose, disabled);
  }
  queue_.keepPaceWithDisk();
}

void ZInternalLogManager::track(ZLogTemplate blocks, bool verbose, bool disabled) {
  {
    const HeldDiagnostics held;  // said once mutex_ is released
    const HeldRecords records(*this);
    std::lock_guard lock(mutex_);
    trackBlocksLocked(std::move(blocks), verbose, disabled);
  }
  queue_.keepPaceWithDisk();
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
  if (!commonForRecords_) {
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
  if (!blocks.action) {
    if (disabled) return;
    tally_.noAction.fetch_add(1, std::memory_order_relaxed);
    diagnose(ZLogLevel::error, "event dropped: no action block was set; every event needs one");
    return;
  }
  if (disabled && !verbose) return;
  if (disabled || verbose || beforeSendSet()) {
    std::optional<ZCommon> common = commonForRecords_;
    common->requestTimeStamp = now;
    buildRecordLocked(contextLocked(std::move(common)), std::move(blocks), verbose, disabled);
    return;
  }
  // The usual event: encoded straight from where its blocks live, with no record built.
  commonForRecords_->requestTimeStamp = now;
  const std::optional<ZUcid> ucid = deriveUcidLocked();
  const ZLogRecordView view{
      .xid = &*xid_,
      .sdk = &sdk_,
      .action = &*blocks.action,
      .common = &commonForRecords_,
      .id = &id_,
      .ucid = &ucid,
      .agreement = &blocks.agreement,
      .utm = &blocks.utm,
      .agent = &agent_,
      .app = &blocks.app,
      .location = &blocks.location,
      .page = &blocks.page,
      .click = &blocks.click,
      .usage = &blocks.usage,
      .domain = &blocks.domain,
      .promotion = &blocks.promotion,
      .viewImpressionContents = &blocks.viewImpressionContents,
      .buckets = &blocks.buckets,
      .status = &blocks.status,
      .free = &blocks.free,
  };
  CodecError error;
  if (!encodeRecordView(view, encodeScratch_, error)) {
    dropUnencodable(*blocks.action, error);
    return;
  }
  // Copied out at its exact size: a waiting record costs its JSON, not the scratch's capacity.
  queue_.enqueue(std::string(encodeScratch_));
}

void ZInternalLogManager::buildRecordLocked(RecordContext context, ZLogTemplate blocks,
                                            bool verbose, bool disabled) {
  ZLogRecord record = ZLogRecordBuilder::makeRecord(std::move(context), std::move(blocks));
  if (verbose && diagnosing(ZLogLevel::debug)) {
    if (auto json = encodeJson(withoutSecrets(record), JsonStyle::pretty)) {
      diagnose(ZLogLevel::debug, "record " + describeAction(record.action) + ":\n" + *json);
    }
  }
  if (disabled) return;
  const bool hooked = beforeSendSet();
  if (hooked && heldRecordsHere()) {
    heldRecordsHere()->push_back(HookedRecord{std::move(record), generation_});
    return;
  }
  // No path builds records without HeldRecords while a hook is set; kept safe anyway.
  if (!hooked || passesBeforeSend(record)) enqueueRecord(record);
}

std::string ZInternalLogManager::getData() {
  std::lock_guard lock(mutex_);
  std::optional<ZCommon> common = commonForRecords_;
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
