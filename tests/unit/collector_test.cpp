// The local collector as a client sees it: identity sync with cookies, record storage, the events
// API and the switches that make it misbehave.
#include "collector.hpp"

#include <gtest/gtest.h>
#include <simdjson.h>

#include <fstream>
#include <future>
#include <sstream>

#include "network/http_client.hpp"
#include "support/temp_dir.hpp"
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

  HttpOutcome request(std::string method, std::string path, std::optional<std::string> body = {},
                      double timeout = 5.0) {
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

TEST_F(CollectorTest, ARestartKeepsItsCertificateAndItsEvents) {
  EXPECT_EQ(track(recordOfType("event", "kept")), "ok");
  const std::string certificate = readFile(collector_->caFile());
  client_.reset();
  collector_.reset();

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
  EXPECT_EQ(listed("").size(), 1u);
}

TEST_F(CollectorTest, CompressedAndOversizedBodiesAreRefusedUnread) {
  const std::string json = *encodeJson(recordOfType("event", "packed"));
  auto send = [&](std::vector<std::pair<std::string, std::string>> headers, std::string bodyText) {
    std::promise<HttpOutcome> answered;
    auto outcome = answered.get_future();
    client_->send(HttpRequest{"POST", collector_->baseUrl() + "/sdk/track", std::move(headers),
                              std::move(bodyText), 20.0},
                  [&answered](HttpOutcome o) { answered.set_value(std::move(o)); });
    return outcome.get();
  };
  const HttpOutcome compressed = send({{"Content-Encoding", "gzip"}}, json);
  ASSERT_TRUE(std::holds_alternative<HttpResponse>(compressed));
  EXPECT_EQ(std::get<HttpResponse>(compressed).status, 415);
  // 17 MiB of whitespace around a valid record: a reader without a limit would store it.
  EXPECT_NE(body(send({}, std::string(17u << 20, ' ') + json)), "ok");
  EXPECT_EQ(collector_->counters().storedRecords, 0u);
  EXPECT_EQ(track(recordOfType("event", "plain")), "ok");
}

}  // namespace
}  // namespace zelvanor
