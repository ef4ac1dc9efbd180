// The SDK's persistent settings: one small JSON object in the data directory, replaced
// atomically on every write so a crash leaves either the old or the new file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace zelvanor::platform {

class SettingsStore {
 public:
  /// Reads the file now; a missing or corrupt file reads as empty (and is replaced at the next
  /// write).
  explicit SettingsStore(std::filesystem::path file);

  std::optional<std::string> string(std::string_view key) const;
  void setString(std::string_view key, std::string value);
  std::optional<std::int64_t> integer(std::string_view key) const;
  void setInteger(std::string_view key, std::int64_t value);
  /// Removes the keys (the file is written only when one of them was there).
  void erase(std::initializer_list<std::string_view> keys);

 private:
  using Value = std::variant<std::string, std::int64_t>;
  void persistLocked() const;

  const std::filesystem::path file_;
  mutable std::mutex mutex_;
  std::map<std::string, Value, std::less<>> values_;
};

}  // namespace zelvanor::platform
