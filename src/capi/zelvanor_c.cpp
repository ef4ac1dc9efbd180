// The C API: decodes the host's JSON text into blocks and hands them to ZelvanorTracker. Every
// entry point is noexcept; a failing call records its message in a thread-local buffer and
// touches nothing, because decoding finishes before the tracker is called.
#include "zelvanor/zelvanor.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/block_registry.hpp"
#include "capi/c_guard.hpp"
#include "support/diagnostics.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"

// The C handle is a ZEvent and nothing more.
struct zelvanor_event {
  zelvanor::ZEvent event;
};

namespace zelvanor::capi {

// This thread's last error, in a fixed buffer: a thread_local std::string has a destructor, which
// MinGW runs at thread exit after the thread's storage is gone (a crash on Windows). A message
// longer than the buffer is cut at a character boundary.
constexpr std::size_t kLastErrorSize = 1024;
static thread_local char lastError[kLastErrorSize] = {};

void setLastError(std::string_view message) noexcept {
  std::size_t length = std::min(message.size(), kLastErrorSize - 1);
  if (length < message.size()) {
    // Not inside a UTF-8 sequence: back off over continuation bytes.
    while (length > 0 && (static_cast<unsigned char>(message[length]) & 0xC0) == 0x80) --length;
  }
  std::memcpy(lastError, message.data(), length);
  lastError[length] = '\0';
}

void clearLastError() noexcept {
  lastError[0] = '\0';
}

const char* lastErrorText() noexcept {
  return lastError;
}

}  // namespace zelvanor::capi

namespace {

using namespace zelvanor;
using namespace zelvanor::capi;

zelvanor_status jsonError(std::string_view operation, const CodecError& error) {
  return fail(ZELVANOR_ERROR_JSON, std::string(operation) + ": " + error.describe());
}

// Where a decoded block goes: the shared builder and context (zelvanor_set) or one host event
// (zelvanor_event_set). Both take their names and decoding from the block registry.
struct SharedTarget {
  static constexpr bool takesContext = true;
  void operator()(detail::BlockValue block) const { detail::setOnTracker(std::move(block)); }
};

struct EventTarget {
  static constexpr bool takesContext = false;  // common, agent and id belong to every event
  ZEvent& event;
  void operator()(detail::BlockValue block) const {
    static_cast<void>(detail::setOnEvent(event, std::move(block)));
  }
};

// Decodes the whole text first and only then hands the block on, so a bad text changes nothing.
template <class Target>
zelvanor_status setNamedBlock(std::string_view function, std::string_view name,
                              std::string_view json, const Target& target) {
  const std::string operation = std::string(function) + "(" + std::string(name) + ")";
  const detail::BlockEntry* entry = detail::findBlock(name);
  if (!entry) return fail(ZELVANOR_ERROR_INVALID_ARGUMENT, operation + ": unknown block name");
  switch (entry->scope) {
    case detail::BlockScope::sdkOnly:
      return fail(ZELVANOR_ERROR_REJECTED,
                  operation + ": cannot be set: " + std::string(detail::kSdkOnlyReason));
    case detail::BlockScope::context:
      if (!Target::takesContext) {
        return fail(ZELVANOR_ERROR_REJECTED,
                    operation + ": shared by every event; set it with zelvanor_set");
      }
      break;
    case detail::BlockScope::event:
      break;
  }
  auto decoded = detail::decodeBlock(*entry, json);
  if (!decoded) return jsonError(operation, decoded.error());
  target(std::move(decoded).value());
  return ZELVANOR_OK;
}

std::optional<std::string> optionalText(const char* text) {
  return text ? std::optional<std::string>(text) : std::nullopt;
}

}  // namespace

