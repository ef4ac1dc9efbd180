#include "event_store.hpp"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <variant>

namespace zelvanor::collector {
namespace {

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

bool exec(sqlite3* db, const char* sql, std::string* error = nullptr) {
  char* message = nullptr;
  const bool ok = sqlite3_exec(db, sql, nullptr, nullptr, &message) == SQLITE_OK;
  if (!ok && error) *error = message ? message : sqlite3_errmsg(db);
  sqlite3_free(message);
  return ok;
}

// The store holds every record sent, ids and tokens included: owner only, whatever the
// directory's mode or the umask. SQLite gives its -wal and -shm files the database's mode, but
// ones left from an earlier run keep theirs.
bool makePrivate(const std::filesystem::path& file, std::string& error) {
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ::fchmod(fd, 0600) != 0) {
    error = "cannot make " + file.string() + " private";
    if (fd >= 0) ::close(fd);
    return false;
  }
  ::close(fd);
  for (const char* suffix : {"-wal", "-shm"}) {
    const std::string companion = file.string() + suffix;
    if (::access(companion.c_str(), F_OK) == 0) ::chmod(companion.c_str(), 0600);
  }
  return true;
}

std::string likePattern(std::string_view text) {
  std::string pattern = "%";
  for (const char c : text) {
    if (c == '%' || c == '_' || c == '\\') pattern.push_back('\\');
    pattern.push_back(c);
  }
  pattern.push_back('%');
  return pattern;
}

// The WHERE clause of a query with its values, bound in order from the first parameter.
struct Filter {
  std::string sql;
  std::vector<std::variant<std::int64_t, std::string>> values;

  void add(const char* condition, std::variant<std::int64_t, std::string> value) {
    sql.append(sql.empty() ? " WHERE " : " AND ").append(condition);
    values.push_back(std::move(value));
  }
  void add(const char* condition) {
    sql.append(sql.empty() ? " WHERE " : " AND ").append(condition);
  }

  // Binds the values; the next free parameter index.
  int bind(sqlite3_stmt* statement) const {
    int index = 1;
    for (const auto& value : values) {
      if (const auto* number = std::get_if<std::int64_t>(&value)) {
        sqlite3_bind_int64(statement, index++, *number);
      } else {
        bindText(statement, index++, std::get<std::string>(value));
      }
    }
    return index;
  }
};

Filter filterOf(const EventQuery& query, bool withIdBounds) {
  Filter filter;
  // The partial index on refused rows is used only when the condition reads exactly as its own.
  if (query.status == RecordStatus::accepted) filter.add("refusal = ''");
  if (query.status == RecordStatus::refused) filter.add("refusal <> ''");
  if (withIdBounds && query.afterId > 0) filter.add("id > ?", query.afterId);
  if (withIdBounds && query.beforeId > 0) filter.add("id < ?", query.beforeId);
  const std::pair<const char*, const std::optional<std::string>*> exact[] = {
      {"action_type = ?", &query.actionType},
      {"action_name = ?", &query.actionName},
      {"action_kind = ?", &query.actionKind},
      {"page = ?", &query.page},
      {"cid = ?", &query.cid},
      {"did = ?", &query.did},
      {"sid = ?", &query.sid},
      {"user_id = ?", &query.userId}};
  for (const auto& [condition, value] : exact) {
    if (*value) filter.add(condition, **value);
  }
  if (!query.text.empty()) filter.add("json LIKE ? ESCAPE '\\'", likePattern(query.text));
  return filter;
}

constexpr const char* kColumns =
    "id, received_at, action_type, action_name, action_kind, page, cid, did, sid, user_id, json, "
    "refusal, refusal_path";

}  // namespace

