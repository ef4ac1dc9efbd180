// The `zelvanor send` script: JSON lines of tracker operations, read and checked in full before
// any of them runs, so a typo on line 40 cannot leave half a session delivered.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "api/block_registry.hpp"
#include "zelvanor/blocks.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/record.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor::cli {

/// Every block the facade's set overloads take, plus the free text it accepts and drops.
using BlockValue = detail::BlockValue;

namespace op {
struct SetRequired {
  ZConfiguration configuration{};
};
struct Set {
  std::string block{};  ///< the name the script used ("page", "buckets", ...)
  BlockValue value{};
};
struct Track {
  bool verbose = false;
  bool disabled = false;
};
struct Flush {};
struct GetData {};
struct SetBatchSize {
  std::uint64_t value = 0;
};
struct SetTimeout {
  double value = 0;
};
struct SetDevelopment {};
struct SetProduction {};
struct UseSandboxEnvironment {};
struct UseGeneralEnvrionment {};
struct TurnOnConsoleLogs {};
struct TurnOffConsoleLogs {};
struct Post {
  ZLifecycleEvent event = ZLifecycleEvent::willEnterForeground;
};
struct Sleep {
  std::uint64_t ms = 0;
};
struct SetCollectionEnabled {
  bool value = true;
};
struct DeleteLocalData {};
}  // namespace op

using Operation =
    std::variant<op::SetRequired, op::Set, op::Track, op::Flush, op::GetData, op::SetBatchSize,
                 op::SetTimeout, op::SetDevelopment, op::SetProduction, op::UseSandboxEnvironment,
                 op::UseGeneralEnvrionment, op::TurnOnConsoleLogs, op::TurnOffConsoleLogs, op::Post,
                 op::Sleep, op::SetCollectionEnabled, op::DeleteLocalData>;

/// The longest pause one sleep line may ask for, so a script cannot hang the tool for good.
inline constexpr std::uint64_t kMaxSleepMs = 600'000;

struct ScriptStep {
  std::size_t line = 0;  ///< 1-based line number in the script
  std::string name;      ///< the op's name as written ("track", "set", ...)
  Operation operation;
};

struct ScriptError {
  std::size_t line = 0;
  std::string message;  ///< what is wrong, without the line number
};

struct Script {
  std::vector<ScriptStep> steps;
  std::vector<ScriptError> errors;  ///< every malformed line, in order; empty when usable
  bool ok() const { return errors.empty(); }
};

/// Reads a whole script. One JSON object per line; blank lines and lines whose first non-blank
/// character is '#' are skipped. Every line is checked; nothing is run here.
Script parseScript(std::string_view text);

/// Checks one line (without its newline). Fills `step` or returns the reason it cannot.
bool parseLine(std::string_view line, ScriptStep& step, std::string& error);

/// "line 3: ..." for people.
std::string describe(const ScriptError& error);

/// What running a script did, for the closing summary.
struct RunCounts {
  std::size_t operations = 0;
  std::size_t tracks = 0;
  std::size_t flushes = 0;
  std::size_t blocks = 0;
};

/// Hands one step to ZelvanorTracker. getData's text goes to `out`, followed by a newline.
void runStep(const ScriptStep& step, std::ostream& out, RunCounts& counts);

}  // namespace zelvanor::cli