extern "C" {

const char* zelvanor_last_error(void) {
  return capi::lastErrorText();
}

zelvanor_status zelvanor_set_required(const char* configuration_json) {
  return guarded("zelvanor_set_required", [&] {
    if (!configuration_json) {
      return fail(ZELVANOR_ERROR_INVALID_ARGUMENT, "zelvanor_set_required: configuration is NULL");
    }
    auto configuration = decodeJson<ZConfiguration>(configuration_json);
    if (!configuration) return jsonError("zelvanor_set_required", configuration.error());
    ZelvanorTracker::setRequired(*configuration);
    return ZELVANOR_OK;
  });
}

void zelvanor_set_development(void) {
  guardedVoid("zelvanor_set_development", [] { ZelvanorTracker::setDevelopment(); });
}

void zelvanor_set_production(void) {
  guardedVoid("zelvanor_set_production", [] { ZelvanorTracker::setProduction(); });
}

void zelvanor_use_sandbox_environment(void) {
  guardedVoid("zelvanor_use_sandbox_environment", [] { ZelvanorTracker::useSandboxEnvironment(); });
}

void zelvanor_use_general_envrionment(void) {
  guardedVoid("zelvanor_use_general_envrionment", [] { ZelvanorTracker::useGeneralEnvrionment(); });
}

void zelvanor_turn_on_console_logs(void) {
  guardedVoid("zelvanor_turn_on_console_logs", [] { ZelvanorTracker::turnOnConsoleLogs(); });
}

void zelvanor_turn_off_console_logs(void) {
  guardedVoid("zelvanor_turn_off_console_logs", [] { ZelvanorTracker::turnOffConsoleLogs(); });
}

void zelvanor_set_batch_size(uint64_t size) {
  guardedVoid("zelvanor_set_batch_size", [&] { ZelvanorTracker::setBatchSize(size); });
}

void zelvanor_set_timeout(double seconds) {
  guardedVoid("zelvanor_set_timeout", [&] { ZelvanorTracker::setTimeout(seconds); });
}

zelvanor_status zelvanor_set(const char* block, const char* json) {
  return guarded("zelvanor_set", [&] {
    if (!block) return fail(ZELVANOR_ERROR_INVALID_ARGUMENT, "zelvanor_set: block name is NULL");
    if (!json) {
      return fail(ZELVANOR_ERROR_INVALID_ARGUMENT,
                  "zelvanor_set(" + std::string(block) + "): JSON text is NULL");
    }
    return setNamedBlock("zelvanor_set", block, json, SharedTarget{});
  });
}

void zelvanor_track(int verbose, int disabled) {
  guardedVoid("zelvanor_track", [&] { ZelvanorTracker::track(verbose != 0, disabled != 0); });
}

zelvanor_event* zelvanor_event_new(void) {
  zelvanor_event* event = nullptr;
  static_cast<void>(guarded("zelvanor_event_new", [&] {
    event = new zelvanor_event{};
    return ZELVANOR_OK;
  }));
  return event;
}

zelvanor_status zelvanor_event_set(zelvanor_event* event, const char* block, const char* json) {
  return guarded("zelvanor_event_set", [&] {
    if (!event) return fail(ZELVANOR_ERROR_INVALID_ARGUMENT, "zelvanor_event_set: event is NULL");
    if (!block) {
      return fail(ZELVANOR_ERROR_INVALID_ARGUMENT, "zelvanor_event_set: block name is NULL");
    }
    if (!json) {
      return fail(ZELVANOR_ERROR_INVALID_ARGUMENT,
                  "zelvanor_event_set(" + std::string(block) + "): JSON text is NULL");
    }
    return setNamedBlock("zelvanor_event_set", block, json, EventTarget{event->event});
  });
}

zelvanor_status zelvanor_event_track(const zelvanor_event* event, int verbose, int disabled) {
  return guarded("zelvanor_event_track", [&] {
    if (!event) {
      return fail(ZELVANOR_ERROR_INVALID_ARGUMENT, "zelvanor_event_track: event is NULL");
    }
    ZelvanorTracker::track(event->event, verbose != 0, disabled != 0);
    return ZELVANOR_OK;
  });
}

void zelvanor_event_free(zelvanor_event* event) {
  delete event;
}

void zelvanor_flush(void) {
  guardedVoid("zelvanor_flush", [] { ZelvanorTracker::flush(); });
}

zelvanor_status zelvanor_get_data(char** out_text) {
  return guarded("zelvanor_get_data", [&] {
    if (!out_text)
      return fail(ZELVANOR_ERROR_INVALID_ARGUMENT, "zelvanor_get_data: out_text is NULL");
    *out_text = nullptr;
    const std::string text = ZelvanorTracker::getData();
    auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (!copy) return fail(ZELVANOR_ERROR_OUT_OF_MEMORY, "zelvanor_get_data: out of memory");
    std::memcpy(copy, text.c_str(), text.size() + 1);
    *out_text = copy;
    return ZELVANOR_OK;
  });
}

void zelvanor_string_free(char* text) {
  std::free(text);
}

zelvanor_status zelvanor_set_platform_facts(const zelvanor_platform_facts* facts) {
  return guarded("zelvanor_set_platform_facts", [&] {
    if (!facts) {
      return fail(ZELVANOR_ERROR_INVALID_ARGUMENT, "zelvanor_set_platform_facts: facts is NULL");
    }
    ZPlatformFacts converted{
        .bundleIdentifier = optionalText(facts->bundle_identifier),
        .appVersion = optionalText(facts->app_version),
        .os = optionalText(facts->os),
        .osVersion = optionalText(facts->os_version),
        .deviceModel = optionalText(facts->device_model),
        .language = optionalText(facts->language),
        .screen = facts->has_screen
                      ? std::optional(ZScreenSize{facts->screen_width, facts->screen_height})
                      : std::nullopt,
        .dataDirectory = optionalText(facts->data_directory),
    };
    ZelvanorTracker::setPlatformFacts(converted);
    return ZELVANOR_OK;
  });
}

zelvanor_status zelvanor_set_endpoints(const char* production, const char* sandbox,
                                       const char* identity_sync, const char* ca_bundle_file) {
  return guarded("zelvanor_set_endpoints", [&] {
    if (!production || !sandbox || !identity_sync) {
      return fail(ZELVANOR_ERROR_INVALID_ARGUMENT,
                  "zelvanor_set_endpoints: production, sandbox and identity_sync are required");
    }
    ZEndpoints endpoints = ZelvanorTracker::endpoints();  // the headers and the proxy stay
    endpoints.production = production;
    endpoints.sandbox = sandbox;
    endpoints.identitySync = identity_sync;
    endpoints.caBundleFile = optionalText(ca_bundle_file);
    if (!ZelvanorTracker::setEndpoints(endpoints)) {
      return fail(ZELVANOR_ERROR_REJECTED,
                  "zelvanor_set_endpoints: every URL must be an absolute https URL");
    }
    return ZELVANOR_OK;
  });
}

zelvanor_status zelvanor_set_request_headers(const char* const* headers, size_t count) {
  return guarded("zelvanor_set_request_headers", [&] {
    if (count > 0 && !headers) {
      return fail(ZELVANOR_ERROR_INVALID_ARGUMENT, "zelvanor_set_request_headers: headers is NULL");
    }
    ZEndpoints endpoints = ZelvanorTracker::endpoints();
    endpoints.headers.clear();
    for (size_t i = 0; i < count; ++i) {
      const std::string_view line = headers[i] ? std::string_view(headers[i]) : std::string_view();
      const auto colon = line.find(':');
      if (!headers[i] || colon == std::string_view::npos) {
        return fail(
            ZELVANOR_ERROR_INVALID_ARGUMENT,
            "zelvanor_set_request_headers: entry " + std::to_string(i) + " is not \"Name: value\"");
      }
      std::string_view value = line.substr(colon + 1);
      while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
        value.remove_prefix(1);
      }
      endpoints.headers.emplace_back(std::string(line.substr(0, colon)), std::string(value));
    }
    if (!ZelvanorTracker::setEndpoints(endpoints)) {
      return fail(ZELVANOR_ERROR_REJECTED,
                  "zelvanor_set_request_headers: a header the SDK sets itself, a name that is no "
                  "HTTP token, or a line break");
    }
    return ZELVANOR_OK;
  });
}

