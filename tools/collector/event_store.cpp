#include "event_store.hpp"

#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <ctime>

namespace zelvanor::collector {
namespace {

std::string nowUtc() {
  const auto now = std::chrono::system_clock::now();
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char text[40];
  const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + n, sizeof text - n, ".%03dZ", static_cast<int>(millis));
  return text;
}

void bindText(sqlite3_stmt* statement, int index, std::string_view text) {
  // A null pointer would bind SQL NULL; an absent text is stored as empty.
  sqlite3_bind_text(statement, index, text.data() ? text.data() : "", static_cast<int>(text.size()),
                    SQLITE_TRANSIENT);
}

std::string columnText(sqlite3_stmt* statement, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  return text == nullptr
             ? std::string()
             : std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

}  // namespace

EventStore::~EventStore() {
  if (insert_ != nullptr) sqlite3_finalize(insert_);
  if (db_ != nullptr) sqlite3_close(db_);
}

bool EventStore::open(const std::filesystem::path& file, std::string& error) {
  std::lock_guard lock(mutex_);
  if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) {
    error = "cannot open " + file.string() + ": " + sqlite3_errmsg(db_);
    return false;
  }
  sqlite3_busy_timeout(db_, 5000);
  // WAL with NORMAL sync: a commit per record stays cheap, and a crash loses at most the last few.
  const char* schema =
      "PRAGMA journal_mode=WAL;"
      "PRAGMA synchronous=NORMAL;"
      "CREATE TABLE IF NOT EXISTS events ("
      "  id INTEGER PRIMARY KEY AUTOINCREMENT,"
      "  received_at TEXT NOT NULL,"
      "  action_type TEXT NOT NULL, action_name TEXT NOT NULL, action_kind TEXT NOT NULL,"
      "  page TEXT NOT NULL,"
      "  cid TEXT NOT NULL, did TEXT NOT NULL, sid TEXT NOT NULL,"
      "  json TEXT NOT NULL);"
      "CREATE INDEX IF NOT EXISTS events_by_type ON events(action_type, id);";
  char* message = nullptr;
  if (sqlite3_exec(db_, schema, nullptr, nullptr, &message) != SQLITE_OK) {
    error = std::string("cannot create the event table: ") + (message ? message : "");
    sqlite3_free(message);
    return false;
  }
  if (sqlite3_prepare_v2(db_,
                         "INSERT INTO events (received_at, action_type, action_name, action_kind, "
                         "page, cid, did, sid, json) VALUES (?,?,?,?,?,?,?,?,?)",
                         -1, &insert_, nullptr) != SQLITE_OK) {
    error = std::string("cannot prepare the insert: ") + sqlite3_errmsg(db_);
    return false;
  }
  return true;
}

std::optional<std::int64_t> EventStore::add(const ZLogRecord& record, std::string_view json) {
  const std::string receivedAt = nowUtc();
  std::lock_guard lock(mutex_);
  if (insert_ == nullptr) return std::nullopt;
  sqlite3_reset(insert_);
  bindText(insert_, 1, receivedAt);
  bindText(insert_, 2, record.action.type);
  bindText(insert_, 3, record.action.name);
  bindText(insert_, 4, record.action.kind);
  bindText(insert_, 5, record.page ? std::string_view(record.page->name) : std::string_view());
  bindText(insert_, 6, record.xid.cid);
  bindText(insert_, 7, record.xid.did);
  bindText(insert_, 8, record.xid.sid);
  bindText(insert_, 9, json);
  if (sqlite3_step(insert_) != SQLITE_DONE) return std::nullopt;
  return sqlite3_last_insert_rowid(db_);
}

std::vector<StoredEvent> EventStore::list(const EventQuery& query) {
  std::vector<StoredEvent> events;
  std::lock_guard lock(mutex_);
  if (db_ == nullptr) return events;
  const char* sql =
      query.oldestFirst
          ? "SELECT id, received_at, action_type, action_name, action_kind, page, cid, did, sid, "
            "json FROM events WHERE id > ?1 AND (?2 IS NULL OR action_type = ?2) "
            "ORDER BY id ASC LIMIT ?3"
          : "SELECT id, received_at, action_type, action_name, action_kind, page, cid, did, sid, "
            "json FROM events WHERE id > ?1 AND (?2 IS NULL OR action_type = ?2) "
            "ORDER BY id DESC LIMIT ?3";
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) != SQLITE_OK) return events;
  sqlite3_bind_int64(statement, 1, query.afterId);
  if (query.actionType) bindText(statement, 2, *query.actionType);
  sqlite3_bind_int(statement, 3, query.limit);
  while (sqlite3_step(statement) == SQLITE_ROW) {
    StoredEvent event;
    event.id = sqlite3_column_int64(statement, 0);
    event.receivedAt = columnText(statement, 1);
    event.actionType = columnText(statement, 2);
    event.actionName = columnText(statement, 3);
    event.actionKind = columnText(statement, 4);
    event.page = columnText(statement, 5);
    event.xid = ZXid{columnText(statement, 6), columnText(statement, 7), columnText(statement, 8)};
    event.json = columnText(statement, 9);
    events.push_back(std::move(event));
  }
  sqlite3_finalize(statement);
  return events;
}

std::int64_t EventStore::count() {
  std::lock_guard lock(mutex_);
  sqlite3_stmt* statement = nullptr;
  std::int64_t n = 0;
  if (sqlite3_prepare_v2(db_, "SELECT COUNT(*) FROM events", -1, &statement, nullptr) ==
          SQLITE_OK &&
      sqlite3_step(statement) == SQLITE_ROW) {
    n = sqlite3_column_int64(statement, 0);
  }
  sqlite3_finalize(statement);
  return n;
}

}  // namespace zelvanor::collector
