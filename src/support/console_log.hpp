// The SDK's one console line, written at error level while the console switch is on.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace zelvanor::detail {

using ConsoleSink = std::function<void(std::string_view line)>;

/// Writes "😱 [<file's last path component> <function>] [<line>] | <message>" to the sink.
void logError(std::string_view message, std::string_view file, std::string_view function, int line);

/// Replaces the sink; an empty function restores the default (stderr).
void setConsoleSink(ConsoleSink sink);

/// Writes one line and a newline to stderr in one call, so lines from several threads never
/// interleave within one.
void writeLineToStderr(std::string_view line);

/// The line logError writes, without writing it.
std::string formatConsoleLine(std::string_view message, std::string_view file,
                              std::string_view function, int line);

}  // namespace zelvanor::detail
