// ZelvanorTracker: the SDK's one entry point. Every operation is static, callable from any thread,
// never throws, and (except getData) returns a ZelvanorTracker so calls chain:
//
//   ZelvanorTracker::setProduction()
//       .set([] { return ZPage{.id = "home", .name = "home", .title = "Home"}; })
//       .set(ZAction(ZAction::ZActionType::pageView, "home", "view"))
//       .track(false, false);
#pragma once

#include <chrono>
#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "zelvanor/blocks.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/diagnostics.hpp"
#include "zelvanor/endpoints.hpp"
#include "zelvanor/event.hpp"
#include "zelvanor/export.hpp"
#include "zelvanor/http_client.hpp"
#include "zelvanor/platform.hpp"
#include "zelvanor/record.hpp"
#include "zelvanor/storage.hpp"

namespace zelvanor {

/// Application lifecycle moments the host reports (see ZelvanorTracker::post).
enum class ZLifecycleEvent {
  willTerminate,        ///< records a background event
  willResignActive,     ///< records a background event
  willEnterForeground,  ///< records a launch event
};

class ZELVANOR_API ZelvanorTracker {
 public:
  // ----- configuration ------------------------------------------------------------------------
  /// Applies timeout, batch size and sandbox switch. May be called any time, any number of times;
  /// each call also subscribes the SDK's internal listeners once more.
  static ZelvanorTracker setRequired(const ZConfiguration& configuration);
  template <class F>
  requires std::is_invocable_r_v<ZConfiguration, F>
  static ZelvanorTracker setRequired(F&& makeConfiguration) {
    startIfNeeded();
    return setRequired(
        static_cast<ZConfiguration>(std::invoke(std::forward<F>(makeConfiguration))));
  }
  /// Records carry sdk.type "development" (the default) or "production".
  static ZelvanorTracker setDevelopment();
  static ZelvanorTracker setProduction();
  /// Records go to the sandbox collector, or back to the production one.
  static ZelvanorTracker useSandboxEnvironment();
  static ZelvanorTracker useGeneralEnvrionment();
  /// The console error line on or off (on by default). Does not start the SDK.
  static ZelvanorTracker turnOnConsoleLogs();
  static ZelvanorTracker turnOffConsoleLogs();
  /// Records gather in memory until this many are waiting. 0 sends everything on every track.
  static ZelvanorTracker setBatchSize(std::uint64_t size);
  /// Request timeout in seconds. Does not start the SDK; starting it applies the default
  /// configuration, so call this after the first other operation for it to last.
  static ZelvanorTracker setTimeout(double seconds);

  // ----- blocks -------------------------------------------------------------------------------
  /// Context that outlives one event. A new common block also runs install/update/launch detection.
  static ZelvanorTracker set(ZCommon block);
  static ZelvanorTracker set(const ZAgent& block);  ///< merged into the SDK's agent
  static ZelvanorTracker set(const ZId& block);     ///< merged into the SDK's ids
  /// Blocks of the next event; setting one twice keeps the last.
  static ZelvanorTracker set(ZAgreement block);
  static ZelvanorTracker set(ZClick block);
  static ZelvanorTracker set(ZLocation block);
  static ZelvanorTracker set(ZPage block);
  static ZelvanorTracker set(ZPromotion block);
  static ZelvanorTracker set(ZStatus block);
  static ZelvanorTracker set(ZUsage block);
  static ZelvanorTracker set(ZAction block);
  static ZelvanorTracker set(ZDomain block);
  static ZelvanorTracker set(ZUtm block);
  /// Buckets and view impressions accumulate until the next track.
  static ZelvanorTracker set(ZBucket block);
  static ZelvanorTracker set(std::vector<ZBucket> blocks);
  static ZelvanorTracker set(ZViewImpressionContent block);
  static ZelvanorTracker set(std::vector<ZViewImpressionContent> blocks);
  /// Accepted and ignored: records never carry a free text.
  static ZelvanorTracker set(std::string text);
  /// Every set also takes a callable that returns the block; it is called once, at once.
  template <class F>
  requires std::invocable<F> &&(!std::is_same_v<std::decay_t<F>, std::string>)static ZelvanorTracker
      set(F&& makeBlock) {
    startIfNeeded();
    return set(std::invoke(std::forward<F>(makeBlock)));
  }

  // ----- events -------------------------------------------------------------------------------
  /// Turns the blocks set so far into one record (or, before the identity triple is known, a
  /// template that becomes a record when it arrives). Needs an action block; `disabled` builds
  /// and discards. Never waits for the network or the disk.
  static ZelvanorTracker track(bool verbose, bool disabled);
  /// Turns one ZEvent into a record (or a template, as above) from its own blocks and the shared
  /// context, in one step under the SDK's lock: events tracked this way from any number of
  /// threads never mix, and the blocks set through the facade stay where they are.
  static ZelvanorTracker track(ZEvent event, bool verbose = false, bool disabled = false);
  /// Sends every record waiting in memory, oldest first.
  static ZelvanorTracker flush();
  /// Sends every record waiting, then waits at most `timeout` until each record handed over so
  /// far has the collector's answer or is kept on disk. True when all of them did; false on
  /// timeout (they go on in the background). Events still waiting for the identity triple are
  /// not records yet and are not waited for: see waitUntilReady. Blocks the calling thread.
  static bool flushAndWait(std::chrono::milliseconds timeout);
  /// The current event as pretty-printed JSON (this uses up its blocks), or a status text.
  static std::string getData();

