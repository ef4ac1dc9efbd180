#include "support/temp_dir.hpp"

#include <random>
#include <string>

namespace zelvanor::testing {

TempDir::TempDir() {
  // create_directory fails when the name is taken, so a made directory is this object's alone
  // (portable mkdtemp: Windows has none).
  std::random_device seed;
  std::mt19937_64 random(seed());
  const auto base = std::filesystem::temp_directory_path();
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name = "zelvanor-test-";
    for (int i = 0; i < 6; ++i) name += "abcdefghijklmnopqrstuvwxyz0123456789"[random() % 36];
    std::error_code error;
    if (std::filesystem::create_directory(base / name, error)) {
      std::filesystem::permissions(base / name, std::filesystem::perms::owner_all,
                                   std::filesystem::perm_options::replace, error);
      path_ = base / name;
      return;
    }
  }
}

TempDir::~TempDir() {
  std::error_code error;
  if (!path_.empty()) std::filesystem::remove_all(path_, error);
}

}  // namespace zelvanor::testing
