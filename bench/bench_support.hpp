// Helpers shared by the benchmark programs.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace zelvanor::bench {

/// A fresh directory under the system's temporary folder, removed with everything in it.
struct TempDir {
  TempDir() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "zelvanor-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    path = pattern;
  }
  ~TempDir() {
    std::error_code error;
    std::filesystem::remove_all(path, error);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::filesystem::path path;
};

}  // namespace zelvanor::bench
