// The Windows client against a real HTTPS server on loopback (tests/support/
// loopback_https_server.py runs it, with a certificate from a throwaway CA): answers come back
// whole, nothing is followed, and every failure is told apart.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "transport/http_client_winhttp.hpp"

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

class WinHttpClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (env("ZELVANOR_TEST_HTTPS_PORT").empty()) GTEST_SKIP() << "no loopback server";
  }
  /// `client`'s answer to one request; a failure when none comes in time.
  static ZHttpResult exchange(ZHttpClient& client, ZHttpRequest request) {
    auto answered = std::make_shared<std::promise<ZHttpResult>>();
    auto result = answered->get_future();
    client.send(std::move(request),
                [answered](ZHttpResult r) { answered->set_value(std::move(r)); });
    if (result.wait_for(30s) != std::future_status::ready) return ZHttpFailure{"no answer"};
    return result.get();
  }
  static ZHttpRequest get(const std::string& path) {
    return ZHttpRequest{"GET", url(path), {}, std::make_shared<const std::string>(), 20};
  }
  static std::vector<std::string> headers(const ZHttpResponse& response, const std::string& name) {
    std::vector<std::string> values;
    for (const auto& [key, value] : response.headers) {
      if (_stricmp(key.c_str(), name.c_str()) == 0) values.push_back(value);
    }
    return values;
  }
  WinHttpClient trusting{{env("ZELVANOR_TEST_CA_FILE"), {}}};
};

TEST_F(WinHttpClientTest, AnswersComeBackWholeAndUnfollowed) {
  const std::string big(300 * 1024, 'r');  // several writes' worth
  const auto posted = exchange(trusting, {"POST",
                                          url("/echo"),
                                          {{"Content-Type", "application/json"}},
                                          std::make_shared<const std::string>(big),
                                          20});
  ASSERT_TRUE(std::holds_alternative<ZHttpResponse>(posted))
      << std::get<ZHttpFailure>(posted).description;
  const auto& echo = std::get<ZHttpResponse>(posted);
  EXPECT_EQ(echo.status, 200);
  EXPECT_TRUE(echo.body == big) << echo.body.size() << " bytes came back";
  EXPECT_EQ(headers(echo, "X-Content-Type"), std::vector<std::string>{"application/json"});

  struct Case {
    const char* path;
    int status;
    std::string body;
    const char* header;
    std::vector<std::string> values;
  };
  const Case cases[] = {
      {"/ok", 200, "ok", "Content-Length", {"2"}},
      {"/cookies", 503, "later", "Set-Cookie", {"a=1; Path=/", "b=2; Path=/"}},
      {"/cookies", 503, "later", "retry-after", {"120"}},
      {"/redirect", 302, "moved", "Location", {url("/ok")}},
      {"/big", 200, std::string(1 << 20, 'x'), "Content-Length", {std::to_string(2 << 20)}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const auto result = exchange(trusting, get(c.path));
    ASSERT_TRUE(std::holds_alternative<ZHttpResponse>(result))
        << std::get<ZHttpFailure>(result).description;
    const auto& response = std::get<ZHttpResponse>(result);
    EXPECT_EQ(response.status, c.status);
    EXPECT_TRUE(response.body == c.body) << response.body.size() << " bytes";
    EXPECT_EQ(headers(response, c.header), c.values);
  }
}

TEST_F(WinHttpClientTest, FailuresAreToldApart) {
  // A certificate from another CA: neither the system nor the CA file vouches for it, and the
  // body never reaches that server.
  const auto posted = [&] {
    return std::get<ZHttpResponse>(exchange(trusting, get("/posted"))).body;
  };
  const std::string postedBefore = posted();
  WinHttpClient system({std::nullopt, {}});
  for (WinHttpClient* client : {&system, &trusting}) {
    auto request = get("/ok");
    request.method = "POST";
    request.body = std::make_shared<const std::string>("secret");
    request.url = url("/echo", "ZELVANOR_TEST_STRANGER_PORT");
    const auto untrusted = exchange(*client, request);
    ASSERT_TRUE(std::holds_alternative<ZHttpFailure>(untrusted));
    EXPECT_TRUE(std::get<ZHttpFailure>(untrusted).tls)
        << std::get<ZHttpFailure>(untrusted).description;
  }
  EXPECT_EQ(posted(), postedBefore);

  auto refusedRequest = get("/ok");
  refusedRequest.url = url("/ok", "ZELVANOR_TEST_REFUSED_PORT");
  const auto refused = exchange(trusting, refusedRequest);
  ASSERT_TRUE(std::holds_alternative<ZHttpFailure>(refused));
  EXPECT_FALSE(std::get<ZHttpFailure>(refused).tls) << std::get<ZHttpFailure>(refused).description;

  // A cancelled request is answered once, at once, though the server has not answered yet.
  auto answers = std::make_shared<std::vector<ZHttpResult>>();
  std::promise<void> first;
  trusting.send(get("/hang"), [answers, &first](ZHttpResult r) {
    answers->push_back(std::move(r));
    if (answers->size() == 1) first.set_value();
  });
  std::this_thread::sleep_for(500ms);  // under way, or still waiting: both are cancelled
  const auto started = std::chrono::steady_clock::now();
  trusting.cancelAll();
  ASSERT_EQ(first.get_future().wait_for(5s), std::future_status::ready);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
  ASSERT_TRUE(std::holds_alternative<ZHttpFailure>(answers->front()));
  // Still usable afterwards.
  const auto after = exchange(trusting, get("/ok"));
  EXPECT_TRUE(std::holds_alternative<ZHttpResponse>(after));
  EXPECT_EQ(answers->size(), 1u);
}

}  // namespace
}  // namespace zelvanor::network
