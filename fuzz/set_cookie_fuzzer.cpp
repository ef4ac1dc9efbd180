// Arbitrary bytes as a request URL, Set-Cookie values and jar lines: the cookie store must hold
// its bounds, send only what it may, and keep its persistent cookies through the jar format.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "cookie_check.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string failure =
      zelvanor::fuzzing::checkSetCookie({reinterpret_cast<const char*>(data), size});
  if (!failure.empty()) {
    std::fprintf(stderr, "%s\n", failure.c_str());
    std::abort();
  }
  return 0;
}
