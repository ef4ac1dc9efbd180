// Arbitrary text as a `zelvanor send` script. Reading it must never run anything nor fail; every
// line is either a step or an error, in order, numbered as in the text, and reading a line alone
// agrees with reading it inside the script.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "../tools/cli/script.hpp"

namespace {

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto script = zelvanor::cli::parseScript(text);
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  if (script.steps.size() + script.errors.size() > lines) fail("more results than lines");

  std::size_t last = 0;
  for (const auto& step : script.steps) {
    if (step.line <= last || step.line > lines) fail("steps out of order or past the end");
    last = step.line;
  }
  last = 0;
  for (const auto& error : script.errors) {
    if (error.line <= last || error.line > lines) fail("errors out of order or past the end");
    if (error.message.empty()) fail("an error without a reason");
    if (zelvanor::cli::describe(error).find(std::to_string(error.line)) == std::string::npos) {
      fail("an error's description does not name its line");
    }
    last = error.line;
  }
  // The first line read alone gives the same verdict as inside the script (a comment or a blank
  // line gives neither).
  std::string_view first = text.substr(0, text.find('\n'));
  if (!first.empty() && first.back() == '\r') first.remove_suffix(1);
  zelvanor::cli::ScriptStep step;
  std::string reason;
  const bool alone = zelvanor::cli::parseLine(first, step, reason);
  const bool inScript = !script.steps.empty() && script.steps.front().line == 1;
  const bool refused = !script.errors.empty() && script.errors.front().line == 1;
  if ((inScript && !alone) || (refused && alone)) fail("a line read alone disagrees");
  return 0;
}
