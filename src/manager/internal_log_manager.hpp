// The one object behind the facade: keeps the context that outlives an event (identity triple, sdk,
// agent, id, common), fills the agent and the app lifecycle events itself, and turns each track
// into a record, or into a template while the identity triple is unknown.
//
// Threads: every host thread may call in. One mutex guards the manager's state and the builder;
// the queue has its own (lock order: manager, then queue). Subjects publish outside the lock, and
// diagnostics said under it are held until it is released (a host's sink may call back in).
// Identity results, the kept templates and the sync retries run on the SDK's worker, the thread
// that also delivers: one thread, so their order is the order they were handed over in.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "builder/log_record_builder.hpp"
#include "network/sources.hpp"
#include "platform/settings_store.hpp"
#include "platform/thread_priority.hpp"
#include "queue/log_record_queue.hpp"
#include "support/retry_policy.hpp"
#include "support/serial_queue.hpp"
#include "support/subject.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/diagnostics.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/record.hpp"
#include "zelvanor/storage.hpp"

namespace zelvanor::detail {

struct ManagerSources {
  std::shared_ptr<RecordTransport> transport;
  std::shared_ptr<IdentitySource> identity;
  std::shared_ptr<NetworkMonitor> network;
  std::shared_ptr<platform::SettingsStore>
      settingsStore;  ///< null when there is nowhere to keep it
  ZStoreLimits storeLimits{};
  support::RetryTimings retryTimings{};  ///< how long to wait before asking the sync server again
  /// Every wait of the SDK, shared with the transport; null: one from retryTimings.
  std::shared_ptr<support::RetryPolicy> retryPolicy{};
  /// The SDK's one worker, shared with the transport and reachability; null gives the manager a
  /// worker of its own.
  std::shared_ptr<support::SerialQueue> worker{};
  /// Where the store, the cookie jar and the settings live (empty: nowhere); deleteLocalData
  /// marks its work there so that a crash part way cannot leave half of it.
  std::filesystem::path dataDirectory{};
};

/// The host's before-send hook, process-wide (it outlives a shutdown, so a restarted SDK never
/// sends a record the host meant to scrub); an empty function removes it.
using BeforeSendHook = std::function<bool(ZLogRecord&)>;
void setBeforeSendHook(BeforeSendHook hook);

class ZInternalLogManager : public std::enable_shared_from_this<ZInternalLogManager> {
 public:
  /// Subscribes to the lifecycle events and restores the pending records.
  static std::shared_ptr<ZInternalLogManager> create(ManagerSources sources);
  ~ZInternalLogManager();

  ZInternalLogManager(const ZInternalLogManager&) = delete;
  ZInternalLogManager& operator=(const ZInternalLogManager&) = delete;

  /// Applies the settings and subscribes again (identity, network, common block, readiness).
  /// Subscriptions are never removed, so every further call doubles each of them.
  void configure(const ZConfiguration& configuration);

  void setDeploymentType(DeploymentType type);
  void setCommon(ZCommon common);
  void setAgent(const ZAgent& agent);
  void setId(const ZId& id);

  void setAgreement(ZAgreement value);
  void setApp(ZApp value);
  void setClick(ZClick value);
  void setLocation(ZLocation value);
  void setPage(ZPage value);
  void setPromotion(ZPromotion value);
  void setStatus(ZStatus value);
  void setUsage(ZUsage value);
  void setAction(ZAction value);
  void setDomain(ZDomain value);
  void setUtm(ZUtm value);
  void appendBucket(ZBucket value);
  void appendBuckets(std::vector<ZBucket> values);
  void appendViewImpressionContent(ZViewImpressionContent value);
  void appendViewImpressionContents(std::vector<ZViewImpressionContent> values);

  void track(bool verbose, bool disabled);
  /// Collection on or off, kept in the settings file. Off: tracks build and keep nothing,
  /// lifecycle events are not recorded, nothing is sent; what waits stays where it is.
  void setCollectionEnabled(bool enabled);
  /// Removes the records in memory and on disk, the kept templates, the cookies and the identity
  /// triple, and the install and version settings; a new triple is asked for (collection on)
  /// and the next common block records a fresh install. Returns once the files are gone.
  void deleteLocalData();
  /// Tracks blocks the caller holds (a host's ZEvent) as track() tracks the builder's, under the
  /// same lock and with the same context; the builder is left alone.
  void track(ZLogTemplate blocks, bool verbose, bool disabled);
  std::string getData();

  void trackAppLaunch();
  void trackAppBackground();

  /// Records built under the lock, held per thread until it is released (see HeldRecords).
  struct HookedRecord {
    ZLogRecord record;
    std::uint64_t generation = 0;
  };

  ZLogRecordQueue& queue() noexcept { return queue_; }
  ZSDK sdk() const;
  std::optional<ZXid> xid() const;
  std::optional<ZAgent> agent() const;
  std::optional<ZId> id() const;
  bool isReady() const { return readySubject_.value(); }
  /// Waits until the identity triple is known; false when `timeout` passed first.
  bool waitUntilReady(std::chrono::milliseconds timeout);
  /// Runs `callback` once the triple is known: at once on this thread when it already is,
  /// otherwise on the SDK's worker, with no lock held.
  void onReady(std::function<void()> callback);
  /// Sends every record waiting, then waits until each record handed over so far has an
  /// answer or is kept on disk; false when `timeout` passed first. Records other threads track
  /// meanwhile may be waited for too. On the SDK's worker (an onReady callback) nothing can be
  /// answered while it waits: false at once.
  bool flushAndWait(std::chrono::milliseconds timeout);
  /// What happened since this instance started.
  ZCounters counters() const;
  /// Waits until identity results handed to the SDK's worker so far have been applied.
  void waitForIdentityWork();
  /// Applies the identity results already handed over; those arriving later are dropped.
  void stop();
  /// Takes the templates still waiting for the triple, encoded, to be kept for the next start.
  std::vector<std::string> takeTemplatesToKeep();

