// Arbitrary text through the C API's JSON entry points: the first line names a block, the rest is
// its JSON (and, on its own, a configuration). A call either succeeds with no error left behind or
// fails with a status and a message naming the call; it never fails silently nor half-applies.
// Only a configuration that does not decode reaches zelvanor_set_required: a good one would start
// the SDK, which is not what is fuzzed here.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "zelvanor/configuration.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/zelvanor.h"

namespace {

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

void checkError(zelvanor_status status, std::string_view call) {
  const char* error = zelvanor_last_error();
  const std::string_view message = error ? error : "";
  if (status == ZELVANOR_OK) {
    if (!message.empty()) fail("a call that succeeded left an error behind");
  } else if (message.substr(0, call.size()) != call) {
    fail("a failed call's message does not name the call");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const auto newline = input.find('\n');
  const std::string block = input.substr(0, newline);
  const std::string json = newline == std::string::npos ? std::string() : input.substr(newline + 1);

  zelvanor_event* event = zelvanor_event_new();
  if (!event) fail("no event");
  const zelvanor_status first = zelvanor_event_set(event, block.c_str(), json.c_str());
  checkError(first, "zelvanor_event_set");
  // The same call again gives the same answer: a failure left the event as it was.
  if (zelvanor_event_set(event, block.c_str(), json.c_str()) != first) {
    fail("the same block set twice gave two answers");
  }
  zelvanor_event_free(event);

  const auto configuration = zelvanor::decodeJson<zelvanor::ZConfiguration>(json);
  if (configuration) {
    const auto encoded = zelvanor::encodeJson(*configuration);
    if (!encoded) fail("a decoded configuration does not encode");
    const auto again = zelvanor::decodeJson<zelvanor::ZConfiguration>(*encoded);
    if (!again || !(*again == *configuration))
      fail("a configuration does not survive a round trip");
  } else if (json.find('\0') == std::string::npos) {
    const zelvanor_status status = zelvanor_set_required(json.c_str());
    if (status == ZELVANOR_OK) fail("a configuration the codec refuses was taken");
    checkError(status, "zelvanor_set_required");
  }
  return 0;
}
