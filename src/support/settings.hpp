// Process-wide values the facade writes and the request builder and console log read. Atomics so
// that any host thread may write them while SDK threads read.
#pragma once

#include <atomic>

namespace zelvanor::detail {

struct ProcessSettings {
  std::atomic<double> requestTimeout{5.0};
  std::atomic<bool> usingSandbox{false};
  std::atomic<bool> consoleLogsEnabled{true};
  /// The host's collection switch: while false no event becomes a record, nothing is sent and
  /// nothing new is written. Read by delivery and identity sync before each request.
  std::atomic<bool> collectionEnabled{true};
  /// The host switched collection in this process: a start takes its word over the settings
  /// file's (which it writes, too).
  std::atomic<bool> collectionSetByHost{false};
};

ProcessSettings& settings() noexcept;

}  // namespace zelvanor::detail
