// The HTTPS client against a real TLS server on loopback.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <condition_variable>
#include <ctime>
#include <fstream>
#include <future>
#include <map>
#include <optional>

#include "transport/http_client.hpp"
#include "support/https_test_server.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor {
namespace {

using network::HttpClient;
using network::HttpOutcome;
using network::HttpRequest;
using network::HttpResponse;
using network::TransportError;
using testing::CannedResponse;
using testing::HttpsTestServer;
using testing::ReceivedRequest;

HttpOutcome sendAndWait(HttpClient& client, HttpRequest request) {
  std::promise<HttpOutcome> promise;
  auto future = promise.get_future();
  client.send(std::move(request),
              [&](HttpOutcome outcome) { promise.set_value(std::move(outcome)); });
  if (future.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
    return TransportError{"test gave up waiting"};
  }
  return future.get();
}

struct HttpClientTest : ::testing::Test {
  HttpsTestServer server;
  testing::TempDir dir;
  HttpClient::Options options() const {
    return {dir.path() / "cookies.txt", server.caFile().string()};
  }
};

TEST_F(HttpClientTest, PostAndGetArriveExactlyAsBuilt) {
  HttpClient client(options());
  auto posted = sendAndWait(client, HttpRequest{"POST",
                                                server.baseUrl() + "/sdk/track",
                                                {{"Content-Type", "application/json"}},
                                                std::string(R"({"a":1})"),
                                                5.0});
  ASSERT_TRUE(std::holds_alternative<HttpResponse>(posted))
      << std::get<TransportError>(posted).description;
  EXPECT_EQ(std::get<HttpResponse>(posted).body, "ok");
  EXPECT_EQ(std::get<HttpResponse>(posted).status, 200);

  // A timeout far beyond what libcurl can count in milliseconds means "wait", not "give up".
  server.setResponder([](const ReceivedRequest&) { return CannedResponse{200, "ok", {}, 100}; });
  auto got = sendAndWait(
      client, HttpRequest{"GET", server.baseUrl() + "/sync?v=1", {}, std::nullopt, 1e300});
  ASSERT_TRUE(std::holds_alternative<HttpResponse>(got))
      << std::get<TransportError>(got).description;

  const auto received = server.received();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[0].method, "POST");
  EXPECT_EQ(received[0].path, "/sdk/track");
  EXPECT_EQ(received[0].body, R"({"a":1})");
  EXPECT_EQ(received[0].headers.count("Content-Type"), 1u);
  EXPECT_EQ(received[0].headers.find("Content-Type")->second, "application/json");
  EXPECT_EQ(received[0].headers.count("Expect"), 0u);
  EXPECT_EQ(received[1].method, "GET");
  EXPECT_EQ(received[1].path, "/sync?v=1");
  EXPECT_TRUE(received[1].body.empty());
  EXPECT_EQ(received[1].headers.count("Content-Type"), 0u);
}

TEST_F(HttpClientTest, AnOversizedAnswerIsCutAtOneMebibyte) {
  server.setResponder([](const ReceivedRequest&) {
    return CannedResponse{200, std::string(3 << 20, 'x'), {}, 0};
  });
  HttpClient client(options());
  auto answer =
      sendAndWait(client, HttpRequest{"GET", server.baseUrl() + "/x", {}, std::nullopt, 20});
  ASSERT_TRUE(std::holds_alternative<HttpResponse>(answer));
  EXPECT_EQ(std::get<HttpResponse>(answer).body.size(), std::size_t{1} << 20);
}

TEST_F(HttpClientTest, ManyRequestsInFlightAllComplete) {
  server.setResponder([](const ReceivedRequest& r) { return CannedResponse{200, r.body, {}, 50}; });
  HttpClient client(options());
  constexpr int kRequests = 20;
  std::mutex mutex;
  std::condition_variable allDone;
  std::vector<std::string> bodies;
  for (int i = 0; i < kRequests; ++i) {
    client.send(HttpRequest{"POST",
                            server.baseUrl() + "/sdk/track",
                            {{"Content-Type", "text/plain"}},
                            std::to_string(i),
                            10.0},
                [&](HttpOutcome outcome) {
                  std::lock_guard lock(mutex);
                  if (auto* r = std::get_if<HttpResponse>(&outcome))
                    bodies.push_back(r->body);
                  else
                    bodies.push_back("error");
                  allDone.notify_all();
                });
  }
  std::unique_lock lock(mutex);
  ASSERT_TRUE(
      allDone.wait_for(lock, std::chrono::seconds(20), [&] { return bodies.size() == kRequests; }));
  std::sort(bodies.begin(), bodies.end());
  EXPECT_EQ(std::count(bodies.begin(), bodies.end(), "error"), 0);
}

