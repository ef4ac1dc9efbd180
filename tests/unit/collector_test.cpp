// The local collector as a client sees it: identity sync with cookies, record storage, the events
// API and the switches that make it misbehave.
#define CPPHTTPLIB_OPENSSL_SUPPORT
#include "collector.hpp"

#include <gtest/gtest.h>
#include <httplib.h>
#include <simdjson.h>
#include <sqlite3.h>

#include <fstream>
#include <future>
#include <map>
#include <sstream>
#include <thread>

#include "support/temp_dir.hpp"
#include "transport/http_client.hpp"
#include "zelvanor/http_result.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor {
namespace {

using collector::Collector;
using network::HttpClient;
using network::HttpOutcome;
using network::HttpRequest;
using network::HttpResponse;

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
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
  void SetUp() override {
    collector_ =
        std::make_unique<Collector>(Collector::Options{.dataDirectory = dir_.path() / "collector"});
    std::string error;
    ASSERT_TRUE(collector_->start(&error)) << error;
    client_ = std::make_unique<HttpClient>(HttpClient::Options{{}, collector_->caFile().string()});
  }

  HttpOutcome request(std::string method, const std::string& path,
                      std::optional<std::string> body = {}, double timeout = 5.0) {
    std::promise<HttpOutcome> answered;
    auto outcome = answered.get_future();
    client_->send(
        HttpRequest{std::move(method), collector_->baseUrl() + path, {}, std::move(body), timeout},
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
  std::vector<std::pair<std::int64_t, std::string>> listed(const std::string& query) {
    const std::string text = body(request("GET", "/api/events" + query));
    simdjson::dom::parser parser;
    std::vector<std::pair<std::int64_t, std::string>> events;
    for (auto event : parser.parse(text)["events"].get_array()) {
      events.emplace_back(int64_t(event["id"]), std::string(std::string_view(event["actionType"])));
    }
    return events;
  }

  testing::TempDir dir_;
  std::unique_ptr<Collector> collector_;
  std::unique_ptr<HttpClient> client_;
};

TEST_F(CollectorTest, SyncIssuesAFreshTripleInTheEnvelopeAndAsCookies) {
  const std::string first = body(request("GET", "/sync?v=1"));
  auto envelope = decodeJson<ZHTTPResult<std::vector<ZXid>>>(first);
  ASSERT_TRUE(envelope) << first;
  ASSERT_TRUE(envelope->data && envelope->data->size() == 1);
  const ZXid triple = envelope->data->front();
  EXPECT_FALSE(triple.cid.empty() || triple.did.empty() || triple.sid.empty());

  std::map<std::string, std::string> cookies;
  for (const auto& c : client_->cookiesFor(collector_->baseUrl() + "/sync?v=1"))
    cookies[c.name] = c.value;
  EXPECT_EQ(cookies, (std::map<std::string, std::string>{
                         {"fa_cid", triple.cid}, {"fa_did", triple.did}, {"fa_sid", triple.sid}}));

  // The client now sends the three cookies back: same identity. A new client gets a new one.
  auto second = decodeJson<ZHTTPResult<std::vector<ZXid>>>(body(request("GET", "/sync?v=1")));
  ASSERT_TRUE(second && second->data);
  EXPECT_EQ(second->data->front(), triple);
  client_ = std::make_unique<HttpClient>(HttpClient::Options{{}, collector_->caFile().string()});
  auto third = decodeJson<ZHTTPResult<std::vector<ZXid>>>(body(request("GET", "/sync?v=1")));
  ASSERT_TRUE(third && third->data);
  EXPECT_NE(third->data->front().cid, triple.cid);
  EXPECT_EQ(collector_->counters().syncRequests, 3u);
  EXPECT_EQ(collector_->issuedTriples().size(), 3u);
}

TEST_F(CollectorTest, StoresRecordsThatDecodeAndListsThemNewestFirstWithFilters) {
  EXPECT_EQ(track(recordOfType("page_view", "open")), "ok");
  EXPECT_EQ(track(recordOfType("event", "tap")), "ok");
  EXPECT_EQ(track(recordOfType("page_view", "back")), "ok");

  // A record without its action is not a record: the answer says where, and nothing is stored.
  const std::string rejected =
      body(request("POST", "/sdk/track", R"({"xid":{"cid":"a","did":"b","sid":"c"}})"));
  EXPECT_NE(rejected, "ok");
  EXPECT_NE(rejected.find("sdk"), std::string::npos) << rejected;
  EXPECT_NE(body(request("POST", "/sdk/track", "{not json")), "ok");

  const auto all = listed("");
  ASSERT_EQ(all.size(), 3u);
  EXPECT_GT(all[0].first, all[1].first);
  EXPECT_GT(all[1].first, all[2].first);
  EXPECT_EQ(listed("?type=page_view").size(), 2u);
  EXPECT_EQ(listed("?type=event").size(), 1u);
  EXPECT_EQ(listed("?after=" + std::to_string(all[1].first)).size(), 1u);
  EXPECT_EQ(listed("?limit=1").front().first, all[0].first);
  EXPECT_NE(body(request("GET", "/api/events?after=x")).find("number"), std::string::npos);
  // Oldest first, pages read forward from `after` reach every event: how the viewer catches up.
  const auto firstPage = listed("?order=asc&limit=2");
  ASSERT_EQ(firstPage.size(), 2u);
  EXPECT_EQ(firstPage[0], all[2]);
  EXPECT_EQ(firstPage[1], all[1]);
  EXPECT_EQ(listed("?order=asc&limit=2&after=" + std::to_string(firstPage[1].first)),
            (std::vector{all[0]}));
  EXPECT_EQ(listed("?order=desc"), all);
  EXPECT_NE(body(request("GET", "/api/events?order=up")).find("asc or desc"), std::string::npos);

  // The stored text is the record as it arrived, and it decodes back to the same record.
  const std::string text = body(request("GET", "/api/events?type=event"));
  simdjson::dom::parser parser;
  const std::string recordJson = simdjson::minify(parser.parse(text)["events"].at(0)["record"]);
  EXPECT_EQ(decodeJson<ZLogRecord>(recordJson).value(), recordOfType("event", "tap"));

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
    ASSERT_EQ(body(request("POST", "/sdk/track", *encodeJson(recordOfType("event", name)) + padding,
                           20.0)),
              "ok");
  }
  // The SDK's client keeps a megabyte of an answer at most: read these with cpp-httplib.
  httplib::SSLClient reader("127.0.0.1", collector_->port());
  reader.set_ca_cert_path(collector_->caFile().c_str());
  reader.set_read_timeout(20);
  simdjson::dom::parser parser;
  const auto page = [&](const std::string& query) {
    const auto answered = reader.Get("/api/events" + query);
    const std::string text = answered ? answered->body : "";
    auto answer = parser.parse(text);
    std::vector<std::string> names;
    for (auto event : answer["events"].get_array()) {
      names.emplace_back(std::string_view(event["record"]["action"]["name"]));
    }
    bool cut = false;
    EXPECT_EQ(answer["truncated"].get(cut), simdjson::SUCCESS) << query;
    return std::pair{names, cut};
  };
  EXPECT_EQ(page("?limit=3"), (std::pair{std::vector<std::string>{"third", "second"}, true}));
  EXPECT_EQ(page("?limit=2"), (std::pair{std::vector<std::string>{"third", "second"}, false}));
  EXPECT_EQ(page("?order=asc&limit=5"),
            (std::pair{std::vector<std::string>{"first", "second"}, true}));
  const auto newest = collector_->events({.limit = 1});
  ASSERT_EQ(newest.size(), 1u);
  EXPECT_EQ(page("?limit=3&before=" + std::to_string(newest[0].id)),
            (std::pair{std::vector<std::string>{"second", "first"}, false}));
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

  collector_->setSyncAnswer(R"({"version":1,"status":{"code":"9999","msg":"down"}})");
  EXPECT_EQ(body(request("GET", "/sync?v=1")),
            R"({"version":1,"status":{"code":"9999","msg":"down"}})");
  EXPECT_TRUE(client_->cookiesFor(collector_->baseUrl() + "/sync?v=1").empty());

  EXPECT_EQ(track(recordOfType("event", "c")), "ok");
  // The delayed "b" may still have been stored after the client gave up; "a" never is.
  std::vector<std::string> stored;
  for (const auto& event : collector_->events()) stored.push_back(event.actionName);
  std::erase(stored, "b");
  EXPECT_EQ(stored, std::vector<std::string>{"c"});
}

// A restart keeps the certificate and the events; the key, the directory it made and the
// database (even one left readable by others) are the owner's alone.
TEST_F(CollectorTest, ARestartKeepsItsCertificateAndItsEventsPrivately) {
  EXPECT_EQ(track(recordOfType("event", "kept")), "ok");
  const std::string certificate = readFile(collector_->caFile());
  client_.reset();
  collector_.reset();
  const auto data = dir_.path() / "collector";
  for (const char* name : {"events.sqlite", "events.sqlite-wal", "events.sqlite-shm"}) {
    if (std::filesystem::exists(data / name))
      std::filesystem::permissions(data / name, std::filesystem::perms(0644));
  }

  collector_ =
      std::make_unique<Collector>(Collector::Options{.dataDirectory = dir_.path() / "collector"});
  ASSERT_TRUE(collector_->start());
  EXPECT_EQ(readFile(collector_->caFile()), certificate);
  client_ = std::make_unique<HttpClient>(HttpClient::Options{{}, collector_->caFile().string()});
  EXPECT_EQ(listed("").size(), 1u);
  EXPECT_EQ(std::filesystem::status(dir_.path() / "collector" / "key.pem").permissions() &
                std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  EXPECT_EQ(std::filesystem::status(dir_.path() / "collector").permissions() &
                std::filesystem::perms::all,
            std::filesystem::perms::owner_all);
  EXPECT_EQ(track(recordOfType("event", "tap")), "ok");
  for (const char* name : {"events.sqlite", "events.sqlite-wal", "events.sqlite-shm"}) {
    ASSERT_TRUE(std::filesystem::exists(data / name)) << name;
    EXPECT_EQ(std::filesystem::status(data / name).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write)
        << name;
  }

  // A certificate cut short (a crash while it was written) is made anew, not a start that fails.
  client_.reset();
  collector_.reset();
  std::ofstream(dir_.path() / "collector" / "cert.pem", std::ios::trunc) << "-----BEGIN";
  collector_ =
      std::make_unique<Collector>(Collector::Options{.dataDirectory = dir_.path() / "collector"});
  std::string error;
  ASSERT_TRUE(collector_->start(&error)) << error;
  EXPECT_NE(readFile(collector_->caFile()), certificate);
  client_ = std::make_unique<HttpClient>(HttpClient::Options{{}, collector_->caFile().string()});
  EXPECT_EQ(listed("").size(), 2u);
}

// Refused bodies are kept with their reason (what the viewer shows for records that never showed
// up), except posts from another site's page; compressed and oversized ones are refused unread.
TEST_F(CollectorTest, RefusedBodiesAreKeptWithTheirReasonAndForeignOriginsAreNotKept) {
  const std::string good = *encodeJson(recordOfType("event", "tap"));
  std::string noKind = good;
  noKind.replace(noKind.find(R"(,"kind":"tap")"), 13, "");
  using Headers = std::vector<std::pair<std::string, std::string>>;
  struct Case {
    std::string path;
    Headers headers;
    std::string body;
    int status;
    const char* reason;  // of the refusal kept, or none kept
    const char* at;
  };
  const std::string self = "https://127.0.0.1:" + std::to_string(collector_->port());
  const std::vector<Case> cases = {
      {"/sdk/track", {}, noKind, 400, "key not found", "action.kind"},
      {"/sdk/track",
       {{"Origin", "https://shop.example"}, {"Content-Type", "text/plain"}},
       good,
       403,
       nullptr,
       nullptr},
      {"/sdk/track", {{"Origin", "null"}}, good, 403, nullptr, nullptr},
      {"/sdk/track", {{"Origin", self}}, good, 200, nullptr, nullptr},
      // The refusals closed their connections: the client's next request is not spoiled.
      {"/sdk/track", {}, good, 200, nullptr, nullptr},
      {"/sdk/track", {{"Content-Encoding", "gzip"}}, good, 415, "compressed body (gzip)", "$"},
      // 17 MiB of whitespace around a valid record: a reader without a limit would store it.
      {"/sdk/track", {}, std::string(17u << 20, ' ') + good, 413, "body over 16 MiB", "$"},
      // Only track requests count: a compressed request elsewhere is refused and not kept.
      {"/sync?v=1", {{"Content-Encoding", "gzip"}}, good, 415, nullptr, nullptr},
  };
  std::vector<std::pair<std::string, std::string>> kept;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body.substr(0, 80) + " " + ::testing::PrintToString(c.headers));
    std::promise<HttpOutcome> answered;
    auto outcome = answered.get_future();
    client_->send(HttpRequest{"POST", collector_->baseUrl() + c.path, c.headers, c.body, 20.0},
                  [&answered](HttpOutcome o) { answered.set_value(std::move(o)); });
    const HttpOutcome answer = outcome.get();
    const auto* response = std::get_if<HttpResponse>(&answer);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, c.status);
    if (c.reason) kept.emplace(kept.begin(), c.reason, c.at);
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
  EXPECT_NE(body(request("GET", "/api/events?status=maybe")).find("status"), std::string::npos);
}

