// The diagnostics sink: one line per event dropped or kept, with its reason. Every layer reports
// here; the facade only sets where the lines go.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "zelvanor/diagnostics.hpp"

namespace zelvanor::detail {

/// Whether a line at `level` would be written: callers check before building an expensive one.
bool diagnosing(ZLogLevel level) noexcept;

/// Writes "zelvanor <level>: <line>" to the sink when `level` is enabled. Never throws; a sink
/// that throws is ignored.
void diagnose(ZLogLevel level, std::string_view line) noexcept;

/// Identifying values (the identity triple, the id block's values) no line may show: from now on
/// every line is written with them, and with their JSON-escaped forms, replaced by <hidden>. A
/// value of four bytes or more is hidden wherever it appears; a shorter one only as a whole word,
/// so that a user id "42" does not blank out "HTTP 420". The newest values are kept, a bounded
/// number of them.
void hideInDiagnostics(const std::vector<std::string>& values);

/// `text` with the values given to hideInDiagnostics, and `more`, replaced by <hidden>. Text from
/// outside the SDK (a collector's answer) goes through this before it is cut short, so that a cut
/// never leaves part of a value.
std::string withoutHiddenValues(std::string_view text, const std::vector<std::string>& more = {});

/// Whether this thread is running a host's callback: the diagnostics sink or an onReady callback.
/// A call such a callback makes back into the SDK must neither start an instance nor wait for a
/// shutdown, which may itself be waiting for this thread.
bool insideHostCallback() noexcept;

/// Marks this thread as running a host's callback while it lives.
class HostCallbackScope {
 public:
  HostCallbackScope() noexcept;
  ~HostCallbackScope();
  HostCallbackScope(const HostCallbackScope&) = delete;
  HostCallbackScope& operator=(const HostCallbackScope&) = delete;
};

/// While one lives on a thread, lines said there are held and written, in order, when it ends.
/// Code about to take a lock that a host's sink could need (a sink may call back into the SDK)
/// makes one first, before the lock, so the lines go out after the lock is released.
class HeldDiagnostics {
 public:
  HeldDiagnostics() noexcept;
  ~HeldDiagnostics();
  HeldDiagnostics(const HeldDiagnostics&) = delete;
  HeldDiagnostics& operator=(const HeldDiagnostics&) = delete;

  /// Keeps a line until this ends (diagnose calls it on the outermost one of the thread).
  void hold(ZLogLevel level, std::string text);

 private:
  struct Line;
  // The lines held, on the holder itself: a thread_local container would need a destructor at
  // thread exit, which MinGW runs after the thread's storage is gone.
  std::vector<Line> lines_;
  bool outermost_ = false;
};

/// Sets the most detailed level written and where lines go (an empty sink: stderr). Until a
/// host calls this, the level comes from ZELVANOR_LOG (error, warning, info, debug or off), and
/// is error when it is unset.
void setDiagnostics(ZLogLevel level, ZDiagnosticsSink sink);

/// The level ZELVANOR_LOG names, or error when it names none.
ZLogLevel levelFromText(const char* text) noexcept;

/// The name written in front of a line of this level.
std::string_view levelName(ZLogLevel level) noexcept;

}  // namespace zelvanor::detail
