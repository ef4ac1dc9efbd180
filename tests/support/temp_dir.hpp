// A fresh private directory per test, removed afterwards.
#pragma once

#include <filesystem>

namespace zelvanor::testing {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace zelvanor::testing
