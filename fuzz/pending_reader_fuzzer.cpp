// Arbitrary bytes as the content of a pending-record file: what a crash, a full disk or a foreign
// writer may leave behind must never stop the host, and the reader's rules must hold.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "pending_check.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::filesystem::path scratch =
      std::filesystem::temp_directory_path() /
      ("zelvanor-fuzz-pending-" + std::to_string(::getpid()) + ".tmp");
  const std::string failure =
      zelvanor::fuzzing::checkPendingContent({reinterpret_cast<const char*>(data), size}, scratch);
  if (!failure.empty()) {
    std::fprintf(stderr, "%s\n", failure.c_str());
    std::abort();
  }
  return 0;
}
