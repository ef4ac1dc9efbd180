// A fresh private directory per test, removed afterwards.
#pragma once

#include <filesystem>
#include <random>
#include <string>

namespace zelvanor::testing {

class TempDir {
 public:
  TempDir() {
    // create_directory fails when the name is taken, so a made directory is this object's alone
    // (portable mkdtemp: Windows has none).
    std::mt19937_64 random(std::random_device{}());
    const auto base = std::filesystem::temp_directory_path();
    std::error_code error;
    for (int attempt = 0; attempt < 100 && path_.empty(); ++attempt) {
      std::string name = "zelvanor-test-";
      for (int i = 0; i < 6; ++i) name += "abcdefghijklmnopqrstuvwxyz0123456789"[random() % 36];
      if (std::filesystem::create_directory(base / name, error)) path_ = base / name;
    }
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::replace, error);
  }
  ~TempDir() {
    std::error_code error;
    if (!path_.empty()) std::filesystem::remove_all(path_, error);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace zelvanor::testing
