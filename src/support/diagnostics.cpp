#include "support/diagnostics.hpp"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/console_log.hpp"

namespace zelvanor::detail {

namespace {

struct DiagnosticsState {
  // Read on every event: an atomic, so a disabled level costs one load. The environment is read
  // once, as the SDK first reports; nothing in the SDK changes it.
  std::atomic<int> level{static_cast<int>(
      levelFromText(std::getenv("ZELVANOR_LOG")))};  // NOLINT(concurrency-mt-unsafe)
  std::mutex mutex;
  std::shared_ptr<const ZDiagnosticsSink> sink;  // null: stderr
};

DiagnosticsState& state() {
  // Never destroyed: SDK threads may still report during exit.
  static auto* instance = new DiagnosticsState();
  return *instance;
}

// The outermost HeldDiagnostics alive on this thread, if any. A plain pointer (nothing to destroy
// at thread exit); its empty vector costs a track nothing when there is nothing to say.
thread_local HeldDiagnostics* holder = nullptr;

}  // namespace

ZLogLevel levelFromText(const char* text) noexcept {
  if (!text) return ZLogLevel::error;
  const std::string_view name(text);
  if (name == "off" || name == "none") return ZLogLevel::off;
  if (name == "warning" || name == "warn") return ZLogLevel::warning;
  if (name == "info") return ZLogLevel::info;
  if (name == "debug") return ZLogLevel::debug;
  return ZLogLevel::error;
}

std::string_view levelName(ZLogLevel level) noexcept {
  switch (level) {
    case ZLogLevel::error:
      return "error";
    case ZLogLevel::warning:
      return "warning";
    case ZLogLevel::info:
      return "info";
    case ZLogLevel::debug:
      return "debug";
    case ZLogLevel::off:
      break;
  }
  return "off";
}

bool diagnosing(ZLogLevel level) noexcept {
  return level != ZLogLevel::off &&
         static_cast<int>(level) <= state().level.load(std::memory_order_relaxed);
}

namespace {

thread_local int hostCallbacks = 0;

void write(ZLogLevel level, const std::string& text) {
  std::shared_ptr<const ZDiagnosticsSink> sink;
  {
    std::lock_guard lock(state().mutex);
    sink = state().sink;
  }
  // The host's sink runs outside our lock, so it may call back into the SDK.
  if (sink) {
    const HostCallbackScope marked;
    (*sink)(level, text);
  } else {
    writeLineToStderr(text);
  }
}

}  // namespace

bool insideHostCallback() noexcept {
  return hostCallbacks > 0;
}

HostCallbackScope::HostCallbackScope() noexcept {
  ++hostCallbacks;
}

HostCallbackScope::~HostCallbackScope() {
  --hostCallbacks;
}

void diagnose(ZLogLevel level, std::string_view line) noexcept {
  if (!diagnosing(level)) return;
  try {
    std::string text = "zelvanor ";
    text.append(levelName(level)).append(": ").append(line);
    if (holder) {
      holder->hold(level, std::move(text));
      return;
    }
    write(level, text);
  } catch (...) {
    // A line that could not be written (no memory, a throwing sink) must not cost the event.
  }
}

struct HeldDiagnostics::Line {
  ZLogLevel level;
  std::string text;
};

HeldDiagnostics::HeldDiagnostics() noexcept {
  if (holder) return;  // an outer one on this thread writes them
  holder = this;
  outermost_ = true;
}

void HeldDiagnostics::hold(ZLogLevel level, std::string text) {
  lines_.push_back(Line{level, std::move(text)});
}

HeldDiagnostics::~HeldDiagnostics() {
  if (!outermost_) return;
  // Released first: a sink that calls back into the SDK holds and writes its own lines.
  holder = nullptr;
  for (const Line& line : lines_) {
    try {
      write(line.level, line.text);
    } catch (...) {
      // As in diagnose: the line is lost, not the host's thread.
    }
  }
}

void setDiagnostics(ZLogLevel level, ZDiagnosticsSink sink) {
  std::lock_guard lock(state().mutex);
  state().sink = sink ? std::make_shared<const ZDiagnosticsSink>(std::move(sink)) : nullptr;
  state().level.store(static_cast<int>(level), std::memory_order_relaxed);
}

}  // namespace zelvanor::detail
