// SQLite storage for the records the collector accepted, and the newest of those it refused.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <span>
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
  std::string userId;       ///< the id block's app user id, empty without one
  std::string json;         ///< the body exactly as it arrived (for a refused one, maybe not JSON)
  std::string refusal;      ///< why the record was refused; empty for an accepted one
  std::string refusalPath;  ///< the key path the decoder stopped at
  bool refused() const { return !refusal.empty(); }
};

enum class RecordStatus { accepted, refused, all };

struct EventQuery {
  std::optional<std::string> actionType{};
  std::int64_t afterId = 0;  ///< only events stored after this one
  int limit = 200;
  /// Oldest first, so that pages read forward from afterId miss nothing; newest first otherwise.
  bool oldestFirst = false;
  std::int64_t beforeId = 0;  ///< only events stored before this one; 0 for no bound
  // Exact matches. Only the type has an index (see EventStore::open); the others scan.
  std::optional<std::string> actionName{};
  std::optional<std::string> actionKind{};
  std::optional<std::string> page{};
  std::optional<std::string> cid{};
  std::optional<std::string> did{};
  std::optional<std::string> sid{};
  std::optional<std::string> userId{};
  /// Substring of the stored body, ASCII letters compared without case; empty matches all.
  std::string text{};
  /// The SDK's tests read accepted records only, so that is what a query means unless it says.
  RecordStatus status = RecordStatus::accepted;
};

struct TypeCount {
  std::string actionType;  ///< empty for refused records
  std::int64_t count = 0;
};

struct MinuteCount {
  std::string minute;      ///< UTC, "YYYY-MM-DDTHH:MM"
  std::string actionType;  ///< empty for refused records
  bool refused = false;
  std::int64_t count = 0;
};

struct EventStats {
  std::int64_t total = 0;  ///< matching the query, refused ones included when it asks for them
  std::int64_t refused = 0;
  std::vector<TypeCount> byType;      ///< accepted records, most frequent first
  std::vector<MinuteCount> byMinute;  ///< from `since` on, oldest first
};

/// One record to store with the time it is said to have arrived; used to fill a store in bulk.
struct ReceivedRecord {
  std::string receivedAt;
  ZLogRecord record;
  std::string json;
};

class EventStore {
 public:
  /// Refused bodies kept: enough to see why the last bursts went missing, bounded for a store
  /// that a broken client posts to all day.
  static constexpr int kRefusedKept = 1000;
  /// A refused body is kept up to this size; the reason and the start are what a reader needs.
  static constexpr std::size_t kRefusedBodyBytes = 64u << 10;

  EventStore() = default;
  ~EventStore();
  EventStore(const EventStore&) = delete;
  EventStore& operator=(const EventStore&) = delete;

  /// Opens or creates the database, readable and writable by its owner only.
  bool open(const std::filesystem::path& file, std::string& error);
  /// Stores one decoded record with its original text; the new row's id, or nothing on failure.
  std::optional<std::int64_t> add(const ZLogRecord& record, std::string_view json);
  /// Stores records in one transaction; false (and nothing stored) on failure.
  bool addMany(std::span<const ReceivedRecord> records);
  /// Keeps a body that did not decode, with the reason and key path; the oldest past
  /// kRefusedKept are dropped.
  std::optional<std::int64_t> addRefused(std::string_view body, std::string_view reason,
                                         std::string_view path);
  /// Newest first unless the query asks for oldest first.
  std::vector<StoredEvent> list(const EventQuery& query);
  /// Counts of what the query matches (after, before and limit are ignored), by type, and per
  /// minute from `sinceMinute` ("YYYY-MM-DDTHH:MM", UTC) on.
  EventStats stats(const EventQuery& query, const std::string& sinceMinute);
  std::int64_t count();

  /// A time as stored in receivedAt.
  static std::string utcText(std::chrono::system_clock::time_point time);
  static std::string nowUtc() { return utcText(std::chrono::system_clock::now()); }

 private:
  bool insert(std::string_view receivedAt, const ZLogRecord& record, std::string_view json);

  std::mutex mutex_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* insertRefused_ = nullptr;
  sqlite3_stmt* pruneRefused_ = nullptr;
};

}  // namespace zelvanor::collector
