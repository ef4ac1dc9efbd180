// The local collector as a client sees it: identity sync with cookies, record storage, the events
// API and the switches that make it misbehave; then its event store on its own.
#define CPPHTTPLIB_OPENSSL_SUPPORT
#include "collector.hpp"

#include <gtest/gtest.h>
#include <httplib.h>
#include <simdjson.h>
#include <sqlite3.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <thread>

#include "support/temp_dir.hpp"
#include "transport/http_client.hpp"
#include "zelvanor/http_result.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor {
namespace {

using collector::Collector;
using collector::RecordStatus;
using network::HttpClient;
using network::HttpOutcome;
using network::HttpRequest;
using network::HttpResponse;
using Headers = std::vector<std::pair<std::string, std::string>>;
constexpr auto npos = std::string::npos;

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

ZLogRecord recordOfType(std::string type, std::string name) {
  ZLogRecord record;
  record.xid = ZXid{"cid-1", "did-1", "sid-1"};
  record.sdk = ZSDK{DeploymentType::production, "0.9.0", "1.2.0"};
  record.action = ZAction(std::move(type), std::move(name), "tap");
  ZPage page;
  page.id = "p1";
  page.name = "home";
  record.page = page;
  return record;
}

class CollectorTest : public ::testing::Test {
 protected:
  void SetUp() override { restart(); }

  // A collector (again) on the same data directory, and a client without cookies.
  void restart() {
    client_.reset();
    collector_.reset();
    collector_ = std::make_unique<Collector>(Collector::Options{.dataDirectory = data()});
    std::string error;
    ASSERT_TRUE(collector_->start(&error)) << error;
    client_ = std::make_unique<HttpClient>(HttpClient::Options{{}, collector_->caFile().string()});
  }
  std::filesystem::path data() const { return dir_.path() / "collector"; }

  HttpOutcome request(std::string method, const std::string& path,
                      std::optional<std::string> body = {}, double timeout = 5.0,
                      Headers headers = {}) {
    std::promise<HttpOutcome> answered;
    auto outcome = answered.get_future();
    client_->send(HttpRequest{std::move(method), collector_->baseUrl() + path, std::move(headers),
                              std::move(body), timeout},
                  [&answered](HttpOutcome o) { answered.set_value(std::move(o)); });
    return outcome.get();
  }

  std::string body(const HttpOutcome& outcome) {
    const auto* response = std::get_if<HttpResponse>(&outcome);
    return response ? response->body : "<transport error>";
  }

  std::string track(const ZLogRecord& record) {
    return body(request("POST", "/sdk/track", *encodeJson(record)));
  }

  // (id, action type) of each listed event, in the order the API gives them.
  using Listed = std::vector<std::pair<std::int64_t, std::string>>;
  Listed listed(const std::string& query) {
    const std::string text = body(request("GET", "/api/events" + query));
    simdjson::dom::parser parser;
    Listed events;
    for (auto event : parser.parse(text)["events"].get_array()) {
      events.emplace_back(int64_t(event["id"]), std::string(std::string_view(event["actionType"])));
    }
    return events;
  }

