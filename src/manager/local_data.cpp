#include "manager/local_data.hpp"

#include "platform/file_ops.hpp"
#include "store/pending_store.hpp"

namespace zelvanor::detail::local_data {

void forgetInstall(platform::SettingsStore& settings) {
  settings.erase({"latestAppVersion", "appInstalledDate", "appInstalledTimestamp"});
}

bool markErasing(const std::filesystem::path& directory) {
  return platform::writeWholePrivateAtomically(directory / kErasingMarkName, "erasing\n");
}

void unmarkErasing(const std::filesystem::path& directory) {
  (void)platform::removeFile(directory / kErasingMarkName);
}

void finishInterruptedErase(const std::filesystem::path& directory) {
  if (directory.empty() || !platform::regularFileSize(directory / kErasingMarkName)) return;
  PendingStore::removeFiles(directory);
  (void)platform::removeFile(directory / kCookieJarFileName);
  platform::SettingsStore settings(directory / kSettingsFileName);
  forgetInstall(settings);
  unmarkErasing(directory);
}

}  // namespace zelvanor::detail::local_data