 private:
  explicit ZInternalLogManager(ManagerSources sources);
  void subscribeToLifecycle();
  void restoreKeptTemplates();
  /// Asks the identity source for the triple; each one that arrives is applied on the worker.
  void subscribeToIdentity();
  class HeldRecords;
  /// Runs the before-send hook on each (no lock held), then queues those it kept, in order.
  void sendHeld(std::vector<HookedRecord> records);
  /// The hook's verdict (true without a hook); counts and says a drop. No lock may be held.
  bool passesBeforeSend(ZLogRecord& record);
  /// Drops an event because collection is off: counted, and said once per off period.
  void dropForCollectionOff();
  /// While no triple is known, the sync server is asked again on a back-off.
  void scheduleIdentityRetry();
  void enqueueRecord(const ZLogRecord& record);
  /// The record's bytes; nothing (counted and said) when it cannot be encoded.
  std::optional<std::string> encodeRecord(const ZLogRecord& record);
  void handleIdentity(const ZXid& xid);
  void resolveTemplates(bool ready);
  /// Hands identity work to the worker unless stop() has begun.
  void postIdentityWork(std::function<void(ZInternalLogManager&)> work);
  void resolveTemplatesLocked(std::unique_lock<std::mutex>& lock);
  /// One pass over the templates waiting; false when there were none (or data was deleted
  /// while the hook ran). With a hook the lock is released while it runs.
  bool resolveTemplatesOnce(std::unique_lock<std::mutex>& lock, bool hooked);
  void fillDefaultAgent();
  void checkAppVersion();
  void trackLocked(bool verbose, bool disabled);
  void trackBlocksLocked(ZLogTemplate blocks, bool verbose, bool disabled);
  void trackAppEventLocked(ZApp app, ZAction action);
  void setAgentLocked(const ZAgent& agent);
  ZUcid deriveUcidLocked() const;
  RecordContext contextLocked(std::optional<ZCommon> common) const;
  void dropUnencodable(const ZAction& action, const CodecError& error);
  void buildRecordLocked(RecordContext context, ZLogTemplate blocks, bool verbose, bool disabled);

  ManagerSources sources_;
  mutable std::mutex mutex_;
  ZSDK sdk_{DeploymentType::development, std::string(kSdkVersion), std::string(kCommonLogVersion)};
  std::optional<ZXid> xid_;
  std::optional<ZAgent> agent_;
  std::optional<ZId> id_;
  bool ready_ = false;  // mirrors readySubject_, but changes atomically with the templates
  ZLogRecordBuilder builder_;
  ZLogRecordQueue queue_;
  support::CurrentValueSubject<std::optional<ZCommon>> commonSubject_{std::nullopt};
  std::mutex commonSetMutex_;  ///< one setCommon at a time: the copy below and the subject agree
  /// Guarded by mutex_: the host's common block, which records read in place (the subject only
  /// tells the install/update check that it changed).
  std::optional<ZCommon> commonForRecords_;
  std::string encodeScratch_;  ///< guarded by mutex_: a track's JSON, before its exact-size copy
  support::CurrentValueSubject<bool> readySubject_{false};
  support::CancellableSet cancellables_;
  const std::shared_ptr<support::SerialQueue> worker_;
  std::mutex stopMutex_;
  bool stopped_ = false;  ///< guarded by stopMutex_: no identity work is handed over any more
  std::mutex installMutex_;
  bool installFactsKnown_ = false;  ///< guarded by installMutex_
  /// Guarded by mutex_: one more per deleteLocalData; a record built before it is not queued.
  std::uint64_t generation_ = 0;
  /// Guarded by mutex_: templates are becoming records with the lock released (a hook runs);
  /// events tracked meanwhile wait as templates behind them.
  bool resolving_ = false;
  /// The common block's install/update/launch check was skipped while collection was off.
  std::atomic<bool> versionCheckSkipped_{false};
  std::atomic<bool> offSaid_{false};                   ///< "collection off" said in this off period
  std::shared_ptr<support::RetryPolicy> retryPolicy_;  ///< worker only
  bool identityRetryScheduled_ = false;                ///< worker only
  bool lastOnline_ = true;                             ///< guarded by mutex_
  /// Guarded by mutex_: how many of the templates in front were kept by an earlier run. Their
  /// records go to the store as a whole, which then forgets the templates.
  std::size_t keptTemplatesInFront_ = 0;
  bool keptTemplatesTaken_ = false;  ///< guarded by mutex_: an earlier run's templates were read
  // Outcomes decided here, before a record reaches the queue. Relaxed: counts, not ordering.
  struct Tally {
    std::atomic<std::uint64_t> tracked{0};
    std::atomic<std::uint64_t> noCommonBlock{0};
    std::atomic<std::uint64_t> noAction{0};
    std::atomic<std::uint64_t> incompleteContext{0};
    std::atomic<std::uint64_t> unencodable{0};
    std::atomic<std::uint64_t> restoredTemplates{0};
    std::atomic<std::uint64_t> unreadableTemplates{0};
    std::atomic<std::uint64_t> collectionOff{0};
    std::atomic<std::uint64_t> beforeSend{0};
  };
  Tally tally_;
  std::condition_variable readyChanged_;  ///< with mutex_
  std::string installDate_;               ///< guarded by installMutex_
  std::int64_t installTimestamp_ = 0;     ///< guarded by installMutex_
};

}  // namespace zelvanor::detail
