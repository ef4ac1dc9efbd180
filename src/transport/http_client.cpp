#include "transport/http_client.hpp"

#include <algorithm>
#include <cctype>
#include <map>
#include <utility>

#include "platform/thread_priority.hpp"
#include "transport/http_date.hpp"
#include "transport/system_http_client.hpp"

namespace zelvanor {
ZHttpClient::~ZHttpClient() = default;
}  // namespace zelvanor

namespace zelvanor::network {

namespace {

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

const std::string* header(const ZHttpHeaders& headers, std::string_view name) {
  for (const auto& [key, value] : headers) {
    if (sameName(key, name)) return &value;
  }
  return nullptr;
}

// Set on the thread that is inside a client's send(): a client that answers from within it must
// not run the SDK's callback there, in the middle of the caller's own bookkeeping.
thread_local int sendDepth = 0;

}  // namespace

struct HttpClient::Core {
  Core(std::shared_ptr<ZHttpClient> transport, std::filesystem::path cookieJar,
       std::shared_ptr<support::SerialQueue> loop)
      : transport(std::move(transport)), loop(std::move(loop)), cookies(std::move(cookieJar)) {
    cookies.load();
  }

  struct Exchange {
    std::string url;
    std::function<void(HttpOutcome)> done;
  };

  std::shared_ptr<ZHttpClient> transport;
  std::shared_ptr<support::SerialQueue> loop;
  CookieJar cookies;
  mutable std::mutex mutex;
  std::map<std::uint64_t, Exchange> pending;  // guarded by mutex, by send order
  std::uint64_t nextId = 0;                   // guarded by mutex
  bool stopped = false;                       // guarded by mutex

  void handOver(std::function<void(HttpOutcome)> done, HttpOutcome outcome) {
    if (loop && (sendDepth > 0 || !loop->isCurrent())) {
      loop->async([done = std::move(done), outcome = std::move(outcome)]() mutable {
        done(std::move(outcome));
      });
      return;
    }
    done(std::move(outcome));
  }

  void answered(std::uint64_t id, ZHttpResult result) {
    Exchange exchange;
    {
      std::lock_guard lock(mutex);
      const auto found = pending.find(id);
      // Answered twice, or after shutdown counted it as cancelled: the first outcome stands.
      if (found == pending.end()) return;
      exchange = std::move(found->second);
      pending.erase(found);
    }
    if (auto* failure = std::get_if<ZHttpFailure>(&result)) {
      handOver(std::move(exchange.done),
               TransportError{std::move(failure->description), failure->tls});
      return;
    }
    auto& answer = std::get<ZHttpResponse>(result);
    HttpResponse response;
    response.status = answer.status;
    response.body = std::move(answer.body);
    std::vector<std::string_view> setCookies;
    for (const auto& [name, value] : answer.headers) {
      if (sameName(name, "Set-Cookie")) setCookies.emplace_back(value);
    }
    // Cookies the server set (an identity triple among them) must survive a crash.
    if (cookies.take(exchange.url, setCookies)) cookies.save();
    if (const std::string* retryAfter = header(answer.headers, "Retry-After")) {
      response.retryAfter = parseRetryAfter(*retryAfter, std::chrono::system_clock::now());
    }
    // Redirects are never followed (a record goes only where the host configured it); where
    // one points is reported, to help find a misconfigured endpoint.
    if (answer.status >= 300 && answer.status < 400) {
      if (const std::string* location = header(answer.headers, "Location")) {
        response.redirectTo = *location;
      }
    }
    handOver(std::move(exchange.done), std::move(response));
  }
};

HttpClient::HttpClient(std::shared_ptr<ZHttpClient> transport, std::filesystem::path cookieJar,
                       std::shared_ptr<support::SerialQueue> loop)
    : core_(std::make_shared<Core>(std::move(transport), std::move(cookieJar), std::move(loop))) {}

HttpClient::HttpClient(Options options, ProxyChoice proxy) {
  ownLoop_ = std::make_shared<support::SerialQueue>("com.zelvanor.sdk.http",
                                                    &platform::lowerCurrentThreadPriority);
  auto transport = makeSystemHttpClient(*ownLoop_, {std::move(options.caBundle), std::move(proxy)});
  core_ = std::make_shared<Core>(std::move(transport), std::move(options.cookieJar), ownLoop_);
}

HttpClient::~HttpClient() {
  shutdown();
  if (ownLoop_) ownLoop_->stop();
}

void HttpClient::send(HttpRequest request, std::function<void(HttpOutcome)> done) {
  std::uint64_t id = 0;
  std::function<void(HttpOutcome)> refused;  // after shutdown: answered here, at once
  {
    std::lock_guard lock(core_->mutex);
    if (core_->stopped) {
      refused = std::move(done);
    } else {
      id = core_->nextId++;
      core_->pending.emplace(id, Core::Exchange{request.url, std::move(done)});
    }
  }
  if (!refused) {
    ZHttpRequest outgoing;
    outgoing.method = std::move(request.method);
    outgoing.headers = std::move(request.headers);
    if (std::string cookie = core_->cookies.headerFor(request.url); !cookie.empty()) {
      outgoing.headers.emplace_back("Cookie", std::move(cookie));
    }
    outgoing.url = std::move(request.url);
    static const auto noBody = std::make_shared<const std::string>();
    outgoing.body = request.body ? request.body.shared() : noBody;
    outgoing.timeoutSeconds = request.timeoutSeconds;
    ++sendDepth;
    try {
      core_->transport->send(std::move(outgoing),
                             [weak = std::weak_ptr<Core>(core_), id](ZHttpResult result) {
                               if (auto core = weak.lock()) core->answered(id, std::move(result));
                             });
    } catch (...) {
      // A host's client that throws has not sent the request: that is a transport failure.
      core_->answered(id, ZHttpFailure{"the HTTP client failed to start the request"});
    }
    --sendDepth;
    return;
  }
  refused(TransportError{"the HTTP client has shut down"});
}

void HttpClient::shutdown() {
  std::map<std::uint64_t, Core::Exchange> unanswered;
  {
    std::lock_guard lock(core_->mutex);
    if (std::exchange(core_->stopped, true)) return;
    unanswered.swap(core_->pending);
  }
  try {
    core_->transport->cancelAll();
  } catch (...) {
  }
  // On this thread, before returning: whoever shuts down orders its own work after these.
  for (auto& [id, exchange] : unanswered) exchange.done(TransportError{"cancelled"});
  core_->cookies.save();
}

std::size_t HttpClient::inFlight() const {
  std::lock_guard lock(core_->mutex);
  return core_->pending.size();
}

void HttpClient::clearCookies() {
  core_->cookies.clear();
}

std::vector<Cookie> HttpClient::cookiesFor(const std::string& url) {
  return core_->cookies.cookiesFor(url);
}

}  // namespace zelvanor::network