/// An HTTP date `offset` from now, as a server writes it in Retry-After.
std::string httpDate(std::chrono::seconds offset) {
  const std::time_t at = std::time(nullptr) + static_cast<std::time_t>(offset.count());
  std::tm parts{};
  gmtime_r(&at, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts);
  return text;
}

TEST_F(HttpClientTest, RetryAfterIsReadAsSecondsOrADateAndNowWhenZeroOrPast) {
  // The path says which Retry-After the answer carries.
  const std::map<std::string, std::string> retryAfter = {
      {"/zero", "0"},
      {"/seconds", "7"},
      {"/past", httpDate(-std::chrono::hours(2))},
      {"/ahead", httpDate(std::chrono::seconds(120))},
      {"/garbage", "soon"}};
  server.setResponder([&](const ReceivedRequest& r) {
    const auto found = retryAfter.find(r.path);
    if (found == retryAfter.end()) return CannedResponse{503, "busy", {}, 0};
    return CannedResponse{503, "busy", {{"Retry-After", found->second}}, 0};
  });
  HttpClient client(options());
  auto waitFor = [&](const std::string& path) -> std::optional<std::chrono::seconds> {
    auto answer = sendAndWait(client, HttpRequest{"GET", server.baseUrl() + path, {}, {}, 5});
    EXPECT_TRUE(std::holds_alternative<HttpResponse>(answer)) << path;
    if (!std::holds_alternative<HttpResponse>(answer)) return std::chrono::seconds(-1);
    return std::get<HttpResponse>(answer).retryAfter;
  };
  EXPECT_EQ(waitFor("/zero"), std::chrono::seconds(0)) << "present: come back now";
  EXPECT_EQ(waitFor("/seconds"), std::chrono::seconds(7));
  EXPECT_EQ(waitFor("/past"), std::chrono::seconds(0)) << "a date gone by means now";
  const auto ahead = waitFor("/ahead");
  ASSERT_TRUE(ahead);
  EXPECT_GE(*ahead, std::chrono::seconds(110));
  EXPECT_LE(*ahead, std::chrono::seconds(120));
  EXPECT_EQ(waitFor("/garbage"), std::nullopt) << "unreadable: as if there were none";
  EXPECT_EQ(waitFor("/none"), std::nullopt);
}

TEST_F(HttpClientTest, TimeoutsRefusalsAndUntrustedCertificatesAreTransportErrors) {
  server.setResponder([](const ReceivedRequest&) { return CannedResponse{200, "late", {}, 1500}; });
  HttpClient client(options());
  auto late =
      sendAndWait(client, HttpRequest{"GET", server.baseUrl() + "/x", {}, std::nullopt, 0.3});
  EXPECT_TRUE(std::holds_alternative<TransportError>(late));

  HttpClient untrusting(HttpClient::Options{});
  auto untrusted =
      sendAndWait(untrusting, HttpRequest{"GET", server.baseUrl() + "/x", {}, std::nullopt, 5});
  EXPECT_TRUE(std::holds_alternative<TransportError>(untrusted)) << "verification is never off";

  auto plain = sendAndWait(client, HttpRequest{"GET", "http://127.0.0.1:1/x", {}, std::nullopt, 5});
  EXPECT_TRUE(std::holds_alternative<TransportError>(plain)) << "https only";

  const std::string base = server.baseUrl();
  server.stop();
  auto refused = sendAndWait(client, HttpRequest{"GET", base + "/x", {}, std::nullopt, 5});
  EXPECT_TRUE(std::holds_alternative<TransportError>(refused));
}

