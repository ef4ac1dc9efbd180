// Process-wide values the facade writes and the request builder and console log read. Atomics so
// that any host thread may write them while SDK threads read.
#pragma once

#include <atomic>

namespace zelvanor::detail {

struct ProcessSettings {
  std::atomic<double> requestTimeout{5.0};
  std::atomic<bool> usingSandbox{false};
  std::atomic<bool> consoleLogsEnabled{true};
};

ProcessSettings& settings() noexcept;

}  // namespace zelvanor::detail
