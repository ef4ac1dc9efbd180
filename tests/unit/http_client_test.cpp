// The HTTP session: libcurl under it against a real TLS server on loopback (what goes on the wire,
// what comes back, what fails). How an answer's Retry-After is read is the delivery test's.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <future>
#include <thread>

#include "support/https_test_server.hpp"
#include "support/temp_dir.hpp"
#include "transport/http_client.hpp"

namespace zelvanor {
namespace {

using namespace std::chrono_literals;
using network::HttpClient;
using network::HttpOutcome;
using network::HttpRequest;
using network::HttpResponse;
using network::TransportError;
using testing::CannedResponse;
using testing::ReceivedRequest;

HttpOutcome sendAndWait(HttpClient& client, HttpRequest request) {
  std::promise<HttpOutcome> promise;
  auto future = promise.get_future();
  client.send(std::move(request),
              [&](HttpOutcome outcome) { promise.set_value(std::move(outcome)); });
  if (future.wait_for(20s) != std::future_status::ready) return TransportError{"gave up"};
  return future.get();
}

HttpResponse responseOf(const HttpOutcome& outcome) {
  const auto* error = std::get_if<TransportError>(&outcome);
  EXPECT_FALSE(error) << error->description;
  return error ? HttpResponse{} : std::get<HttpResponse>(outcome);
}

struct HttpClientTest : ::testing::Test {
  HttpClient::Options options() const {
    return {dir.path() / "cookies.txt", server.caFile().string()};
  }
  HttpRequest get(const std::string& path, double timeout = 5) const {
    return {"GET", server.baseUrl() + path, {}, std::nullopt, timeout};
  }