std::string EventStore::utcText(std::chrono::system_clock::time_point now) {
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

EventStore::~EventStore() {
  for (sqlite3_stmt* statement : {insert_, insertRefused_, pruneRefused_}) {
    if (statement != nullptr) sqlite3_finalize(statement);
  }
  if (db_ != nullptr) sqlite3_close(db_);
}

bool EventStore::open(const std::filesystem::path& file, std::string& error) {
  std::lock_guard lock(mutex_);
  if (!makePrivate(file, error)) return false;
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
      "  json TEXT NOT NULL,"
      "  user_id TEXT NOT NULL DEFAULT '',"
      "  refusal TEXT NOT NULL DEFAULT '', refusal_path TEXT NOT NULL DEFAULT '');";
  std::string why;
  if (!exec(db_, schema, &why)) {
    error = "cannot create the event table: " + why;
    return false;
  }
  // A store made by an earlier collector lacks the later columns; its rows get the defaults.
  sqlite3_stmt* probe = nullptr;
  const bool current = sqlite3_prepare_v2(db_, "SELECT user_id, refusal, refusal_path FROM events",
                                          -1, &probe, nullptr) == SQLITE_OK;
  sqlite3_finalize(probe);
  if (!current && !exec(db_,
                        "ALTER TABLE events ADD COLUMN user_id TEXT NOT NULL DEFAULT '';"
                        "ALTER TABLE events ADD COLUMN refusal TEXT NOT NULL DEFAULT '';"
                        "ALTER TABLE events ADD COLUMN refusal_path TEXT NOT NULL DEFAULT '';",
                        &why)) {
    error = "cannot add the new event columns: " + why;
    return false;
  }
  // The type filter and the chart read indexes. The other exact filters read the newest rows
  // first and stop at a page of matches, well within the viewer's second on a day of events;
  // an index each would slow every stored record instead, and the collector answers only once
  // the record is stored, so that is the SDK's delivery rate in the demo and the benchmarks.
  const char* indexes =
      "DROP INDEX IF EXISTS events_by_name;"
      "DROP INDEX IF EXISTS events_by_kind;"
      "DROP INDEX IF EXISTS events_by_page;"
      "DROP INDEX IF EXISTS events_by_cid;"
      "DROP INDEX IF EXISTS events_by_did;"
      "DROP INDEX IF EXISTS events_by_sid;"
      "DROP INDEX IF EXISTS events_by_user;"
      "CREATE INDEX IF NOT EXISTS events_by_type ON events(action_type, id);"
      // The chart's counts read this index in its own order: no sorting of a day's rows.
      "CREATE INDEX IF NOT EXISTS events_per_minute ON events(substr(received_at, 1, 16), refusal, "
      "action_type);"
      "CREATE INDEX IF NOT EXISTS events_by_status_type ON events(refusal, action_type);"
      "CREATE INDEX IF NOT EXISTS events_refused ON events(id) WHERE refusal <> '';";
  if (!exec(db_, indexes, &why)) {
    error = "cannot create the event indexes: " + why;
    return false;
  }
  const auto prepare = [&](const char* sql, sqlite3_stmt** statement) {
    if (sqlite3_prepare_v2(db_, sql, -1, statement, nullptr) == SQLITE_OK) return true;
    error = std::string("cannot prepare a statement: ") + sqlite3_errmsg(db_);
    return false;
  };
  return prepare(
             "INSERT INTO events (received_at, action_type, action_name, action_kind, page, cid, "
             "did, sid, json, user_id) VALUES (?,?,?,?,?,?,?,?,?,?)",
             &insert_) &&
         prepare(
             "INSERT INTO events (received_at, action_type, action_name, action_kind, page, cid, "
             "did, sid, json, refusal, refusal_path) VALUES (?,'','','','','','','',?,?,?)",
             &insertRefused_) &&
         prepare(
             "DELETE FROM events WHERE refusal <> '' AND id < (SELECT id FROM events WHERE "
             "refusal <> '' ORDER BY id DESC LIMIT 1 OFFSET ?)",
             &pruneRefused_);
}

bool EventStore::insert(std::string_view receivedAt, const ZLogRecord& record,
                        std::string_view json) {
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
  bindText(insert_, 10,
           record.id && record.id->appUserId ? std::string_view(*record.id->appUserId)
                                             : std::string_view());
  return sqlite3_step(insert_) == SQLITE_DONE;
}

std::optional<std::int64_t> EventStore::add(const ZLogRecord& record, std::string_view json) {
  std::lock_guard lock(mutex_);
  // Read under the lock that also hands out the id: a time read before it could belong to a
  // writer that gets its id after a later one, and the viewer would show a negative gap.
  const std::string receivedAt = nowUtc();
  if (insert_ == nullptr || !insert(receivedAt, record, json)) return std::nullopt;
  return sqlite3_last_insert_rowid(db_);
}

bool EventStore::addMany(std::span<const ReceivedRecord> records) {
  std::lock_guard lock(mutex_);
  if (insert_ == nullptr || !exec(db_, "BEGIN")) return false;
  for (const auto& r : records) {
    if (!insert(r.receivedAt, r.record, r.json)) {
      exec(db_, "ROLLBACK");
      return false;
    }
  }
  return exec(db_, "COMMIT");
}

std::optional<std::int64_t> EventStore::addRefused(std::string_view body, std::string_view reason,
                                                   std::string_view path) {
  std::lock_guard lock(mutex_);
  const std::string receivedAt = nowUtc();  // under the lock, as in add()
  if (insertRefused_ == nullptr) return std::nullopt;
  sqlite3_reset(insertRefused_);
  bindText(insertRefused_, 1, receivedAt);
  bindText(insertRefused_, 2, body.substr(0, kRefusedBodyBytes));
  // An empty reason would read as accepted.
  bindText(insertRefused_, 3, reason.empty() ? std::string_view("refused") : reason);
  bindText(insertRefused_, 4, path);
  if (sqlite3_step(insertRefused_) != SQLITE_DONE) return std::nullopt;
  const std::int64_t id = sqlite3_last_insert_rowid(db_);
  sqlite3_reset(pruneRefused_);
  sqlite3_bind_int(pruneRefused_, 1, kRefusedKept - 1);
  sqlite3_step(pruneRefused_);
  return id;
}

std::vector<StoredEvent> EventStore::list(const EventQuery& query) {
  std::vector<StoredEvent> events;
  std::lock_guard lock(mutex_);
  if (db_ == nullptr) return events;
  const Filter filter = filterOf(query, true);
  const std::string sql = std::string("SELECT ") + kColumns + " FROM events" + filter.sql +
                          (query.oldestFirst ? " ORDER BY id ASC" : " ORDER BY id DESC") +
                          " LIMIT ?";
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) return events;
  sqlite3_bind_int(statement, filter.bind(statement), query.limit);
  while (sqlite3_step(statement) == SQLITE_ROW) {
    StoredEvent event;
    event.id = sqlite3_column_int64(statement, 0);
    event.receivedAt = columnText(statement, 1);
    event.actionType = columnText(statement, 2);
    event.actionName = columnText(statement, 3);
    event.actionKind = columnText(statement, 4);
    event.page = columnText(statement, 5);
    event.xid = ZXid{columnText(statement, 6), columnText(statement, 7), columnText(statement, 8)};
    event.userId = columnText(statement, 9);
    event.json = columnText(statement, 10);
    event.refusal = columnText(statement, 11);
    event.refusalPath = columnText(statement, 12);
    events.push_back(std::move(event));
  }
  sqlite3_finalize(statement);
  return events;
}

