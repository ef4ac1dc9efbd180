#include "zelvanor/tracker.hpp"

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "api/shared_instance.hpp"
#include "model/warm_up.hpp"
#include "network/endpoints.hpp"
#include "platform/platform.hpp"
#include "platform/process_hooks.hpp"
#include "support/console_log.hpp"
#include "support/diagnostics.hpp"
#include "support/settings.hpp"

namespace zelvanor {

namespace detail {

namespace {

struct SharedState {
  // Held by a shutdown from taking the instance out until everything it had is kept, and by the
  // start of a new instance: a new start takes over the pending store only once the old instance
  // has finished writing it, and an exit waits for a shutdown another thread began. Taken before
  // `mutex`.
  std::mutex lifecycle;
  std::mutex mutex;
  std::shared_ptr<ZInternalLogManager> manager;
  ManagerSources sources;
  SourcesFactory factory;
  bool exitHookInstalled = false;
  // Set by the exit hook. A host object destroyed after it (a global whose destructor posts
  // willTerminate, say) must not start a fresh instance: it would take over the pending store
  // and start threads while the process is being torn down. Also set in the child of a fork.
  bool exiting = false;
  // A forked child's inherited instance, kept here so that it is never destroyed.
  std::shared_ptr<ZInternalLogManager> abandonedInChild;
  ManagerSources abandonedSourcesInChild;
};

SharedState& shared() {
  // Never destroyed: the exit hook and late host threads may still reach it during exit.
  static auto* state = new SharedState();
  return *state;
}

// In the child of a fork the SDK's threads do not exist: joining them would hang, and keeping the
// parent's records would store them twice. The child's copy is switched off and let go (never
// destroyed); the parent keeps tracking as before. The lock held across fork keeps the child from
// inheriting it mid-change.
void lockForFork() {
  shared().lifecycle.lock();
  shared().mutex.lock();
}
void unlockInParent() {
  shared().mutex.unlock();
  shared().lifecycle.unlock();
}
void switchOffInChild() {
  SharedState& state = shared();
  state.exiting = true;
  if (state.manager) {  // a grandchild inherits none: the one abandoned earlier stays put
    state.abandonedInChild = std::move(state.manager);
    state.abandonedSourcesInChild = std::move(state.sources);
    state.manager.reset();
    state.sources = {};
  }
  state.mutex.unlock();
  state.lifecycle.unlock();
}

// Set when the process ends with the SDK inside a DLL: see abandonSharedAtProcessEnd.
std::atomic<bool> processEnded{false};

// The thread running a shutdown: a call back into the facade from it (a host's console sink,
// say) must not wait for the shutdown to end.
thread_local bool shuttingDownHere = false;

}  // namespace

void setSourcesFactory(SourcesFactory factory) {
  std::lock_guard lock(shared().mutex);
  shared().factory = std::move(factory);
}

std::shared_ptr<ZInternalLogManager> ensureShared() {
  auto& state = shared();
  {
    std::lock_guard lock(state.mutex);
    // A host's callback (a diagnostics sink, onReady) may run on an SDK thread that a shutdown
    // is waiting for: a call it makes back into the SDK must neither wait for that shutdown nor
    // start a new instance.
    if (state.manager || state.exiting || shuttingDownHere || insideHostCallback()) {
      return state.manager;
    }
  }
  std::lock_guard lifecycle(state.lifecycle);
  std::lock_guard lock(state.mutex);
  if (!state.manager && !state.exiting) {
    // Statics the exit hook needs must be constructed before the hook is registered, so that
    // they are destroyed after it runs.
    warmUpCodec();
    ManagerSources sources = state.factory ? state.factory() : makeDefaultSources();
    auto manager = ZInternalLogManager::create(sources);
    manager->configure(ZConfiguration::defaults());
    state.sources = std::move(sources);
    state.manager = std::move(manager);
    if (!state.exitHookInstalled) {
      state.exitHookInstalled = true;
      std::atexit([] {
        if (processEnded.load()) return;
        {
          std::lock_guard exitLock(shared().mutex);
          shared().exiting = true;
        }
        shutdownShared();
      });
      platform::atFork(&lockForFork, &unlockInParent, &switchOffInChild);
    }
  }
  return state.manager;
}

void abandonSharedAtProcessEnd() {
  // Windows has ended every other thread: a lock one of them held stays held, so none is taken,
  // and their threads are never joined. The instance is let go (never destroyed), as in the
  // child of a fork.
  processEnded.store(true);
  SharedState& state = shared();
  state.exiting = true;
  if (state.manager) {
    state.abandonedInChild = std::move(state.manager);
    state.abandonedSourcesInChild = std::move(state.sources);
  }
}

std::shared_ptr<ZInternalLogManager> sharedIfRunning() {
  std::lock_guard lock(shared().mutex);
  return shared().manager;
}

void shutdownShared() {
  auto& state = shared();
  if (shuttingDownHere) return;
  std::lock_guard lifecycle(state.lifecycle);
  shuttingDownHere = true;
  struct Done {
    ~Done() { shuttingDownHere = false; }
  } done;
  std::shared_ptr<ZInternalLogManager> manager;
  ManagerSources sources;
  {
    std::lock_guard lock(state.mutex);
    manager = std::move(state.manager);
    sources = std::move(state.sources);
    state.manager.reset();
    state.sources = {};
  }
  if (!manager) return;
  manager->stop();
  if (sources.network) sources.network->stop();
  if (sources.transport) {
    sources.transport->shutdown(manager->queue().takeRecords(), manager->takeTemplatesToKeep());
  }
}

std::shared_ptr<NetworkMonitor> runningNetworkMonitor() {
  std::lock_guard lock(shared().mutex);
  return shared().sources.network;
}

}  // namespace detail

namespace {

using detail::ZInternalLogManager;

// Runs `action` on the shared instance; nothing thrown inside reaches the host.
template <class Action>
ZelvanorTracker withShared(Action&& action) noexcept {
  try {
    if (auto manager = detail::ensureShared()) action(*manager);
  } catch (...) {
    // Failing quietly is the contract: the host's app must never pay for an analytics fault.
  }
  return ZelvanorTracker{};
}

}  // namespace

ZelvanorTracker ZelvanorTracker::setRequired(const ZConfiguration& configuration) {
  return withShared([&](ZInternalLogManager& m) { m.configure(configuration); });
}

ZelvanorTracker ZelvanorTracker::setDevelopment() {
  return withShared(
      [](ZInternalLogManager& m) { m.setDeploymentType(DeploymentType::development); });
}

ZelvanorTracker ZelvanorTracker::setProduction() {
  return withShared(
      [](ZInternalLogManager& m) { m.setDeploymentType(DeploymentType::production); });
}

ZelvanorTracker ZelvanorTracker::useSandboxEnvironment() {
  return withShared([](ZInternalLogManager&) { detail::settings().usingSandbox.store(true); });
}

ZelvanorTracker ZelvanorTracker::useGeneralEnvrionment() {
  return withShared([](ZInternalLogManager&) { detail::settings().usingSandbox.store(false); });
}

ZelvanorTracker ZelvanorTracker::turnOnConsoleLogs() {
  detail::settings().consoleLogsEnabled.store(true);
  return {};
}

ZelvanorTracker ZelvanorTracker::turnOffConsoleLogs() {
  detail::settings().consoleLogsEnabled.store(false);
  return {};
}

ZelvanorTracker ZelvanorTracker::setBatchSize(std::uint64_t size) {
  return withShared([&](ZInternalLogManager& m) { m.queue().setBatchSize(size); });
}

ZelvanorTracker ZelvanorTracker::setTimeout(double seconds) {
  detail::settings().requestTimeout.store(seconds);
  return {};
}

ZelvanorTracker ZelvanorTracker::set(ZCommon block) {
  return withShared([&](ZInternalLogManager& m) { m.setCommon(std::move(block)); });
}
ZelvanorTracker ZelvanorTracker::set(const ZAgent& block) {
  return withShared([&](ZInternalLogManager& m) { m.setAgent(block); });
}
ZelvanorTracker ZelvanorTracker::set(const ZId& block) {
  return withShared([&](ZInternalLogManager& m) { m.setId(block); });
}

#define ZELVANOR_FACADE_SETTER(Type, Method)                                        \
  ZelvanorTracker ZelvanorTracker::set(Type block) {                                \
    return withShared([&](ZInternalLogManager& m) { m.Method(std::move(block)); }); \
  }
ZELVANOR_FACADE_SETTER(ZAgreement, setAgreement)
ZELVANOR_FACADE_SETTER(ZClick, setClick)
ZELVANOR_FACADE_SETTER(ZLocation, setLocation)
ZELVANOR_FACADE_SETTER(ZPage, setPage)
ZELVANOR_FACADE_SETTER(ZPromotion, setPromotion)
ZELVANOR_FACADE_SETTER(ZStatus, setStatus)
ZELVANOR_FACADE_SETTER(ZUsage, setUsage)
ZELVANOR_FACADE_SETTER(ZAction, setAction)
ZELVANOR_FACADE_SETTER(ZDomain, setDomain)
ZELVANOR_FACADE_SETTER(ZUtm, setUtm)
ZELVANOR_FACADE_SETTER(ZBucket, appendBucket)
ZELVANOR_FACADE_SETTER(std::vector<ZBucket>, appendBuckets)
ZELVANOR_FACADE_SETTER(ZViewImpressionContent, appendViewImpressionContent)
ZELVANOR_FACADE_SETTER(std::vector<ZViewImpressionContent>, appendViewImpressionContents)
#undef ZELVANOR_FACADE_SETTER

// By value like every other set, so the public overloads read alike.
ZelvanorTracker ZelvanorTracker::set(std::string /*text*/) {  // NOLINT(performance-*)
  // Records have a "free" member, but hosts never fill it; the text is dropped on purpose.
  return withShared([](ZInternalLogManager&) {});
}

ZelvanorTracker ZelvanorTracker::track(bool verbose, bool disabled) {
  return withShared([&](ZInternalLogManager& m) { m.track(verbose, disabled); });
}

ZelvanorTracker ZelvanorTracker::track(ZEvent event, bool verbose, bool disabled) {
  return withShared(
      [&](ZInternalLogManager& m) { m.track(std::move(event.blocks_), verbose, disabled); });
}

ZelvanorTracker ZelvanorTracker::flush() {
  return withShared([](ZInternalLogManager& m) { m.queue().flush(); });
}

bool ZelvanorTracker::flushAndWait(std::chrono::milliseconds timeout) {
  bool answered = false;
  withShared([&](ZInternalLogManager& m) { answered = m.flushAndWait(timeout); });
  return answered;
}

bool ZelvanorTracker::waitUntilReady(std::chrono::milliseconds timeout) {
  bool ready = false;
  withShared([&](ZInternalLogManager& m) { ready = m.waitUntilReady(timeout); });
  return ready;
}

ZelvanorTracker ZelvanorTracker::onReady(std::function<void()> callback) {
  return withShared([&](ZInternalLogManager& m) { m.onReady(std::move(callback)); });
}

ZelvanorTracker ZelvanorTracker::setDiagnostics(ZLogLevel level, ZDiagnosticsSink sink) {
  try {
    detail::setDiagnostics(level, std::move(sink));
  } catch (...) {
  }
  return {};
}

ZCounters ZelvanorTracker::counters() {
  try {
    if (auto manager = detail::sharedIfRunning()) return manager->counters();
  } catch (...) {
  }
  return {};
}

std::string ZelvanorTracker::getData() {
  std::string text;
  withShared([&](ZInternalLogManager& m) { text = m.getData(); });
  return text;
}

ZelvanorTracker ZelvanorTracker::setPlatformFacts(const ZPlatformFacts& facts) {
  try {
    zelvanor::setPlatformFacts(facts);
  } catch (...) {
  }
  return {};
}

bool ZelvanorTracker::setEndpoints(const ZEndpoints& endpoints) {
  try {
    return detail::replaceEndpoints(endpoints);
  } catch (...) {
    return false;
  }
}

ZEndpoints ZelvanorTracker::endpoints() {
  try {
    return detail::currentEndpoints();
  } catch (...) {
    return {};
  }
}

ZelvanorTracker ZelvanorTracker::setHttpClient(std::shared_ptr<ZHttpClient> client) {
  detail::setHttpClient(std::move(client));
  return {};
}

ZelvanorTracker ZelvanorTracker::setStoreLimits(const ZStoreLimits& limits) {
  try {
    detail::setStoreLimits(limits);
  } catch (...) {
  }
  return {};
}

ZelvanorTracker ZelvanorTracker::setCollectionEnabled(bool enabled) {
  try {
    // Not a start of its own: a host switching collection off before its first operation has
    // not set its facts (the data directory) yet. The next start writes it to the settings file.
    detail::settings().collectionSetByHost.store(true);
    if (auto manager = detail::sharedIfRunning()) {
      manager->setCollectionEnabled(enabled);
    } else {
      detail::settings().collectionEnabled.store(enabled);
    }
  } catch (...) {
  }
  return {};
}

bool ZelvanorTracker::collectionEnabled() {
  return detail::settings().collectionEnabled.load();
}

ZelvanorTracker ZelvanorTracker::deleteLocalData() {
  return withShared([](ZInternalLogManager& m) { m.deleteLocalData(); });
}

ZelvanorTracker ZelvanorTracker::setBeforeSend(std::function<bool(ZLogRecord&)> hook) {
  try {
    detail::setBeforeSendHook(std::move(hook));
  } catch (...) {
  }
  return {};
}

ZelvanorTracker ZelvanorTracker::setReachabilityFlags(std::uint32_t flags) {
  return withShared([&](ZInternalLogManager&) {
    if (auto monitor = detail::runningNetworkMonitor()) monitor->pushFlags(flags);
  });
}

ZelvanorTracker ZelvanorTracker::post(ZLifecycleEvent event) {
  return withShared([&](ZInternalLogManager&) {
    using platform::LifecycleEvent;
    const LifecycleEvent mapped =
        event == ZLifecycleEvent::willTerminate      ? LifecycleEvent::willTerminate
        : event == ZLifecycleEvent::willResignActive ? LifecycleEvent::willResignActive
                                                     : LifecycleEvent::willEnterForeground;
    platform::lifecycleEvents().send(mapped);
  });
}

ZelvanorTracker ZelvanorTracker::setConsoleLogSink(std::function<void(std::string_view)> sink) {
  try {
    detail::setConsoleSink(std::move(sink));
  } catch (...) {
  }
  return {};
}

void ZelvanorTracker::startIfNeeded() noexcept {
  withShared([](ZInternalLogManager&) {});
}

void ZelvanorTracker::shutdown() {
  try {
    detail::shutdownShared();
  } catch (...) {
  }
}

}  // namespace zelvanor