// The viewer test exports a filter in both formats; here, a name that needs quoting.
TEST_F(CollectorTest, ExportsQuoteCsvFieldsAndKeepTheRecordIntact) {
  ZLogRecord awkward = recordOfType("event", "say \"hi\", then\nleave");
  EXPECT_EQ(track(awkward), "ok");
  const std::string ndjson = body(request("GET", "/api/export?format=ndjson&type=event"));
  ASSERT_EQ(std::count(ndjson.begin(), ndjson.end(), '\n'), 1) << ndjson;
  simdjson::dom::parser parser;
  const std::string record = simdjson::minify(parser.parse(ndjson)["record"]);
  EXPECT_EQ(decodeJson<ZLogRecord>(record).value(), awkward);

  const std::string csv = body(request("GET", "/api/export?format=csv&type=event"));
  EXPECT_EQ(csv.substr(0, csv.find("\r\n")),
            "id,received_at,status,action_type,action_name,action_kind,page,cid,did,sid,user_id,"
            "refusal,refusal_path,body");
  // The name holds a quote, a comma and a line break: quoted, its quotes doubled.
  EXPECT_NE(csv.find(",accepted,event,\"say \"\"hi\"\", then\nleave\",tap,home,"),
            std::string::npos)
      << csv;
  EXPECT_NE(body(request("GET", "/api/export?format=xml")).find("ndjson or csv"),
            std::string::npos);
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

  using Q = collector::EventQuery;
  EXPECT_EQ(names(Q{}), (std::vector<std::string>{"tap", "50%_off", "home"}));
  // Each exact filter alone is checked through the viewer (tests/browser); here, with others.
  EXPECT_EQ(names(Q{.oldestFirst = true, .sid = "sid-1"}),
            (std::vector<std::string>{"home", "tap"}));
  EXPECT_EQ(names(Q{.actionType = "event", .actionKind = "tap"}),
            (std::vector<std::string>{"tap", "50%_off"}));
  // Text: any part of the body, letters without case; % and _ are themselves, not wildcards.
  EXPECT_EQ(names(Q{.text = "shopper-7"}), std::vector<std::string>{"50%_off"});
  EXPECT_EQ(names(Q{.text = "0%_"}), std::vector<std::string>{"50%_off"});
  EXPECT_EQ(names(Q{.text = "h_me"}), std::vector<std::string>{});
  EXPECT_EQ(names(Q{.status = collector::RecordStatus::refused}),
            std::vector<std::string>{"!data corrupted"});
  EXPECT_EQ(names(Q{.status = collector::RecordStatus::all}).size(), 4u);
  // Paging back from the oldest row shown, and forward from the newest.
  const auto all = store_.list(Q{.status = collector::RecordStatus::all});
  EXPECT_EQ(names(Q{.limit = 1, .beforeId = all[1].id}), std::vector<std::string>{"50%_off"});
  EXPECT_EQ(names(Q{.afterId = all[2].id, .beforeId = all[0].id}), std::vector<std::string>{"tap"});
}

