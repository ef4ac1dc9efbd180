// The `zelvanor` command line: argument handling and the three sub-commands. main() only hands
// its arguments and streams to runCli, so every path but the real delivery runs in tests.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace zelvanor::cli {

/// Exit codes, as --help documents them.
enum ExitCode : int {
  kOk = 0,
  kUsage = 1,       ///< unknown sub-command or option, missing argument, unusable option value
  kInvalid = 2,     ///< the input was read but is not what it should be
  kRuntime = 3,     ///< a file could not be read, or the SDK could not be set up
  kUnanswered = 4,  ///< send --wait: the time ran out before every record had an answer
};

/// Runs one command line (without the program name). Results go to `out`; progress,
/// summaries and errors to `err`.
int runCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

/// The whole file, read through a read-only descriptor; absent when it cannot be read. "-" reads
/// standard input.
std::optional<std::string> readInput(const std::string& path, std::string& error);

}  // namespace zelvanor::cli