  // ----- readiness, diagnostics and counters --------------------------------------------------
  /// Waits at most `timeout` for the identity triple, without which no record can be built
  /// (events tracked meanwhile wait for it). True once it is known. Blocks the calling thread.
  static bool waitUntilReady(std::chrono::milliseconds timeout);
  /// Runs `callback` once the identity triple is known: at once on this thread when it already
  /// is, otherwise on the SDK's worker, which delivers too: keep it short, and do not wait there
  /// for delivery (flushAndWait returns false at once on that thread). Applies to the running SDK
  /// (a shutdown forgets it).
  static ZelvanorTracker onReady(std::function<void()> callback);
  /// How much the diagnostics sink hears (see ZLogLevel) and where it goes; an empty sink writes
  /// to stderr. Until this is called, ZELVANOR_LOG=error|warning|info|debug|off picks the level
  /// (error when unset). Does not start the SDK.
  static ZelvanorTracker setDiagnostics(ZLogLevel level, ZDiagnosticsSink sink = {});
  /// What happened to events since the SDK started; all zero while it is not running.
  static ZCounters counters();

  // ----- privacy and control -----------------------------------------------------------------
  /// Collection on (the default) or off, kept in the settings file so it holds across starts.
  /// Off: track builds and keeps nothing (counted as dropped "collectionOff", said once in the
  /// diagnostics), lifecycle events are not recorded, no request leaves the process and nothing
  /// new is written; records already waiting stay in memory and on disk, untouched, until it is
  /// on again (or deleteLocalData removes them). Does not start the SDK: called before the
  /// first operation, even the first start asks the sync server nothing, and that start writes
  /// the switch to the settings file.
  static ZelvanorTracker setCollectionEnabled(bool enabled);
  /// Whether collection is on: the host's switch, else (once the SDK has started) the settings
  /// file's.
  static bool collectionEnabled();
  /// Removes everything the SDK keeps for this app: records in memory and on disk (segments,
  /// cursor, quarantine), kept templates, the cookie jar and the identity triple, and the
  /// settings that mark the install and the version (the collection switch stays). The next
  /// event belongs to a fresh install with a new identity from the sync server. Returns once
  /// the files are gone, without waiting for the network; a crash part way is finished by the
  /// next start. Blocks the host set (common, agent, id, ...) stay in memory.
  static ZelvanorTracker deleteLocalData();
  /// Called once per record, on the thread that builds it (the SDK's worker for events that
  /// waited for the identity triple), before it is encoded, with no SDK lock held: it may change
  /// the record (drop a field, mask an id) or return false to drop it (counted as dropped
  /// "beforeSend"; a hook that throws drops it too). It may call back into the SDK. Applies to
  /// records built from now on, across restarts of the SDK; an empty function removes it.
  static ZelvanorTracker setBeforeSend(std::function<bool(ZLogRecord&)> hook);

  // ----- host integration ---------------------------------------------------------------------
  /// Replaces platform facts (bundle id, app version, device, data directory). Call before the
  /// first other operation: the SDK reads them when it starts.
  static ZelvanorTracker setPlatformFacts(const ZPlatformFacts& facts);
  /// Replaces the SDK's default servers. Returns false, changing nothing, unless every URL is an
  /// absolute https URL without query or fragment. Applies to requests built afterwards; the CA
  /// file to the next start.
  static bool setEndpoints(const ZEndpoints& endpoints);
  /// The servers in force.
  static ZEndpoints endpoints();
  /// Bounds on records waiting in memory and on disk. Takes effect at the next start: call it
  /// before the first other operation (or before a start that follows shutdown()).
  static ZelvanorTracker setStoreLimits(const ZStoreLimits& limits);
  /// The HTTP client every request goes through (see zelvanor/http_client.hpp); null restores
  /// the SDK's own. Takes effect at the next start, like setStoreLimits. The endpoints' proxy and
  /// CA file then are the client's business; extra headers are still sent.
  static ZelvanorTracker setHttpClient(std::shared_ptr<ZHttpClient> client);
  /// Reports network reachability as a flag word (0x2 reachable, 0x40000 cellular) for hosts
  /// whose platform knows better than the SDK's own route watch; repeated flags are ignored.
  static ZelvanorTracker setReachabilityFlags(std::uint32_t flags);
  /// Reports an application lifecycle moment.
  static ZelvanorTracker post(ZLifecycleEvent event);
  /// Where the console error line goes; an empty function restores stderr.
  static ZelvanorTracker setConsoleLogSink(std::function<void(std::string_view line)> sink);
  /// Stops the SDK's threads and keeps every undelivered record in the pending file for the next
  /// start. Also runs at process exit. A later operation starts the SDK afresh.
  static void shutdown();

 private:
  /// Starts the SDK before a host's callable runs, so the callable sees it running.
  static void startIfNeeded() noexcept;
};

}  // namespace zelvanor
