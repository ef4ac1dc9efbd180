#include "support/diagnostics.hpp"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/console_log.hpp"
#include "support/json_writer.hpp"

namespace zelvanor::detail {

namespace {

struct DiagnosticsState {
  // Read on every event: an atomic, so a disabled level costs one load. The environment is read
  // once, as the SDK first reports; nothing in the SDK changes it.
  std::atomic<int> level{static_cast<int>(
      levelFromText(std::getenv("ZELVANOR_LOG")))};  // NOLINT(concurrency-mt-unsafe)
  std::mutex mutex;
  std::shared_ptr<const ZDiagnosticsSink> sink;  // null: stderr
  /// What hideInDiagnostics was given, newest last; replaced as a whole, read without copying.
  std::shared_ptr<const std::vector<std::string>> hidden;
};

/// Identifying values kept for hiding: a few triples and id blocks' worth.
constexpr std::size_t kMaxHiddenValues = 64;
/// Shorter values are hidden only as whole words.
constexpr std::size_t kHiddenAnywhere = 4;
constexpr std::string_view kHidden = "<hidden>";

/// The value as this SDK's records carry it inside a JSON string, as a collector echoing a
/// record shows it.
std::string jsonEscaped(std::string_view value) {
  std::string out;
  {
    JsonWriter writer(out, /*pretty=*/false);
    (void)writer.string(value);  // text that is no UTF-8 is escaped all the same
  }
  return out.size() >= 2 ? out.substr(1, out.size() - 2) : std::string(value);
}

bool wordByte(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || byte >= 0x80;
}

void hideEach(std::string& text, std::string_view value) {
  if (value.empty()) return;
  const bool anywhere = value.size() >= kHiddenAnywhere;
  for (std::size_t at = text.find(value); at != std::string::npos; at = text.find(value, at)) {
    const std::size_t end = at + value.size();
    if (!anywhere &&
        ((at > 0 && wordByte(text[at - 1])) || (end < text.size() && wordByte(text[end])))) {
      at += 1;
      continue;
    }
    text.replace(at, value.size(), kHidden);
    at += kHidden.size();
  }
}

/// Longest first, so that a value holding another is hidden whole.
void hideAll(std::string& text, std::vector<std::string_view> values) {
  std::sort(values.begin(), values.end(),
            [](std::string_view a, std::string_view b) { return a.size() > b.size(); });
  for (const std::string_view value : values) hideEach(text, value);
}

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

void hideInDiagnostics(const std::vector<std::string>& values) {
  std::lock_guard lock(state().mutex);
  auto next = state().hidden ? std::make_shared<std::vector<std::string>>(*state().hidden)
                             : std::make_shared<std::vector<std::string>>();
  bool changed = false;
  for (const std::string& value : values) {
    for (std::string form : {value, jsonEscaped(value)}) {
      if (form.empty()) continue;
      const auto known = std::find(next->begin(), next->end(), form);
      if (known != next->end()) {
        // Seen again: it becomes the newest, so that it is the last to go.
        if (known + 1 == next->end()) continue;
        next->erase(known);
      }
      next->push_back(std::move(form));
      changed = true;
    }
  }
  if (!changed) return;
  if (next->size() > kMaxHiddenValues) {
    next->erase(next->begin(),
                next->begin() + static_cast<std::ptrdiff_t>(next->size() - kMaxHiddenValues));
  }
  state().hidden = std::move(next);
}

namespace {

std::shared_ptr<const std::vector<std::string>> hiddenValues() {
  std::lock_guard lock(state().mutex);
  return state().hidden;
}

}  // namespace

std::string withoutHiddenValues(std::string_view text, const std::vector<std::string>& more) {
  std::string out(text);
  const auto hidden = hiddenValues();
  std::vector<std::string> escaped;
  escaped.reserve(more.size());
  for (const std::string& value : more) escaped.push_back(jsonEscaped(value));
  std::vector<std::string_view> values(more.begin(), more.end());
  values.insert(values.end(), escaped.begin(), escaped.end());
  if (hidden) values.insert(values.end(), hidden->begin(), hidden->end());
  hideAll(out, std::move(values));
  return out;
}

void diagnose(ZLogLevel level, std::string_view line) noexcept {
  if (!diagnosing(level)) return;
  try {
    std::string text = "zelvanor ";
    text.append(levelName(level)).append(": ");
    // The prefix is the SDK's own: only the line is searched for identifying values.
    if (const auto hidden = hiddenValues()) {
      std::string shown(line);
      hideAll(shown, std::vector<std::string_view>(hidden->begin(), hidden->end()));
      text.append(shown);
    } else {
      text.append(line);
    }
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