TEST_F(EventStoreTest, KeepsTheNewestRefusedBodiesOnlyAndCountsByTypeAndMinute) {
  for (int i = 0; i < collector::EventStore::kRefusedKept + 5; ++i) {
    ASSERT_TRUE(store_.addRefused("body " + std::to_string(i), i % 2 ? "odd" : "even", "$"));
  }
  const auto refused = store_.list({.limit = 5000, .status = collector::RecordStatus::refused});
  ASSERT_EQ(refused.size(), static_cast<std::size_t>(collector::EventStore::kRefusedKept));
  EXPECT_EQ(refused.front().json,
            "body " + std::to_string(collector::EventStore::kRefusedKept + 4));
  EXPECT_EQ(refused.back().json, "body 5");
  // A long body is cut, not refused storage.
  ASSERT_TRUE(store_.addRefused(std::string(1u << 20, 'x'), "too long", "$"));
  EXPECT_EQ(
      store_.list({.limit = 1, .status = collector::RecordStatus::refused}).front().json.size(),
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
  const auto stats = store_.stats({.status = collector::RecordStatus::all}, since);
  EXPECT_EQ(stats.total, 5 + collector::EventStore::kRefusedKept);
  EXPECT_EQ(stats.refused, collector::EventStore::kRefusedKept);
  ASSERT_EQ(stats.byType.size(), 2u);
  EXPECT_EQ(stats.byType[0].actionType, "event");
  EXPECT_EQ(stats.byType[0].count, 4);
  // The event 90 minutes back is before the window; the refused ones (all this minute) are one
  // segment whatever their reasons.
  std::int64_t events = 0, refusedNow = 0;
  for (const auto& m : stats.byMinute) (m.refused ? refusedNow : events) += m.count;
  EXPECT_EQ(events, 4);
  EXPECT_EQ(refusedNow, collector::EventStore::kRefusedKept);
  const auto segments = std::count_if(stats.byMinute.begin(), stats.byMinute.end(),
                                      [](const auto& m) { return m.refused; });
  EXPECT_LE(segments, 2);  // the minute may have turned while they were written
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
  writers.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        // Refused ones take the same path to a time and an id; a few of them mixed in.
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
      store_.list({.limit = 5000, .oldestFirst = true, .status = collector::RecordStatus::all});
  ASSERT_EQ(stored.size(), static_cast<std::size_t>(kThreads * kPerThread));
  int falls = 0;
  for (std::size_t i = 1; i < stored.size(); ++i) {
    if (stored[i].receivedAt < stored[i - 1].receivedAt) {
      ADD_FAILURE() << "id " << stored[i].id << " at " << stored[i].receivedAt << " after id "
                    << stored[i - 1].id << " at " << stored[i - 1].receivedAt;
      if (++falls == 5) break;
    }
  }
}

TEST_F(EventStoreTest, AStoreFromAnEarlierCollectorGainsTheNewColumns) {
  const auto file = dir_.path() / "old.sqlite";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "CREATE TABLE events (id INTEGER PRIMARY KEY AUTOINCREMENT, received_at "
                         "TEXT NOT NULL, action_type TEXT NOT NULL, action_name TEXT NOT NULL, "
                         "action_kind TEXT NOT NULL, page TEXT NOT NULL, cid TEXT NOT NULL, did "
                         "TEXT NOT NULL, sid TEXT NOT NULL, json TEXT NOT NULL);"
                         "INSERT INTO events VALUES (1, '2024-01-01T00:00:00.000Z', 'event', "
                         "'old', 'tap', '', 'c', 'd', 's', '{}');",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
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