  testing::TempDir dir_;
  std::unique_ptr<Collector> collector_;
  std::unique_ptr<HttpClient> client_;
};

TEST_F(CollectorTest, SyncIssuesAFreshTripleInTheEnvelopeAndAsCookiesUnlessToldOtherwise) {
  const auto sync = [&] {
    auto envelope = decodeJson<ZHTTPResult<std::vector<ZXid>>>(body(request("GET", "/sync?v=1")));
    return envelope && envelope->data && envelope->data->size() == 1 ? envelope->data->front()
                                                                     : ZXid{};
  };
  const ZXid triple = sync();
  EXPECT_FALSE(triple.cid.empty() || triple.did.empty() || triple.sid.empty());
  std::map<std::string, std::string> cookies;
  for (const auto& c : client_->cookiesFor(collector_->baseUrl() + "/sync?v=1"))
    cookies[c.name] = c.value;
  EXPECT_EQ(cookies, (std::map<std::string, std::string>{
                         {"fa_cid", triple.cid}, {"fa_did", triple.did}, {"fa_sid", triple.sid}}));

  // The client now sends the three cookies back: same identity. A new client gets a new one.
  EXPECT_EQ(sync(), triple);
  client_ = std::make_unique<HttpClient>(HttpClient::Options{{}, collector_->caFile().string()});
  EXPECT_NE(sync().cid, triple.cid);
  EXPECT_EQ(collector_->counters().syncRequests, 3u);
  EXPECT_EQ(collector_->issuedTriples().size(), 3u);

  // A set answer is given as it is, with no cookies.
  client_ = std::make_unique<HttpClient>(HttpClient::Options{{}, collector_->caFile().string()});
  const std::string down = R"({"version":1,"status":{"code":"9999","msg":"down"}})";
  collector_->setSyncAnswer(down);
  EXPECT_EQ(body(request("GET", "/sync?v=1")), down);
  EXPECT_TRUE(client_->cookiesFor(collector_->baseUrl() + "/sync?v=1").empty());
}

// Records are stored as they arrived, listed newest or oldest first with filters and paging, and
// exported whole; a name with a quote, a comma and a line break must survive each of them.
TEST_F(CollectorTest, StoresRecordsThatDecodeAndListsAndExportsThemWithFilters) {
  const ZLogRecord awkward = recordOfType("event", "say \"hi\", then\nleave");
  EXPECT_EQ(track(recordOfType("page_view", "open")), "ok");
  EXPECT_EQ(track(awkward), "ok");
  EXPECT_EQ(track(recordOfType("page_view", "back")), "ok");
  // A record without its action is not a record: the answer says where, and nothing is stored.
  const std::string rejected =
      body(request("POST", "/sdk/track", R"({"xid":{"cid":"a","did":"b","sid":"c"}})"));
  EXPECT_NE(rejected, "ok");
  EXPECT_NE(rejected.find("sdk"), npos) << rejected;
  EXPECT_NE(body(request("POST", "/sdk/track", "{not json")), "ok");

  const auto all = listed("");
  ASSERT_EQ(all.size(), 3u);
  EXPECT_TRUE(all[0].first > all[1].first && all[1].first > all[2].first);
  // Oldest first, pages read forward from `after` reach every event: how the viewer catches up.
  const std::string middle = std::to_string(all[1].first);
  const std::vector<std::pair<std::string, Listed>> pages = {
      {"?type=page_view", {all[0], all[2]}},
      {"?type=event", {all[1]}},
      {"?after=" + middle, {all[0]}},
      {"?limit=1", {all[0]}},
      {"?order=asc&limit=2", {all[2], all[1]}},
      {"?order=asc&limit=2&after=" + middle, {all[0]}},
      {"?order=desc", all}};
  for (const auto& [query, expected] : pages) EXPECT_EQ(listed(query), expected) << query;
  for (const auto& [path, said] : std::vector<std::pair<std::string, std::string>>{
           {"/api/events?after=x", "number"},
           {"/api/events?order=up", "asc or desc"},
           {"/api/events?status=maybe", "status"},
           {"/api/export?format=xml", "ndjson or csv"}}) {
    EXPECT_NE(body(request("GET", path)).find(said), npos) << path;
  }

  // The stored text is the record as it arrived: it decodes back to the same record, in the
  // events API and in the NDJSON export.
  simdjson::dom::parser parser;
  const std::string text = body(request("GET", "/api/events?type=event"));
  EXPECT_EQ(decodeJson<ZLogRecord>(simdjson::minify(parser.parse(text)["events"].at(0)["record"]))
                .value(),
            awkward);
  const std::string ndjson = body(request("GET", "/api/export?format=ndjson&type=event"));
  ASSERT_EQ(std::count(ndjson.begin(), ndjson.end(), '\n'), 1) << ndjson;
  EXPECT_EQ(decodeJson<ZLogRecord>(simdjson::minify(parser.parse(ndjson)["record"])).value(),
            awkward);
  // In CSV the name is quoted, its quotes doubled.
  const std::string csv = body(request("GET", "/api/export?format=csv&type=event"));
  EXPECT_EQ(csv.substr(0, csv.find("\r\n")),
            "id,received_at,status,action_type,action_name,action_kind,page,cid,did,sid,user_id,"
            "refusal,refusal_path,body");
  EXPECT_NE(csv.find(",accepted,event,\"say \"\"hi\"\", then\nleave\",tap,home,"), npos) << csv;

  const auto counters = collector_->counters();
  EXPECT_EQ(counters.trackRequests, 5u);
  EXPECT_EQ(counters.storedRecords, 3u);
  EXPECT_EQ(counters.rejectedRecords, 2u);
}

// An answer stops growing at 32 MiB; one cut there says so, or a reader that pages by the count
// it asked for would take the short page for the oldest and never ask for the rest.
TEST_F(CollectorTest, AnEventsAnswerCutBySizeSaysItWasCut) {
  // 12 MiB of whitespace in each of three records: the first two fit, the third does not.
  const std::string padding(12u << 20, ' ');
  for (const char* name : {"first", "second", "third"}) {
    const std::string json = *encodeJson(recordOfType("event", name)) + padding;
    ASSERT_EQ(body(request("POST", "/sdk/track", json, 20.0)), "ok");
  }
  // The SDK's client keeps a megabyte of an answer at most: read these with cpp-httplib.
  httplib::SSLClient reader("127.0.0.1", collector_->port());
  reader.set_ca_cert_path(collector_->caFile().c_str());
  reader.set_read_timeout(20);
  simdjson::dom::parser parser;
  const auto page = [&](const std::string& query) {
    const auto answered = reader.Get("/api/events" + query);
    auto answer = parser.parse(answered ? answered->body : "");
    std::vector<std::string> names;
    for (auto event : answer["events"].get_array()) {
      names.emplace_back(std::string_view(event["record"]["action"]["name"]));
    }
    bool cut = false;
    EXPECT_EQ(answer["truncated"].get(cut), simdjson::SUCCESS) << query;
    return std::pair{names, cut};
  };
  using Page = std::pair<std::vector<std::string>, bool>;
  EXPECT_EQ(page("?limit=3"), (Page{{"third", "second"}, true}));
  EXPECT_EQ(page("?limit=2"), (Page{{"third", "second"}, false}));
  EXPECT_EQ(page("?order=asc&limit=5"), (Page{{"first", "second"}, true}));
  const auto newest = collector_->events({.limit = 1}).at(0).id;
  EXPECT_EQ(page("?limit=3&before=" + std::to_string(newest)), (Page{{"second", "first"}, false}));
}

TEST_F(CollectorTest, SwitchesAnswerAnotherBodyDropConnectionsOrDelay) {
  collector_->setTrackAnswer("maintenance");
  EXPECT_EQ(track(recordOfType("event", "a")), "maintenance");
  collector_->setTrackAnswer(std::nullopt);

  collector_->setDropConnections(true);
  EXPECT_TRUE(std::holds_alternative<network::TransportError>(request("POST", "/sdk/track", "{}")));
  EXPECT_TRUE(std::holds_alternative<network::TransportError>(request("GET", "/sync?v=1")));
  collector_->setDropConnections(false);

  collector_->setDelay(std::chrono::milliseconds(1500));
  EXPECT_TRUE(std::holds_alternative<network::TransportError>(
      request("POST", "/sdk/track", *encodeJson(recordOfType("event", "b")), 0.3)));
  collector_->setDelay(std::chrono::milliseconds(0));

  EXPECT_EQ(track(recordOfType("event", "c")), "ok");
  // The delayed "b" may still have been stored after the client gave up; "a" never is.
  std::vector<std::string> stored;
  for (const auto& event : collector_->events()) stored.push_back(event.actionName);
  std::erase(stored, "b");
  EXPECT_EQ(stored, std::vector<std::string>{"c"});
}

// A restart keeps the certificate and the events; the key, the directory it made and the
// database (even one left readable by others) are the owner's alone. A certificate cut short (a
// crash while it was written) is made anew, not a start that fails.
TEST_F(CollectorTest, ARestartKeepsItsCertificateAndItsEventsPrivately) {
  EXPECT_EQ(track(recordOfType("event", "kept")), "ok");
  const std::string certificate = readFile(collector_->caFile());
  const auto mode = [](const std::filesystem::path& path) {
    return static_cast<int>(std::filesystem::status(path).permissions() &
                            std::filesystem::perms::mask);
  };
  collector_.reset();
  const std::vector<std::string> database = {"events.sqlite", "events.sqlite-wal",
                                             "events.sqlite-shm"};
  for (const auto& name : database) {
    if (std::filesystem::exists(data() / name)) {
      std::filesystem::permissions(data() / name, std::filesystem::perms(0644));
    }
  }
  restart();
  EXPECT_EQ(readFile(collector_->caFile()), certificate);
  EXPECT_EQ(track(recordOfType("event", "tap")), "ok");
  EXPECT_EQ(listed("").size(), 2u);
  EXPECT_EQ(mode(data() / "key.pem"), 0600);
  EXPECT_EQ(mode(data()), 0700);
  for (const auto& name : database) EXPECT_EQ(mode(data() / name), 0600) << name;

  collector_.reset();
  std::ofstream(data() / "cert.pem", std::ios::trunc) << "-----BEGIN";
  restart();
  EXPECT_NE(readFile(collector_->caFile()), certificate);
  EXPECT_EQ(listed("").size(), 2u);
}

// Refused bodies are kept with their reason (what the viewer shows for records that never showed
// up), except posts from another site's page; compressed and oversized ones are refused unread.
TEST_F(CollectorTest, RefusedBodiesAreKeptWithTheirReasonAndForeignOriginsAreNotKept) {
  const std::string good = *encodeJson(recordOfType("event", "tap"));
  std::string noKind = good;
  noKind.replace(noKind.find(R"(,"kind":"tap")"), 13, "");
  struct Case {
    std::string path;
    Headers headers;
    std::string body;
    int status;
    std::pair<std::string, std::string> kept;  // the refusal's reason and path, if one is kept
  };
  const std::string self = "https://127.0.0.1:" + std::to_string(collector_->port());
  const std::vector<Case> cases = {
      {"/sdk/track", {}, noKind, 400, {"key not found", "action.kind"}},
      {"/sdk/track",
       {{"Origin", "https://shop.example"}, {"Content-Type", "text/plain"}},
       good,
       403,
       {}},
      {"/sdk/track", {{"Origin", "null"}}, good, 403, {}},
      {"/sdk/track", {{"Origin", self}}, good, 200, {}},
      // The refusals closed their connections: the client's next request is not spoiled.
      {"/sdk/track", {}, good, 200, {}},
      {"/sdk/track", {{"Content-Encoding", "gzip"}}, good, 415, {"compressed body (gzip)", "$"}},
      // 17 MiB of whitespace around a valid record: a reader without a limit would store it.
      {"/sdk/track", {}, std::string(17u << 20, ' ') + good, 413, {"body over 16 MiB", "$"}},
      // Only track requests count: a compressed request elsewhere is refused and not kept.
      {"/sync?v=1", {{"Content-Encoding", "gzip"}}, good, 415, {}},
  };
  std::vector<std::pair<std::string, std::string>> kept;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body.substr(0, 80) + " " + ::testing::PrintToString(c.headers));
    const HttpOutcome answer = request("POST", c.path, c.body, 20.0, c.headers);
    const auto* response = std::get_if<HttpResponse>(&answer);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, c.status);
    if (!c.kept.first.empty()) kept.insert(kept.begin(), c.kept);
  }
  EXPECT_EQ(listed("").size(), 2u);  // accepted only, unless asked
  const std::string text = body(request("GET", "/api/events?status=refused"));
  simdjson::dom::parser parser;
  std::vector<std::pair<std::string, std::string>> refused;
  for (auto event : parser.parse(text)["events"].get_array()) {
    refused.emplace_back(std::string_view(event["refused"]["reason"]),
                         std::string_view(event["refused"]["path"]));
    // The body as it came, or none when it was never read.
    EXPECT_EQ(std::string_view(event["body"]), refused.back().second == "$" ? "" : noKind);
  }
  EXPECT_EQ(refused, kept) << text;
  EXPECT_EQ(collector_->counters().rejectedRecords, 3u);
  EXPECT_EQ(listed("?status=all").size(), 5u);
}

