#include "platform/settings_store.hpp"

#include <simdjson.h>

#include "platform/file_ops.hpp"
#include "support/json_writer.hpp"

namespace zelvanor::platform {

SettingsStore::SettingsStore(std::filesystem::path file) : file_(std::move(file)) {
  const auto content = readWhole(file_);
  if (!content) return;
  simdjson::dom::parser parser;
  simdjson::dom::object object;
  if (parser.parse(content->data(), content->size(), true).get(object) != simdjson::SUCCESS) return;
  for (auto member : object) {
    std::string_view text;
    std::int64_t number = 0;
    if (member.value.get(text) == simdjson::SUCCESS) {
      values_.emplace(std::string(member.key), std::string(text));
    } else if (member.value.get(number) == simdjson::SUCCESS) {
      values_.emplace(std::string(member.key), number);
    }
  }
}

std::optional<std::string> SettingsStore::string(std::string_view key) const {
  std::lock_guard lock(mutex_);
  auto found = values_.find(key);
  if (found == values_.end()) return std::nullopt;
  if (const auto* text = std::get_if<std::string>(&found->second)) return *text;
  return std::nullopt;
}

std::optional<std::int64_t> SettingsStore::integer(std::string_view key) const {
  std::lock_guard lock(mutex_);
  auto found = values_.find(key);
  if (found == values_.end()) return std::nullopt;
  if (const auto* number = std::get_if<std::int64_t>(&found->second)) return *number;
  return std::nullopt;
}

void SettingsStore::setString(std::string_view key, std::string value) {
  std::lock_guard lock(mutex_);
  values_.insert_or_assign(std::string(key), std::move(value));
  persistLocked();
}

void SettingsStore::setInteger(std::string_view key, std::int64_t value) {
  std::lock_guard lock(mutex_);
  values_.insert_or_assign(std::string(key), value);
  persistLocked();
}

void SettingsStore::erase(std::initializer_list<std::string_view> keys) {
  std::lock_guard lock(mutex_);
  bool removed = false;
  for (const std::string_view key : keys) {
    if (auto found = values_.find(key); found != values_.end()) {
      values_.erase(found);
      removed = true;
    }
  }
  if (removed) persistLocked();
}

void SettingsStore::persistLocked() const {
  std::string json;
  detail::JsonWriter writer(json, /*pretty=*/true);
  writer.beginObject();
  for (const auto& [key, value] : values_) {
    writer.key(key);  // our own keys: plain ASCII
    if (const auto* text = std::get_if<std::string>(&value)) {
      writer.string(*text);
    } else {
      writer.integer(std::get<std::int64_t>(value));
    }
  }
  writer.endObject();
  json.push_back('\n');
  writeWholePrivateAtomically(file_, json);
}

}  // namespace zelvanor::platform