  testing::HttpsTestServer server;
  testing::TempDir dir;
};

TEST_F(HttpClientTest, RequestsAndAnswersCrossAsBuiltNoRedirectIsFollowedAndBigBodiesAreCut) {
  server.setResponder([](const ReceivedRequest& r) {
    if (r.path == "/big") return CannedResponse{200, std::string(3 << 20, 'x'), {}, 0};
    if (r.path != "/moved") return CannedResponse{200, "ok", {}, 100};
    return CannedResponse{302,
                          "moved",
                          {{"Location", "/elsewhere"},
                           {"Retry-After", "7"},
                           {"Set-Cookie", "fa_cid=c1; Path=/; Max-Age=3600; Secure"},
                           {"Set-Cookie", "fa_did=d1; Path=/; Max-Age=3600"},
                           {"Set-Cookie", "scoped=s; Path=/only; Max-Age=3600"},
                           {"Set-Cookie", "session=x; Path=/"}},
                          0};
  });
  {
    HttpClient client(options());
    const HttpRequest post{"POST",
                           server.baseUrl() + "/sdk/track",
                           {{"Content-Type", "application/json"}},
                           std::string(R"({"a":1})"),
                           5.0};
    EXPECT_EQ(responseOf(sendAndWait(client, post)).body, "ok");
    // A timeout far beyond what libcurl can count in milliseconds means "wait", not "give up".
    EXPECT_EQ(responseOf(sendAndWait(client, get("/sync?v=1", 1e300))).status, 200);
    const auto moved = responseOf(sendAndWait(client, get("/moved")));
    EXPECT_EQ(moved.status, 302);
    EXPECT_EQ(moved.redirectTo, "/elsewhere");
    EXPECT_EQ(moved.retryAfter, 7s);
    EXPECT_EQ(responseOf(sendAndWait(client, get("/big"))).body.size(), std::size_t{1} << 20);
    const auto received = server.received();
    ASSERT_EQ(received.size(), 4u) << "the redirect was not followed";
    const auto seen = [&](const ReceivedRequest& r, const std::string& name) {
      auto [from, to] = r.headers.equal_range(name);
      return std::multimap<std::string, std::string>(from, to);
    };
    EXPECT_EQ(received[0].method + " " + received[0].path + " " + received[0].body,
              R"(POST /sdk/track {"a":1})");
    EXPECT_EQ(seen(received[0], "Content-Type"),
              (std::multimap<std::string, std::string>{{"Content-Type", "application/json"}}));
    EXPECT_TRUE(seen(received[0], "Expect").empty());
    EXPECT_EQ(received[1].method + " " + received[1].path + " " + received[1].body,
              "GET /sync?v=1 ");
    EXPECT_TRUE(seen(received[1], "Content-Type").empty());
    EXPECT_EQ(
        seen(received[3], "Cookie"),
        (std::multimap<std::string, std::string>{{"Cookie", "fa_cid=c1; fa_did=d1; session=x"}}));
    EXPECT_EQ(client.cookiesFor(server.baseUrl() + "/only/x").size(), 4u);
    EXPECT_TRUE(client.cookiesFor("https://other.example/sync").empty());
  }
  struct stat info {};
  ASSERT_EQ(stat((dir.path() / "cookies.txt").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  // The session cookie ended with the client; the dated ones are back.
  HttpClient restarted(options());
  std::string kept;
  for (const auto& cookie : restarted.cookiesFor(server.baseUrl() + "/sync?v=1"))
    kept += cookie.name + " ";
  EXPECT_EQ(kept, "fa_cid fa_did ");
}

TEST_F(HttpClientTest, TimeoutsRefusalsAndUntrustedCertificatesAreTransportErrors) {
  server.setResponder([](const ReceivedRequest&) { return CannedResponse{200, "late", {}, 1500}; });
  HttpClient client(options());
  auto late = sendAndWait(client, get("/x", 0.3));
  ASSERT_TRUE(std::holds_alternative<TransportError>(late));
  EXPECT_FALSE(std::get<TransportError>(late).tls);

  HttpClient untrusting(HttpClient::Options{});
  auto untrusted = sendAndWait(untrusting, get("/x"));
  ASSERT_TRUE(std::holds_alternative<TransportError>(untrusted)) << "verification is never off";
  EXPECT_TRUE(std::get<TransportError>(untrusted).tls)
      << std::get<TransportError>(untrusted).description;

  auto plain = sendAndWait(client, HttpRequest{"GET", "http://127.0.0.1:1/x", {}, std::nullopt, 5});
  EXPECT_TRUE(std::holds_alternative<TransportError>(plain)) << "https only";

  const auto request = get("/x");
  server.stop();
  auto refused = sendAndWait(client, request);
  ASSERT_TRUE(std::holds_alternative<TransportError>(refused));
  EXPECT_FALSE(std::get<TransportError>(refused).tls);
}

TEST_F(HttpClientTest, ManyAtOnceCompleteAndShutdownCancelsTheRestInTheOrderTheyWentOut) {
  server.setResponder([](const ReceivedRequest& r) {
    return CannedResponse{200, r.path, {}, r.path == "/slow" ? 3000 : 50};
  });
  HttpClient client(options());
  std::mutex mutex;
  std::vector<std::string> fast;
  std::vector<int> cancelled;
  for (int i = 0; i < 8; ++i) {
    client.send(get("/fast"), [&](HttpOutcome outcome) {
      std::lock_guard lock(mutex);
      fast.push_back(responseOf(outcome).body);
    });
  }
  const auto done = [&] {
    std::lock_guard lock(mutex);
    return fast.size() == 8;
  };
  for (int i = 0; i < 400 && !done(); ++i) std::this_thread::sleep_for(20ms);
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(fast, std::vector<std::string>(8, "/fast"));
  }
  for (int i = 0; i < 5; ++i) {
    client.send(get("/slow", 10), [&, i](HttpOutcome outcome) {
      std::lock_guard lock(mutex);
      if (std::holds_alternative<TransportError>(outcome)) cancelled.push_back(i);
    });
  }
  for (int i = 0; i < 400 && server.received().size() < 13; ++i) std::this_thread::sleep_for(5ms);
  const auto started = std::chrono::steady_clock::now();
  client.shutdown();
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
  // The delivery keeps cancelled records in the pending file in this order.
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(cancelled, (std::vector<int>{0, 1, 2, 3, 4})) << "all, before shutdown returned";
  }
  EXPECT_EQ(client.inFlight(), 0u);
  bool answered = false;
  client.send(get("/x", 1), [&](HttpOutcome outcome) {
    answered = std::holds_alternative<TransportError>(outcome);
  });
  EXPECT_TRUE(answered) << "at once after shutdown";
}

}  // namespace
}  // namespace zelvanor