TEST_F(HttpClientTest, CookiesFromTheServerMatchByHostAndPathAndPersistInThePrivateJar) {
  server.setResponder([](const ReceivedRequest&) {
    return CannedResponse{200,
                          "ok",
                          {{"Set-Cookie", "fa_cid=c1; Path=/; Max-Age=3600; Secure"},
                           {"Set-Cookie", "fa_did=d1; Path=/; Max-Age=3600"},
                           {"Set-Cookie", "scoped=s; Path=/only; Max-Age=3600"},
                           {"Set-Cookie", "session=x; Path=/"}},
                          0};
  });
  {
    HttpClient client(options());
    sendAndWait(client, HttpRequest{"GET", server.baseUrl() + "/sync?v=1", {}, std::nullopt, 5});
    auto cookies = client.cookiesFor(server.baseUrl() + "/sync?v=1");
    ASSERT_EQ(cookies.size(), 3u);
    EXPECT_EQ(cookies[0].name, "fa_cid");
    EXPECT_EQ(cookies[0].value, "c1");
    EXPECT_EQ(cookies[1].name, "fa_did");
    EXPECT_EQ(cookies[2].name, "session");
    EXPECT_EQ(client.cookiesFor(server.baseUrl() + "/only/x").size(), 4u);
    EXPECT_TRUE(client.cookiesFor("https://other.example/sync").empty());
  }
  struct stat info {};
  ASSERT_EQ(stat((dir.path() / "cookies.txt").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  // The session cookie ended with the client; the dated ones are back.
  HttpClient restarted(options());
  auto kept = restarted.cookiesFor(server.baseUrl() + "/sync?v=1");
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].name, "fa_cid");
  EXPECT_EQ(kept[1].name, "fa_did");
}

TEST_F(HttpClientTest, CookiesMatchIPv6LiteralsAndHostNamesInAnyCase) {
  // As the cookie engine files them: an IPv6 literal without brackets, a host as it was spelled.
  const std::string jar =
      "# Netscape HTTP Cookie File\n"
      "::1\tFALSE\t/\tTRUE\t4102444800\tfa_cid\tv6\n"
      "Sync.Example.COM\tFALSE\t/\tTRUE\t4102444800\tfa_cid\tnamed\n"
      ".example.org\tTRUE\t/\tTRUE\t4102444800\tfa_cid\tdomain\n";
  std::ofstream(dir.path() / "cookies.txt") << jar;
  HttpClient client(options());
  auto valueFor = [&](const std::string& url) {
    const auto cookies = client.cookiesFor(url);
    return cookies.size() == 1 ? cookies[0].value : std::to_string(cookies.size()) + " cookies";
  };
  EXPECT_EQ(valueFor("https://[::1]:8443/sync?v=1"), "v6");
  EXPECT_EQ(valueFor("https://sync.example.com/sync?v=1"), "named");
  EXPECT_EQ(valueFor("https://SYNC.example.org/sync?v=1"), "domain");
  EXPECT_EQ(valueFor("https://[::2]/sync?v=1"), "0 cookies");
}

TEST_F(HttpClientTest, ShutdownCancelsWhatIsInFlightAndAnswersLaterSendsAtOnce) {
  server.setResponder([](const ReceivedRequest&) { return CannedResponse{200, "slow", {}, 3000}; });
  HttpClient client(options());
  std::atomic<int> cancelled{0};
  std::mutex orderMutex;
  std::vector<int> order;
  for (int i = 0; i < 5; ++i) {
    client.send(HttpRequest{"GET", server.baseUrl() + "/x", {}, std::nullopt, 10},
                [&, i](HttpOutcome outcome) {
                  if (std::holds_alternative<TransportError>(outcome)) ++cancelled;
                  std::lock_guard lock(orderMutex);
                  order.push_back(i);
                });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const auto started = std::chrono::steady_clock::now();
  client.shutdown();
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
  EXPECT_EQ(cancelled.load(), 5) << "every callback ran before shutdown returned";
  // The delivery keeps cancelled records in the pending file in this order.
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4})) << "cancelled in the order they started";
  EXPECT_EQ(client.inFlight(), 0u);
  bool answered = false;
  client.send(
      HttpRequest{"GET", server.baseUrl() + "/x", {}, std::nullopt, 1},
      [&](HttpOutcome outcome) { answered = std::holds_alternative<TransportError>(outcome); });
  EXPECT_TRUE(answered);
}

}  // namespace
}  // namespace zelvanor
