#include "manager/privacy.hpp"

#include <filesystem>
#include <mutex>
#include <utility>

#include "manager/local_data.hpp"
#include "support/diagnostics.hpp"
#include "support/settings.hpp"

namespace zelvanor::detail {

namespace {

struct BeforeSendSlot {
  std::mutex mutex;
  std::shared_ptr<const BeforeSendHook> hook;  ///< guarded by mutex
  std::atomic<bool> set{false};                ///< read on every track: no lock when unset
};

BeforeSendSlot& beforeSendSlot() {
  static auto* slot = new BeforeSendSlot();  // never destroyed: exit-time tracks may read it
  return *slot;
}

}  // namespace

bool beforeSendSet() noexcept {
  return beforeSendSlot().set.load(std::memory_order_relaxed);
}

std::shared_ptr<const BeforeSendHook> currentBeforeSend() {
  BeforeSendSlot& slot = beforeSendSlot();
  std::lock_guard lock(slot.mutex);
  return slot.hook;
}

void setBeforeSendHook(BeforeSendHook hook) {
  BeforeSendSlot& slot = beforeSendSlot();
  std::lock_guard lock(slot.mutex);
  slot.hook = hook ? std::make_shared<const BeforeSendHook>(std::move(hook)) : nullptr;
  slot.set.store(slot.hook != nullptr);
}

bool ZInternalLogManager::passesBeforeSend(ZLogRecord& record) {
  const auto hook = currentBeforeSend();
  if (!hook) return true;
  bool keep = false;
  try {
    const HostCallbackScope hostCode;
    keep = (*hook)(record);
  } catch (...) {
    // A hook that throws cannot have scrubbed the record: it does not leave.
    keep = false;
  }
  if (!keep) {
    tally_.beforeSend.fetch_add(1, std::memory_order_relaxed);
    if (diagnosing(ZLogLevel::info)) {
      diagnose(ZLogLevel::info, "event dropped (action " + record.action.type + " \"" +
                                    record.action.name + "\")" +
                                    ": the before-send hook refused it");
    }
  }
  return keep;
}

void ZInternalLogManager::sendHeld(std::vector<HookedRecord> records) {
  const HeldDiagnostics held;
  std::vector<std::pair<std::string, std::uint64_t>> encoded;
  encoded.reserve(records.size());
  for (HookedRecord& item : records) {
    if (!passesBeforeSend(item.record)) continue;
    if (auto bytes = encodeRecord(item.record))
      encoded.emplace_back(std::move(*bytes), item.generation);
  }
  std::lock_guard lock(mutex_);
  for (auto& [bytes, generation] : encoded) {
    // Built before the app's data was deleted: it belongs to the identity that was forgotten.
    if (generation == generation_) queue_.enqueue(std::move(bytes));
  }
}

void ZInternalLogManager::dropForCollectionOff() {
  tally_.collectionOff.fetch_add(1, std::memory_order_relaxed);
  if (!offSaid_.exchange(true) && diagnosing(ZLogLevel::warning)) {
    diagnose(ZLogLevel::warning,
             "collection is off: events are dropped, nothing is sent or written, and records "
             "waiting stay where they are until it is on again (said once)");
  }
}

void ZInternalLogManager::setCollectionEnabled(bool enabled) {
  const HeldDiagnostics held;
  const bool was = settings().collectionEnabled.exchange(enabled);
  if (const auto& store = sources_.settingsStore;
      store && store->integer(kCollectionKey) != std::optional<std::int64_t>(enabled ? 1 : 0)) {
    store->setInteger(kCollectionKey, enabled ? 1 : 0);
  }
  if (!enabled || was) return;
  offSaid_.store(false);
  sources_.transport->resumeSending();
  postIdentityWork([](ZInternalLogManager& self) {
    if (self.isReady()) return;
    self.retryPolicy_->succeeded(support::RetryReason::identitySync);
    self.sources_.identity->retry();
  });
  // The common block came while collection was off: its install, update or launch is recorded
  // now that the host allows it.
  if (versionCheckSkipped_.exchange(false) && commonSubject_.value()) checkAppVersion();
}

void ZInternalLogManager::deleteLocalData() {
  const HeldDiagnostics held;
  const std::filesystem::path& directory = sources_.dataDirectory;
  const bool marked = !directory.empty() && local_data::markErasing(directory);
  // On the worker: identity results already handed over are applied before, and none of them
  // after; delivery and the store are the worker's own.
  worker_->sync([&] {
    {
      std::lock_guard lock(mutex_);
      ++generation_;
      xid_.reset();
      ready_ = false;
      queue_.discardAll();
      keptTemplatesInFront_ = 0;
      keptTemplatesTaken_ = false;
    }
    sources_.transport->deleteLocalData();
    sources_.identity->forget();
    if (sources_.settingsStore) local_data::forgetInstall(*sources_.settingsStore);
    {
      std::lock_guard lock(installMutex_);
      installFactsKnown_ = false;
    }
    retryPolicy_->succeeded(support::RetryReason::identitySync);
  });
  if (marked) local_data::unmarkErasing(directory);
  diagnose(ZLogLevel::info,
           "local data deleted: records, cookies, the identity triple and the "
           "install settings are gone");
  readySubject_.send(false);
  // A new identity from the sync server (once collection is on), and a fresh install.
  subscribeToIdentity();
  postIdentityWork([](ZInternalLogManager& self) { self.scheduleIdentityRetry(); });
  if (!settings().collectionEnabled.load()) {
    versionCheckSkipped_.store(true);
  } else if (commonSubject_.value()) {
    checkAppVersion();
  }
}

}  // namespace zelvanor::detail
