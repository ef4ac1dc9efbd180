// Arbitrary bytes as a Retry-After value and an HTTP date: no crash, no negative or uncapped wait,
// digits exactly their value, and every date that reads writes back to the same moment.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "cookie_check.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string failure =
      zelvanor::fuzzing::checkRetryAfter({reinterpret_cast<const char*>(data), size});
  if (!failure.empty()) {
    std::fprintf(stderr, "%s\n", failure.c_str());
    std::abort();
  }
  return 0;
}
