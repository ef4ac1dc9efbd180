// Arbitrary bytes into the record decoder; whatever decodes must survive encode and decode.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "round_trip.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string failure =
      zelvanor::fuzzing::checkRecord({reinterpret_cast<const char*>(data), size});
  if (!failure.empty()) {
    std::fprintf(stderr, "%s\n", failure.c_str());
    std::abort();
  }
  return 0;
}