// The store on its own: what the viewer's filters, paging and counts rest on.
class EventStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(store_.open(dir_.path() / "events.sqlite", error)) << error;
  }

  std::vector<std::string> names(const collector::EventQuery& query) {
    std::vector<std::string> out;
    for (const auto& e : store_.list(query))
      out.push_back(e.refused() ? "!" + e.refusal : e.actionName);
    return out;
  }

  testing::TempDir dir_;
  collector::EventStore store_;
};

TEST_F(EventStoreTest, FiltersByEachFieldAndTextAndPagesBothWays) {
  ZLogRecord a = recordOfType("page_view", "home");
  ZLogRecord b = recordOfType("event", "50%_off");
  b.xid = ZXid{"cid-2", "did-2", "sid-2"};
  b.id = ZId{};
  b.id->appUserId = "Shopper-7";
  ZLogRecord c = recordOfType("event", "tap");
  c.page->name = "cart";
  for (const auto* r : {&a, &b, &c}) ASSERT_TRUE(store_.add(*r, *encodeJson(*r)));
  ASSERT_TRUE(store_.addRefused("{", "data corrupted", "$"));
  const auto all = store_.list({.status = RecordStatus::all});
  ASSERT_EQ(all.size(), 4u);

  using Q = collector::EventQuery;
  using Names = std::vector<std::string>;
  // Each exact filter alone is checked through the viewer (tests/browser); here, with others.
  // Text: any part of the body, letters without case; % and _ are themselves, not wildcards.
  // Paging back from the oldest row shown, and forward from the newest.
  const std::vector<std::pair<Q, Names>> cases = {
      {Q{}, {"tap", "50%_off", "home"}},
      {Q{.oldestFirst = true, .sid = "sid-1"}, {"home", "tap"}},
      {Q{.actionType = "event", .actionKind = "tap"}, {"tap", "50%_off"}},
      {Q{.text = "shopper-7"}, {"50%_off"}},
      {Q{.text = "0%_"}, {"50%_off"}},
      {Q{.text = "h_me"}, {}},
      {Q{.status = RecordStatus::refused}, {"!data corrupted"}},
      {Q{.limit = 1, .beforeId = all[1].id}, {"50%_off"}},
      {Q{.afterId = all[2].id, .beforeId = all[0].id}, {"tap"}},
  };
  for (std::size_t i = 0; i < cases.size(); ++i)
    EXPECT_EQ(names(cases[i].first), cases[i].second) << i;
}