EventStats EventStore::stats(const EventQuery& query, const std::string& sinceMinute) {
  EventStats stats;
  std::lock_guard lock(mutex_);
  if (db_ == nullptr) return stats;
  const Filter filter = filterOf(query, false);
  const auto each = [&](const std::string& sql, const Filter& where, auto&& onRow) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) return;
    where.bind(statement);
    while (sqlite3_step(statement) == SQLITE_ROW) onRow(statement);
    sqlite3_finalize(statement);
  };
  // Grouped by the refusal text itself (not by whether there is one) so that the (refusal, type)
  // index answers without a sort; refused rows are summed here.
  each("SELECT refusal, action_type, COUNT(*) FROM events" + filter.sql +
           " GROUP BY refusal, action_type",
       filter, [&](sqlite3_stmt* row) {
         const std::int64_t n = sqlite3_column_int64(row, 2);
         stats.total += n;
         if (sqlite3_column_bytes(row, 0) > 0) {
           stats.refused += n;
         } else {
           stats.byType.push_back({columnText(row, 1), n});
         }
       });
  std::stable_sort(stats.byType.begin(), stats.byType.end(),
                   [](const TypeCount& a, const TypeCount& b) { return a.count > b.count; });
  Filter recent = filter;
  // The same expression as the per-minute index, so that the index is used; for times of this
  // fixed format it means received_at >= sinceMinute.
  recent.add("substr(received_at, 1, 16) >= ?", sinceMinute);
  each("SELECT substr(received_at, 1, 16), refusal, action_type, COUNT(*) FROM events" +
           recent.sql + " GROUP BY substr(received_at, 1, 16), refusal, action_type",
       recent, [&](sqlite3_stmt* row) {
         MinuteCount count{columnText(row, 0), columnText(row, 2), sqlite3_column_bytes(row, 1) > 0,
                           sqlite3_column_int64(row, 3)};
         if (count.refused) count.actionType.clear();
         // Refused rows of one minute differ by reason only; they are one bar segment.
         if (count.refused && !stats.byMinute.empty() && stats.byMinute.back().refused &&
             stats.byMinute.back().minute == count.minute) {
           stats.byMinute.back().count += count.count;
         } else {
           stats.byMinute.push_back(std::move(count));
         }
       });
  // Without an index (a filter picked another) SQLite may group in any order.
  std::stable_sort(stats.byMinute.begin(), stats.byMinute.end(),
                   [](const MinuteCount& a, const MinuteCount& b) { return a.minute < b.minute; });
  return stats;
}

std::int64_t EventStore::count() {
  std::lock_guard lock(mutex_);
  sqlite3_stmt* statement = nullptr;
  std::int64_t n = 0;
  if (sqlite3_prepare_v2(db_, "SELECT COUNT(*) FROM events WHERE refusal = ''", -1, &statement,
                         nullptr) == SQLITE_OK &&
      sqlite3_step(statement) == SQLITE_ROW) {
    n = sqlite3_column_int64(statement, 0);
  }
  sqlite3_finalize(statement);
  return n;
}

}  // namespace zelvanor::collector
