// SQLite storage for the records the collector accepted.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <zelvanor/record.hpp>

struct sqlite3;
struct sqlite3_stmt;

namespace zelvanor::collector {

struct StoredEvent {
  std::int64_t id = 0;
  std::string receivedAt{};  ///< UTC, ISO 8601 with milliseconds
  std::string actionType;
  std::string actionName;
  std::string actionKind;
  std::string page;  ///< the page block's name, empty without one
  ZXid xid;
  std::string json;  ///< the record exactly as it arrived
};

struct EventQuery {
  std::optional<std::string> actionType{};
  std::int64_t afterId = 0;  ///< only events stored after this one
  int limit = 200;
  /// Oldest first, so that pages read forward from afterId miss nothing; newest first otherwise.
  bool oldestFirst = false;
};

class EventStore {
 public:
  EventStore() = default;
  ~EventStore();
  EventStore(const EventStore&) = delete;
  EventStore& operator=(const EventStore&) = delete;

  bool open(const std::filesystem::path& file, std::string& error);
  /// Stores one decoded record with its original text; the new row's id, or nothing on failure.
  std::optional<std::int64_t> add(const ZLogRecord& record, std::string_view json);
  /// Newest first unless the query asks for oldest first.
  std::vector<StoredEvent> list(const EventQuery& query);
  std::int64_t count();

 private:
  std::mutex mutex_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
};

}  // namespace zelvanor::collector
