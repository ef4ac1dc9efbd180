// The local collector as a client sees it: identity sync with cookies, record storage, the events
// API and the switches that make it misbehave; then its event store on its own (what the viewer's
// counts rest on).
#define CPPHTTPLIB_OPENSSL_SUPPORT
#include "collector.hpp"

#include <gtest/gtest.h>
#include <httplib.h>
#include <simdjson.h>
#include <sqlite3.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <map>
#include <sstream>
#include <thread>

#include "support/data_table.hpp"
#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"
#include "transport/http_client.hpp"
#include "zelvanor/http_result.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor {
namespace {

namespace fs = std::filesystem;
using collector::RecordStatus;
using Headers = std::vector<std::pair<std::string, std::string>>;
constexpr auto npos = std::string::npos;

int mode(const fs::path& path) {  // an int, so that a failure shows the number
  return static_cast<int>(fs::status(path).permissions() & fs::perms::mask);
}

ZLogRecord recordOfType(std::string type, std::string name) {
  return {.xid = ZXid{"cid-1", "did-1", "sid-1"},
          .sdk = ZSDK{DeploymentType::production, "0.9.0", "1.2.0"},
          .action = ZAction(std::move(type), std::move(name), "tap"),
          .page = ZPage{.id = "p1", .name = "home"}};
}

class CollectorTest : public ::testing::Test {
 protected:
  void SetUp() override { restart(); }

  // A collector (again) on the same data directory, and a client without cookies.
  void restart() {
    stop();
    collector_ = std::make_unique<collector::Collector>(
        collector::Collector::Options{.dataDirectory = data()});
    std::string error;
    ASSERT_TRUE(collector_->start(&error)) << error;
    newClient();
  }
  // The client first: a connection it keeps alive would hold the server's stop for seconds.
  void stop() {
    client_.reset();
    collector_.reset();
  }
  void newClient() {
    client_ = std::make_unique<network::HttpClient>(
        network::HttpClient::Options{{}, collector_->caFile().string()});
  }
  fs::path data() const { return dir_.path() / "collector"; }

  // The answer's status and body through the SDK's own client; status 0 when the transport failed.
  std::pair<long, std::string> send(std::string method, const std::string& path,
                                    std::optional<std::string> body = {}, double timeout = 20.0,
                                    Headers headers = {}) {
    std::promise<network::HttpOutcome> answered;
    auto outcome = answered.get_future();
    client_->send(network::HttpRequest{std::move(method), collector_->baseUrl() + path,
                                       std::move(headers), std::move(body), timeout},
                  [&answered](network::HttpOutcome o) { answered.set_value(std::move(o)); });
    const auto done = outcome.get();
    const auto* response = std::get_if<network::HttpResponse>(&done);
    return response ? std::pair(response->status, response->body) : std::pair(0L, std::string());
  }
  std::string get(const std::string& path) { return send("GET", path).second; }
  std::string track(const ZLogRecord& record) {
    return send("POST", "/sdk/track", *encodeJson(record)).second;
  }

  // The ids of the events an events API request lists, in its order.
  std::vector<std::int64_t> listed(const std::string& path) {
    const std::string text = get(path);
    std::vector<std::int64_t> ids;
    for (auto event : parser_.parse(text)["events"].get_array()) ids.push_back(event["id"]);
    return ids;
  }