TEST_F(EventStoreTest, KeepsTheNewestRefusedBodiesOnlyAndCountsByTypeAndMinute) {
  constexpr int kKept = collector::EventStore::kRefusedKept;
  for (int i = 0; i < kKept + 5; ++i) {
    ASSERT_TRUE(store_.addRefused("body " + std::to_string(i), i % 2 ? "odd" : "even", "$"));
  }
  const auto refused = store_.list({.limit = 5000, .status = RecordStatus::refused});
  ASSERT_EQ(refused.size(), static_cast<std::size_t>(kKept));
  EXPECT_EQ(refused.front().json, "body " + std::to_string(kKept + 4));
  EXPECT_EQ(refused.back().json, "body 5");
  // A long body is cut, not refused storage.
  ASSERT_TRUE(store_.addRefused(std::string(1u << 20, 'x'), "too long", "$"));
  EXPECT_EQ(store_.list({.limit = 1, .status = RecordStatus::refused}).front().json.size(),
            collector::EventStore::kRefusedBodyBytes);

  const auto now = std::chrono::system_clock::now();
  std::vector<collector::ReceivedRecord> batch;
  for (const auto& [minutesAgo, type] : std::vector<std::pair<int, std::string>>{
           {0, "event"}, {0, "event"}, {0, "app"}, {5, "event"}, {90, "event"}}) {
    ZLogRecord r = recordOfType(type, "n");
    batch.push_back({collector::EventStore::utcText(now - std::chrono::minutes(minutesAgo)), r,
                     *encodeJson(r)});
  }
  ASSERT_TRUE(store_.addMany(batch));
  const std::string since =
      collector::EventStore::utcText(now - std::chrono::minutes(59)).substr(0, 16);
  const auto stats = store_.stats({.status = RecordStatus::all}, since);
  EXPECT_EQ(stats.total, 5 + kKept);
  EXPECT_EQ(stats.refused, kKept);
  ASSERT_EQ(stats.byType.size(), 2u);
  EXPECT_EQ(stats.byType[0].actionType, "event");
  EXPECT_EQ(stats.byType[0].count, 4);
  // The event 90 minutes back is before the window; the refused ones (all this minute) are one
  // segment whatever their reasons (two if the minute turned while they were written).
  std::int64_t events = 0, refusedNow = 0, segments = 0;
  for (const auto& m : stats.byMinute) {
    (m.refused ? refusedNow : events) += m.count;
    segments += m.refused ? 1 : 0;
  }
  EXPECT_EQ(std::pair(events, refusedNow), std::pair(std::int64_t{4}, std::int64_t{kKept}));
  EXPECT_LE(segments, 2);
  EXPECT_EQ(store_.stats({.actionType = "app"}, since).total, 1);
}