zelvanor_status zelvanor_set_proxy(const char* proxy) {
  return guarded("zelvanor_set_proxy", [&] {
    ZEndpoints endpoints = ZelvanorTracker::endpoints();
    endpoints.proxy = optionalText(proxy);
    if (!ZelvanorTracker::setEndpoints(endpoints)) {
      return fail(ZELVANOR_ERROR_REJECTED,
                  "zelvanor_set_proxy: not \"none\" nor an http, https, socks5 or socks5h URL");
    }
    return ZELVANOR_OK;
  });
}

void zelvanor_set_store_limits(uint64_t max_records_in_memory, uint64_t max_bytes_on_disk,
                               uint64_t max_quarantine_bytes, uint64_t max_templates_kept) {
  guardedVoid("zelvanor_set_store_limits", [&] {
    const ZStoreLimits defaults;
    auto orDefault = [](std::uint64_t given, std::uint64_t fallback) {
      return given ? given : fallback;
    };
    ZelvanorTracker::setStoreLimits(ZStoreLimits{
        .maxRecordsInMemory = orDefault(max_records_in_memory, defaults.maxRecordsInMemory),
        .maxBytesOnDisk = orDefault(max_bytes_on_disk, defaults.maxBytesOnDisk),
        .maxQuarantineBytes = orDefault(max_quarantine_bytes, defaults.maxQuarantineBytes),
        .maxTemplatesKept = orDefault(max_templates_kept, defaults.maxTemplatesKept)});
  });
}

void zelvanor_set_reachability_flags(uint32_t flags) {
  guardedVoid("zelvanor_set_reachability_flags",
              [&] { ZelvanorTracker::setReachabilityFlags(flags); });
}