  testing::TempDir dir_;
  std::unique_ptr<collector::Collector> collector_;
  std::unique_ptr<network::HttpClient> client_;
  simdjson::dom::parser parser_;  // each answer read before the next is parsed
};

// One collector walked through what a client, the viewer and its owner do to it, each step checked.
TEST_F(CollectorTest, SyncsStoresRefusesListsCutsAndRestarts) {
  // Identity sync issues a triple, also as three cookies; a client that sends them back keeps its
  // identity, a new client gets a new one. A set answer is given as it is, with no cookies.
  const auto sync = [&] {
    auto envelope = decodeJson<ZHTTPResult<std::vector<ZXid>>>(get("/sync?v=1"));
    return envelope && envelope->data && envelope->data->size() == 1 ? envelope->data->front()
                                                                     : ZXid{};
  };
  const ZXid triple = sync();
  std::map<std::string, std::string> cookies;
  for (const auto& c : client_->cookiesFor(collector_->baseUrl() + "/sync?v=1"))
    cookies[c.name] = c.value;
  EXPECT_EQ(cookies, (std::map<std::string, std::string>{
                         {"fa_cid", triple.cid}, {"fa_did", triple.did}, {"fa_sid", triple.sid}}));
  EXPECT_EQ(sync(), triple);
  newClient();
  EXPECT_NE(sync().cid, triple.cid);
  EXPECT_EQ(std::pair(collector_->counters().syncRequests, collector_->issuedTriples().size()),
            std::pair(std::uint64_t{3}, std::size_t{3}));
  newClient();
  const std::string down = R"({"version":1,"status":{"code":"9999","msg":"down"}})";
  collector_->setSyncAnswer(down);
  EXPECT_EQ(get("/sync?v=1"), down);
  EXPECT_TRUE(client_->cookiesFor(collector_->baseUrl() + "/sync?v=1").empty());

  // Records are stored as they arrived and listed by the queries of the table
  // (tests/data/collector): by each filter and text, paged both ways, oldest first; and exported
  // whole (in CSV too). A name with a quote, a comma and a line break must survive each of them.
  ZLogRecord a = recordOfType("page_view", "home");
  ZLogRecord b = recordOfType("event", "50%_off");
  b.xid = ZXid{"cid-2", "did-2", "sid-2"};
  b.id = ZId{.appUserId = "Shopper-7"};
  ZLogRecord c = recordOfType("event", "tap");
  c.page->name = "cart";
  ZLogRecord awkward = recordOfType("event", "say \"hi\", then\nleave");
  awkward.page->name = "odd";
  for (const auto* r : {&a, &b, &c}) ASSERT_EQ(track(*r), "ok");
  ASSERT_EQ(send("POST", "/sdk/track", "{").first, 400);
  ASSERT_EQ(track(awkward), "ok");
  const auto all = listed("/api/events?status=all");
  ASSERT_EQ(all.size(), 5u);
  for (const auto& row : testing::dataTable("collector/queries.txt")) {
    std::string path = "/api/" + row.at(0);
    for (auto at = path.find('$'); at != npos; at = path.find('$'))
      path.replace(at, 2, std::to_string(all.at(path.at(at + 1) - '0')));
    if (row.at(1).starts_with("!")) {
      EXPECT_NE(get(path).find(row[1].substr(1)), npos) << path;
      continue;
    }
    std::vector<std::int64_t> expected;
    std::istringstream positions(row[1]);
    for (std::size_t i = 0; positions >> i;) expected.push_back(all.at(i));
    EXPECT_EQ(listed(path), expected) << path;
  }
  // The stored text is the record as it arrived, in the events API and in the NDJSON export.
  const std::string posted = *encodeJson(awkward);
  EXPECT_NE(get("/api/events?page=odd").find(",\"record\":" + posted + "}"), npos);
  const std::string ndjson = get("/api/export?format=ndjson&page=odd");
  EXPECT_EQ(std::count(ndjson.begin(), ndjson.end(), '\n'), 1) << ndjson;
  EXPECT_NE(ndjson.find(posted), npos) << ndjson;

  // Each request of the table (tests/data/collector) gets its answer, under the switch it names
  // if any; refused bodies are kept with their reason (what the viewer shows for records that
  // never showed up) unless the table says not. The four records and the refusal above count.
  const std::string good = *encodeJson(recordOfType("event", "tap"));
  std::string noKind = good;
  noKind.replace(noKind.find(R"(,"kind":"tap")"), 13, "");
  const std::map<std::string, std::string> bodies = {{"good", good},
                                                     {"noKind", noKind},
                                                     {"big", std::string(1u << 20, 'x')},
                                                     {"huge", std::string(17u << 20, ' ') + good}};
  const std::string self = "https://127.0.0.1:" + std::to_string(collector_->port());
  std::vector<std::tuple<std::string, std::string, std::string>> kept = {
      {"data corrupted", "$", "{"}};  // reason, path, body
  std::size_t accepted = 4;
  for (auto row : testing::dataTable("collector/track_requests.txt")) {
    SCOPED_TRACE(row.at(0) + " " + row.at(1) + " " + row.at(2));
    row.resize(7);
    Headers headers;
    if (const auto colon = row[1].find(": "); colon != npos) {
      headers.emplace_back(row[1].substr(0, colon), row[1].substr(colon + 2));
      if (headers.back().second == "$SELF") headers.back().second = self;
    }
    collector_->setTrackAnswer(row[1] == "@answer" ? std::optional<std::string>("maintenance")
                                                   : std::nullopt);
    collector_->setDropConnections(row[1] == "@drop");
    collector_->setDelay(std::chrono::milliseconds(row[1] == "@delay" ? 1500 : 0));
    const std::string body = bodies.contains(row[2]) ? bodies.at(row[2]) : row[2];
    const auto [status, answer] = send(body.empty() ? "GET" : "POST", row[0],
                                       body.empty() ? std::nullopt : std::optional(body),
                                       row[1] == "@delay" ? 0.3 : 20.0, headers);
    EXPECT_EQ(status, std::stoi(row.at(3)));
    EXPECT_NE(answer.find(row.at(4)), npos) << answer;
    accepted += answer == "ok" ? 1 : 0;
    // The body as it came, or none when it was never read.
    if (!row[5].empty())
      kept.emplace(kept.begin(), row[5], row[6],
                   status >= 413 ? "" : body.substr(0, collector::EventStore::kRefusedBodyBytes));
  }
  collector_->setDelay(std::chrono::milliseconds(0));
  EXPECT_EQ(listed("/api/events").size(), accepted);  // accepted only, unless asked
  const std::string text = get("/api/events?status=refused");
  decltype(kept) refused;
  for (auto event : parser_.parse(text)["events"].get_array())
    refused.emplace_back(std::string_view(event["refused"]["reason"]),
                         std::string_view(event["refused"]["path"]),
                         std::string_view(event["body"]));
  EXPECT_EQ(refused, kept);
  const auto counters = collector_->counters();
  EXPECT_EQ(std::tuple(counters.storedRecords, counters.rejectedRecords, counters.fixedAnswers),
            (std::tuple<std::uint64_t, std::uint64_t, std::uint64_t>(accepted, kept.size(), 1)));

  // A restart keeps the certificate and the events; the key, the directory it made and the
  // database (even one left readable by others) are the owner's alone. A certificate cut short (a
  // crash while it was written) is made anew, not a start that fails. A database an earlier
  // collector made gains the columns it lacks.
  const std::string certificate = testing::slurp(collector_->caFile());
  const std::vector<std::string> database = {"events.sqlite", "events.sqlite-wal",
                                             "events.sqlite-shm"};
  for (const auto& name : database)
    if (fs::exists(data() / name)) fs::permissions(data() / name, fs::perms(0644));
  restart();
  EXPECT_EQ(testing::slurp(collector_->caFile()), certificate);
  EXPECT_EQ(track(recordOfType("event", "tap")), "ok");
  EXPECT_EQ(listed("/api/events").size(), accepted + 1);
  EXPECT_EQ(std::pair(mode(data() / "key.pem"), mode(data())), std::pair(0600, 0700));
  for (const auto& name : database) EXPECT_EQ(mode(data() / name), 0600) << name;

  std::ofstream(data() / "cert.pem", std::ios::trunc) << "-----BEGIN";
  restart();
  EXPECT_NE(testing::slurp(collector_->caFile()), certificate);
  EXPECT_EQ(listed("/api/events").size(), accepted + 1);

  stop();
  for (const auto& name : database) fs::remove(data() / name);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((data() / database[0]).c_str(), &db), SQLITE_OK);
  const auto schema = testing::dataText("collector/events_v1.sql");
  ASSERT_EQ(sqlite3_exec(db, schema.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  restart();
  EXPECT_EQ(track(recordOfType("event", "new")), "ok");
  std::vector<std::string> names;
  for (const auto& e : collector_->events({.status = RecordStatus::all}))
    names.push_back(e.actionName + (e.refused() ? "!" : ""));
  EXPECT_EQ(names, (std::vector<std::string>{"new", "old"}));

  // An answer stops growing at 32 MiB; one cut there says so, or a reader that pages by the count
  // it asked for would take the short page for the oldest and never ask for the rest. 12 MiB of
  // whitespace in each of three records on page "big": the first two fit, the third does not.
  const std::string padding(12u << 20, ' ');
  for (const char* name : {"first", "second", "third"}) {
    ZLogRecord record = recordOfType("event", name);
    record.page->name = "big";
    ASSERT_EQ(send("POST", "/sdk/track", *encodeJson(record) + padding).second, "ok");
  }
  // The SDK's client keeps a megabyte of an answer at most: read these with cpp-httplib.
  httplib::SSLClient reader("127.0.0.1", collector_->port());
  reader.set_ca_cert_path(collector_->caFile().c_str());
  reader.set_read_timeout(20);
  using Page = std::pair<std::vector<std::string>, bool>;
  const auto page = [&](const std::string& query) {
    const auto answered = reader.Get("/api/events?page=big" + query);
    auto answer = parser_.parse(answered ? answered->body : "");
    Page names;
    for (auto event : answer["events"].get_array())
      names.first.emplace_back(std::string_view(event["record"]["action"]["name"]));
    EXPECT_EQ(answer["truncated"].get(names.second), simdjson::SUCCESS) << query;
    return names;
  };
  EXPECT_EQ(page("&limit=3"), (Page{{"third", "second"}, true}));
  EXPECT_EQ(page("&limit=2"), (Page{{"third", "second"}, false}));
  EXPECT_EQ(page("&order=asc&limit=5"), (Page{{"first", "second"}, true}));
  const auto newest = collector_->events({.limit = 1}).at(0).id;
  EXPECT_EQ(page("&limit=3&before=" + std::to_string(newest)), (Page{{"second", "first"}, false}));
}

// Ids give the order records were stored in; the viewer reads time gaps between neighbours, so a
// later id must never carry an earlier time, however many clients post at once. Of the bodies
// refused meanwhile only the newest are kept, whatever their reasons; the counts by type and by
// minute see what is left.
TEST(EventStoreTest, TimesRiseWithIdsUnderConcurrentWritersAndOnlyTheNewestRefusalsAreKept) {
  testing::TempDir dir;
  collector::EventStore store;
  std::string error;
  ASSERT_TRUE(store.open(dir.path() / "events.sqlite", error)) << error;
  constexpr int kThreads = 8, kPerThread = 400, kKept = collector::EventStore::kRefusedKept;
  const ZLogRecord record = recordOfType("event", "tap");
  const std::string json = *encodeJson(record);
  constexpr std::int64_t accepted = kThreads * kPerThread * 6 / 10;
  std::vector<std::vector<std::int64_t>> refusedIds(kThreads);  // 1280 in all
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        if ((i + t) % 10 >= 4)
          store.add(record, json);
        else
          refusedIds[t].push_back(store.addRefused("{", t % 2 ? "odd" : "even", "$").value_or(0));
      }
    });
  }
  for (auto& writer : writers) writer.join();
  const auto stored = store.list({.limit = 5000, .oldestFirst = true, .status = RecordStatus::all});
  ASSERT_EQ(std::pair(stored.size(), store.count()),
            std::pair(std::size_t(accepted + kKept), accepted));
  EXPECT_TRUE(std::ranges::is_sorted(stored, {}, &collector::StoredEvent::receivedAt));
  std::vector<std::int64_t> newest, kept;
  for (const auto& ids : refusedIds) newest.insert(newest.end(), ids.begin(), ids.end());
  std::sort(newest.rbegin(), newest.rend());
  newest.resize(kKept);
  for (const auto& e : store.list({.limit = 5000, .status = RecordStatus::refused}))
    kept.push_back(e.id);
  EXPECT_EQ(kept, newest);

  const auto now = std::chrono::system_clock::now();
  std::vector<collector::ReceivedRecord> batch;
  for (const auto& [minutesAgo, type] : std::vector<std::pair<int, std::string>>{
           {0, "event"}, {0, "app"}, {5, "event"}, {90, "event"}}) {
    // The counts read the record's columns; its text may be any.
    batch.push_back({collector::EventStore::utcText(now - std::chrono::minutes(minutesAgo)),
                     recordOfType(type, "n"), json});
  }
  ASSERT_TRUE(store.addMany(batch));
  const std::string since =
      collector::EventStore::utcText(now - std::chrono::minutes(59)).substr(0, 16);
  const auto stats = store.stats({.status = RecordStatus::all}, since);
  std::vector<std::pair<std::string, std::int64_t>> byType;
  for (const auto& t : stats.byType) byType.emplace_back(t.actionType, t.count);
  EXPECT_EQ(std::tuple(stats.total, stats.refused, byType),
            std::tuple(accepted + 4 + kKept, kKept,
                       decltype(byType){{"event", accepted + 3}, {"app", 1}}));
  // The event 90 minutes back is before the window; the refused ones (all this minute) are one
  // segment whatever their reasons (two if the minute turned while they were written).
  std::int64_t events = 0, refusedNow = 0, segments = 0;
  for (const auto& m : stats.byMinute) {
    (m.refused ? refusedNow : events) += m.count;
    segments += m.refused ? 1 : 0;
  }
  EXPECT_EQ(std::pair(events, refusedNow), std::pair(accepted + 3, std::int64_t{kKept}));
  EXPECT_LE(segments, 2);
  EXPECT_EQ(store.stats({.actionType = "app"}, since).total, 1);
}

}  // namespace
}  // namespace zelvanor
