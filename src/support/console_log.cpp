#include "support/console_log.hpp"

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "support/settings.hpp"

namespace zelvanor::detail {

ProcessSettings& settings() noexcept {
  static ProcessSettings instance;
  return instance;
}

namespace {

std::mutex sinkMutex;
std::shared_ptr<const ConsoleSink> customSink;  // null: stderr

}  // namespace

// One stdio call per line: the stream's lock is held for the whole call, so output from other
// threads can come between lines but never splits one.
void writeLineToStderr(std::string_view line) {
  std::string text;
  text.reserve(line.size() + 1);
  text.append(line).push_back('\n');
  std::fwrite(text.data(), 1, text.size(), stderr);
}

std::string formatConsoleLine(std::string_view message, std::string_view file,
                              std::string_view function, int line) {
  const auto slash = file.find_last_of('/');
  const std::string_view name = slash == std::string_view::npos ? file : file.substr(slash + 1);
  std::string text = "\xF0\x9F\x98\xB1 [";  // 😱
  text.append(name).append(" ").append(function).append("] [").append(std::to_string(line));
  text.append("] | ").append(message);
  return text;
}

void logError(std::string_view message, std::string_view file, std::string_view function,
              int line) {
  if (!settings().consoleLogsEnabled.load(std::memory_order_relaxed)) return;
  const std::string text = formatConsoleLine(message, file, function, line);
  std::shared_ptr<const ConsoleSink> sink;
  {
    std::lock_guard lock(sinkMutex);
    sink = customSink;
  }
  // The host's sink runs outside our lock so it may log or call back into the SDK.
  try {
    if (sink) {
      (*sink)(text);
    } else {
      writeLineToStderr(text);
    }
  } catch (...) {
    // A throwing host sink must not take the SDK's thread down with it.
  }
}

void setConsoleSink(ConsoleSink sink) {
  std::lock_guard lock(sinkMutex);
  customSink = sink ? std::make_shared<const ConsoleSink>(std::move(sink)) : nullptr;
}

}  // namespace zelvanor::detail