// Ids give the order records were stored in; the viewer reads time gaps between neighbours, so
// a later id must never carry an earlier time, however many clients post at once.
TEST_F(EventStoreTest, ReceiveTimesNeverFallAsIdsRiseUnderConcurrentWriters) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 400;
  const ZLogRecord record = recordOfType("event", "tap");
  const std::string json = *encodeJson(record);
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      // Refused ones take the same path to a time and an id; a few of them mixed in.
      for (int i = 0; i < kPerThread; ++i) {
        if ((i + t) % 10 == 0) {
          store_.addRefused("{", "data corrupted", "$");
        } else {
          store_.add(record, json);
        }
      }
    });
  }
  for (auto& writer : writers) writer.join();
  const auto stored =
      store_.list({.limit = 5000, .oldestFirst = true, .status = RecordStatus::all});
  ASSERT_EQ(stored.size(), static_cast<std::size_t>(kThreads * kPerThread));
  const auto fall =
      std::adjacent_find(stored.begin(), stored.end(),
                         [](const auto& a, const auto& b) { return b.receivedAt < a.receivedAt; });
  EXPECT_TRUE(fall == stored.end()) << "id " << (fall + 1)->id << " at " << (fall + 1)->receivedAt
                                    << " after id " << fall->id << " at " << fall->receivedAt;
}

TEST_F(EventStoreTest, AStoreFromAnEarlierCollectorGainsTheNewColumns) {
  const auto file = dir_.path() / "old.sqlite";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  const std::string schema =
      readFile(std::filesystem::path(ZELVANOR_TEST_DATA_DIR) / "collector" / "events_v1.sql");
  ASSERT_EQ(sqlite3_exec(db, schema.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  collector::EventStore old;
  std::string error;
  ASSERT_TRUE(old.open(file, error)) << error;
  const auto events = old.list({});
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].actionName, "old");
  EXPECT_FALSE(events[0].refused());
  ASSERT_TRUE(old.add(recordOfType("event", "new"), "{}"));
  EXPECT_EQ(old.count(), 2);
}

}  // namespace
}  // namespace zelvanor
