#include "support/temp_dir.hpp"

#include <stdlib.h>

#include <string>

namespace zelvanor::testing {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zelvanor-test-XXXXXX").string();
  if (mkdtemp(pattern.data())) path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code error;
  if (!path_.empty()) std::filesystem::remove_all(path_, error);
}

}  // namespace zelvanor::testing