zelvanor_status zelvanor_post_lifecycle_event(int event) {
  return guarded("zelvanor_post_lifecycle_event", [&] {
    switch (event) {
      case ZELVANOR_WILL_TERMINATE:
        ZelvanorTracker::post(ZLifecycleEvent::willTerminate);
        return ZELVANOR_OK;
      case ZELVANOR_WILL_RESIGN_ACTIVE:
        ZelvanorTracker::post(ZLifecycleEvent::willResignActive);
        return ZELVANOR_OK;
      case ZELVANOR_WILL_ENTER_FOREGROUND:
        ZelvanorTracker::post(ZLifecycleEvent::willEnterForeground);
        return ZELVANOR_OK;
      default:
        return fail(ZELVANOR_ERROR_INVALID_ARGUMENT,
                    "zelvanor_post_lifecycle_event: unknown event " + std::to_string(event));
    }
  });
}

void zelvanor_set_console_log_sink(zelvanor_console_sink sink, void* user_data) {
  guardedVoid("zelvanor_set_console_log_sink", [&] {
    if (!sink) {
      ZelvanorTracker::setConsoleLogSink({});
      return;
    }
    ZelvanorTracker::setConsoleLogSink([sink, user_data](std::string_view line) {
      const std::string text(line);  // the C side gets a terminated copy
      sink(text.c_str(), text.size(), user_data);
    });
  });
}

void zelvanor_shutdown(void) {
  guardedVoid("zelvanor_shutdown", [] { ZelvanorTracker::shutdown(); });
}

int zelvanor_flush_and_wait(uint32_t timeout_ms) {
  bool answered = false;
  guardedVoid("zelvanor_flush_and_wait", [&] {
    answered = ZelvanorTracker::flushAndWait(std::chrono::milliseconds(timeout_ms));
  });
  return answered ? 1 : 0;
}

int zelvanor_wait_until_ready(uint32_t timeout_ms) {
  bool ready = false;
  guardedVoid("zelvanor_wait_until_ready", [&] {
    ready = ZelvanorTracker::waitUntilReady(std::chrono::milliseconds(timeout_ms));
  });
  return ready ? 1 : 0;
}

void zelvanor_on_ready(zelvanor_ready_callback callback, void* user_data) {
  guardedVoid("zelvanor_on_ready", [&] {
    if (!callback) return;
    ZelvanorTracker::onReady([callback, user_data] { callback(user_data); });
  });
}

zelvanor_status zelvanor_set_diagnostics(int level, zelvanor_diagnostics_sink sink,
                                         void* user_data) {
  return guarded("zelvanor_set_diagnostics", [&] {
    if (level < ZELVANOR_LOG_OFF || level > ZELVANOR_LOG_DEBUG) {
      return fail(ZELVANOR_ERROR_INVALID_ARGUMENT,
                  "zelvanor_set_diagnostics: unknown level " + std::to_string(level));
    }
    ZDiagnosticsSink forward;
    if (sink) {
      forward = [sink, user_data](ZLogLevel lineLevel, std::string_view line) {
        const std::string text(line);  // the C side gets a terminated copy
        sink(static_cast<int>(lineLevel), text.c_str(), text.size(), user_data);
      };
    }
    ZelvanorTracker::setDiagnostics(static_cast<ZLogLevel>(level), std::move(forward));
    return ZELVANOR_OK;
  });
}

zelvanor_status zelvanor_get_counters(zelvanor_counters* counters) {
  return guarded("zelvanor_get_counters", [&] {
    if (!counters) {
      return fail(ZELVANOR_ERROR_INVALID_ARGUMENT, "zelvanor_get_counters: counters is NULL");
    }
    const ZCounters now = ZelvanorTracker::counters();
    *counters = zelvanor_counters{
        .tracked = now.tracked,
        .restored = now.restored,
        .delivered = now.delivered,
        .refused = now.refused,
        .kept_on_disk = now.keptOnDisk,
        .resent = now.resent,
        .dropped_no_common_block = now.dropped.noCommonBlock,
        .dropped_no_action = now.dropped.noAction,
        .dropped_incomplete_context = now.dropped.incompleteContext,
        .dropped_unencodable = now.dropped.unencodable,
        .dropped_storage_full = now.dropped.storageFull,
        .dropped_unreadable = now.dropped.unreadable,
        .waiting_in_memory = now.waitingInMemory,
        .waiting_on_disk = now.waitingOnDisk,
        .awaiting_answer = now.awaitingAnswer,
        .bytes_on_disk = now.bytesOnDisk,
        .templates_waiting = now.templatesWaiting,
        .dropped_collection_off = now.dropped.collectionOff,
        .dropped_before_send = now.dropped.beforeSend,
    };
    return ZELVANOR_OK;
  });
}

}  // extern "C"
