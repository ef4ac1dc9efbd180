// The SDK's own HTTP client (libcurl, or WinHTTP in the Windows build) against a real HTTPS server
// on loopback (tests/support/loopback_https_server.py runs this test beside it, with a certificate
// from a throwaway CA): what goes on the wire, what comes back, what fails. How an answer's
// Retry-After is read is the delivery test's.
#include "transport/http_client.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <thread>
#include <tuple>

#include "support/temp_dir.hpp"

namespace zelvanor::network {
namespace {

using namespace std::chrono_literals;

std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::string url(const std::string& path, const char* port = "ZELVANOR_TEST_HTTPS_PORT") {
  return "https://localhost:" + env(port) + path;
}

HttpRequest get(const std::string& path, double timeout = 20) {
  return {"GET", url(path), {}, std::nullopt, timeout};
}

HttpOutcome sendAndWait(HttpClient& client, HttpRequest request) {
  auto promise = std::make_shared<std::promise<HttpOutcome>>();
  auto future = promise->get_future();
  client.send(std::move(request), [promise](HttpOutcome outcome) { promise->set_value(outcome); });
  if (future.wait_for(30s) != std::future_status::ready) return TransportError{"gave up"};
  return future.get();
}

HttpResponse responseOf(const HttpOutcome& outcome) {
  const auto* error = std::get_if<TransportError>(&outcome);
  EXPECT_FALSE(error) << error->description;
  return error ? HttpResponse{} : std::get<HttpResponse>(outcome);
}

struct HttpClientTest : ::testing::Test {
  void SetUp() override {
    if (env("ZELVANOR_TEST_HTTPS_PORT").empty()) GTEST_SKIP() << "no loopback server";
  }
  HttpClient::Options options() const {
    return {dir.path() / "cookies.txt", env("ZELVANOR_TEST_CA_FILE")};
  }
  testing::TempDir dir;
};

TEST_F(HttpClientTest, RequestsAndAnswersCrossAsBuiltNoRedirectIsFollowedAndBigBodiesAreCut) {
  const std::string big(300 * 1024, 'r');  // several writes' worth
  {
    HttpClient client(options());
    const HttpRequest post{"POST", url("/echo"), {{"Content-Type", "application/json"}}, big, 20};
    EXPECT_EQ(responseOf(sendAndWait(client, post)).body,
              "POST /echo\nContent-Type: application/json\n" + big)
        << "no Expect header, the body whole";
    const auto moved = responseOf(sendAndWait(client, get("/redirect")));
    EXPECT_EQ(std::tie(moved.status, moved.body, moved.redirectTo, moved.retryAfter),
              std::tuple(302, "moved", url("/ok"), 7s))
        << "not followed";
    // A timeout far beyond what the client can count in milliseconds means "wait", not "give up".
    EXPECT_EQ(responseOf(sendAndWait(client, get("/echo?v=1", 1e300))).body,
              "GET /echo?v=1\nCookie: fa_cid=c1; fa_did=d1; session=x\n");
    const auto cut = responseOf(sendAndWait(client, get("/big")));
    EXPECT_EQ(std::tuple(cut.status, cut.body.size()), std::tuple(200, std::size_t{1} << 20));
    EXPECT_EQ(client.cookiesFor(url("/only/x")).size(), 4u);
    EXPECT_TRUE(client.cookiesFor("https://other.example/sync").empty());
  }
  // The session cookie ended with the client; the dated ones are back.
  HttpClient restarted(options());
  std::string kept;
  for (const auto& cookie : restarted.cookiesFor(url("/sync?v=1"))) kept += cookie.name + " ";
  EXPECT_EQ(kept, "fa_cid fa_did ");
}

TEST_F(HttpClientTest, TimeoutsRefusalsAndUntrustedCertificatesAreTransportErrorsToldApart) {
  HttpClient client(options());
  HttpClient untrusting(HttpClient::Options{});
  const auto posted = [&] { return responseOf(sendAndWait(client, get("/posted"))).body; };
  const std::string postedBefore = posted();
  HttpRequest toStranger{
      "POST", url("/echo", "ZELVANOR_TEST_STRANGER_PORT"), {}, std::string("secret"), 20};
  const struct {
    const char* name;
    HttpClient& client;
    HttpRequest request;
    bool tls;
  } rows[] = {
      {"late", client, get("/hang", 0.3), false},
      // Verification is never off, with the system's roots or with a CA file as well: a
      // certificate from another CA fails, and the body never reaches that server.
      {"untrusted", untrusting, get("/ok"), true},
      {"stranger", client, toStranger, true},
      {"stranger, system roots", untrusting, toStranger, true},
      {"plain http", client, {"GET", "http://127.0.0.1:1/x", {}, std::nullopt, 5}, false},
      {"refused", client, {"GET", url("/ok", "ZELVANOR_TEST_REFUSED_PORT"), {}, {}, 5}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto outcome = sendAndWait(row.client, row.request);
    ASSERT_TRUE(std::holds_alternative<TransportError>(outcome));
    EXPECT_EQ(std::get<TransportError>(outcome).tls, row.tls)
        << std::get<TransportError>(outcome).description;
  }
  EXPECT_EQ(posted(), postedBefore);
}

TEST_F(HttpClientTest, ManyAtOnceCompleteAndShutdownCancelsTheRestInTheOrderTheyWentOut) {
  HttpClient client(options());
  std::mutex mutex;
  std::vector<std::string> answers;
  const auto answered = [&](const std::string& what) {
    std::lock_guard lock(mutex);
    answers.push_back(what);
  };
  for (int i = 0; i < 8; ++i) {
    client.send(get("/ok"), [&](HttpOutcome outcome) { answered(responseOf(outcome).body); });
  }
  for (int i = 0; i < 1000 && client.inFlight() > 0; ++i) std::this_thread::sleep_for(20ms);
  for (int i = 0; i < 5; ++i) {
    client.send(get("/hang"), [&, i](HttpOutcome outcome) {
      answered(std::holds_alternative<TransportError>(outcome) ? std::to_string(i) : "answered");
    });
  }
  std::this_thread::sleep_for(500ms);  // under way, or still waiting: both are cancelled
  const auto started = std::chrono::steady_clock::now();
  client.shutdown();
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
  // The delivery keeps cancelled records in the pending file in this order.
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(answers, (std::vector<std::string>{"ok", "ok", "ok", "ok", "ok", "ok", "ok", "ok",
                                                 "0", "1", "2", "3", "4"}))
        << "all, once each, before shutdown returned";
  }
  EXPECT_EQ(client.inFlight(), 0u);
  bool failed = false;
  client.send(get("/ok"), [&](HttpOutcome outcome) {
    failed = std::holds_alternative<TransportError>(outcome);
  });
  EXPECT_TRUE(failed) << "at once after shutdown";
}

}  // namespace
}  // namespace zelvanor::network
