#include "network/http_client.hpp"

#include "platform/thread_priority.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace zelvanor::network {

namespace {

/// Failures a host fixes in its certificates or its TLS setup, not by waiting.
bool isTlsFailure(CURLcode result) {
  switch (result) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_USE_SSL_FAILED:
      return true;
    default:
      return false;
  }
}

void initCurlOnce() {
  static const bool initialised = [] {
    return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  }();
  static_cast<void>(initialised);
}

CURLSH* newShare() {
  initCurlOnce();
  return curl_share_init();
}

// Only the exact body "ok" and the identity envelope are ever read; a runaway answer is cut here
// rather than exhausting memory on the SDK's thread.
constexpr std::size_t kMaxBodyBytes = 1 << 20;

struct Transfer {
  std::uint64_t sequence = 0;  // start order, for reporting cancellations in that order
  HttpRequest request;
  std::function<void(HttpOutcome)> done;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  std::string responseBody;
  bool setsCookies = false;
  std::array<char, CURL_ERROR_SIZE> errorText{};
};

size_t collectBody(char* data, size_t size, size_t count, void* user) {
  std::string& body = static_cast<Transfer*>(user)->responseBody;
  const size_t bytes = size * count;
  // Past the limit the answer is read to its end but not kept: it is not "ok" either way.
  if (body.size() < kMaxBodyBytes) body.append(data, std::min(bytes, kMaxBodyBytes - body.size()));
  return bytes;
}

// The host's timeout in whole milliseconds for libcurl. Zero, negative or not finite: 60 s;
// anything huge is capped where a long still holds it on every platform.
long timeoutMilliseconds(double seconds) {
  if (!std::isfinite(seconds) || seconds <= 0) return 60000L;
  constexpr double kMaxMs = 2147483647.0;  // about 24.8 days
  const double ms = seconds * 1000.0;
  if (ms >= kMaxMs) return static_cast<long>(kMaxMs);
  return ms < 1.0 ? 1L : static_cast<long>(ms);
}

size_t watchHeaders(char* data, size_t size, size_t count, void* user) {
  if (CookieJar::setsCookie(std::string_view(data, size * count))) {
    static_cast<Transfer*>(user)->setsCookies = true;
  }
  return size * count;
}

/// The answer's Retry-After in seconds. One that is there but says zero, or names a date gone
/// by, means now; one that reads as neither seconds nor a date is as if there were none.
std::optional<std::chrono::seconds> retryAfterOf(CURL* easy) {
  // libcurl reads both forms (seconds, or an HTTP date) as seconds from now, and 0 for garbage.
  curl_off_t seconds = 0;
  if (curl_easy_getinfo(easy, CURLINFO_RETRY_AFTER, &seconds) != CURLE_OK) return std::nullopt;
  curl_header* header = nullptr;
  const CURLHcode found = curl_easy_header(easy, "Retry-After", 0, CURLH_HEADER, -1, &header);
  if (found == CURLHE_NOT_BUILT_IN) {
    // No way to tell a header saying 0 from none: only a wait that is there counts.
    if (seconds > 0) return std::chrono::seconds(seconds);
    return std::nullopt;
  }
  if (found != CURLHE_OK || header == nullptr || header->value == nullptr) return std::nullopt;
  std::string value = header->value;
  const auto first = value.find_first_not_of(" \t");
  const auto last = value.find_last_not_of(" \t");
  value = first == std::string::npos ? std::string() : value.substr(first, last - first + 1);
  const bool allDigits = !value.empty() && std::all_of(value.begin(), value.end(),
                                                       [](char c) { return c >= '0' && c <= '9'; });
  if (!allDigits && curl_getdate(value.c_str(), nullptr) == -1) return std::nullopt;
  return std::chrono::seconds(std::max<curl_off_t>(seconds, 0));
}

}  // namespace

struct HttpClient::Impl {
  Impl(Options options, ProxyChoice proxyChoice)
      : options(std::move(options)),
        proxyChoice(std::move(proxyChoice)),
        share(newShare()),
        cookies(share, this->options.cookieJar) {
    curl_share_setopt(share, CURLSHOPT_LOCKFUNC, &Impl::lockShare);
    curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, &Impl::unlockShare);
    curl_share_setopt(share, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxConnectionsPerHost);
    cookies.load();
    worker = std::thread([this] {
      platform::lowerCurrentThreadPriority();
      run();
    });
  }

  ~Impl() {
    stop();
    curl_multi_cleanup(multi);
    curl_share_cleanup(share);
  }

  static void lockShare(CURL*, curl_lock_data data, curl_lock_access, void* user) {
    static_cast<Impl*>(user)->shareLocks[static_cast<size_t>(data) % kShareLocks].lock();
  }
  static void unlockShare(CURL*, curl_lock_data data, void* user) {
    static_cast<Impl*>(user)->shareLocks[static_cast<size_t>(data) % kShareLocks].unlock();
  }

  void configure(Transfer& transfer) {
    CURL* easy = transfer.easy;
    const HttpRequest& request = transfer.request;
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_SHARE, share);  // the shared cookie engine, DNS and TLS sessions
    curl_easy_setopt(easy, CURLOPT_COOKIEFILE,
                     "");  // turns that cookie engine on for this transfer
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorText.data());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &collectBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &watchHeaders);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
    if (options.caBundle) curl_easy_setopt(easy, CURLOPT_CAINFO, options.caBundle->c_str());
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, timeoutMilliseconds(request.timeoutSeconds));
    if (const std::optional<std::string> proxy =
            proxyChoice ? proxyChoice() : std::optional<std::string>()) {
      // An empty CURLOPT_PROXY turns the environment's proxy off; "*" in CURLOPT_NOPROXY makes
      // sure no_proxy cannot turn it back on. A host's own proxy takes every host, so no_proxy
      // is emptied too: the host chose this proxy for the SDK's requests.
      curl_easy_setopt(easy, CURLOPT_PROXY, proxy->c_str());
      curl_easy_setopt(easy, CURLOPT_NOPROXY, proxy->empty() ? "*" : "");
      if (!proxy->empty() && options.caBundle) {
        curl_easy_setopt(easy, CURLOPT_PROXY_CAINFO, options.caBundle->c_str());
      }
    }
#if LIBCURL_VERSION_NUM >= 0x075700
    // A name lookup still running when a transfer ends (timeout, shutdown, exit) is left to
    // finish on its own instead of being waited for, so exit never stalls on a slow resolver.
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
#endif

    // Exactly the headers asked for: no Expect, and no form Content-Type on a POST.
    transfer.headers = curl_slist_append(transfer.headers, "Expect:");
    bool hasContentType = false;
    for (const auto& [name, value] : request.headers) {
      std::string line = name;
      line.append(": ").append(value);
      transfer.headers = curl_slist_append(transfer.headers, line.c_str());
      if (name == "Content-Type") hasContentType = true;
    }
    if (request.method == "POST") {
      if (!hasContentType) transfer.headers = curl_slist_append(transfer.headers, "Content-Type:");
      curl_easy_setopt(easy, CURLOPT_POST, 1L);
      const std::string& body = transfer.request.body ? *transfer.request.body : emptyBody;
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
    } else if (request.method == "GET") {
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headers);
  }

  void send(HttpRequest request, std::function<void(HttpOutcome)> done) {
    {
      std::lock_guard lock(mutex);
      if (!stopping) {
        auto transfer = std::make_unique<Transfer>();
        transfer->request = std::move(request);
        transfer->done = std::move(done);
        // One wake-up per batch: requests handed over before the network thread takes the
        // batch ride on the wake-up the first of them made.
        const bool wake = incoming.empty();
        incoming.push_back(std::move(transfer));
        ++pending;
        if (wake) curl_multi_wakeup(multi);
        return;
      }
    }
    done(TransportError{"the HTTP client has shut down"});
  }

  void startIncoming() {
    std::deque<std::unique_ptr<Transfer>> batch;
    {
      std::lock_guard lock(mutex);
      batch.swap(incoming);
    }
    for (auto& transfer : batch) {
      transfer->easy = curl_easy_init();
      if (!transfer->easy) {
        finish(std::move(transfer), TransportError{"cannot create a transfer"});
        continue;
      }
      configure(*transfer);
      curl_easy_setopt(transfer->easy, CURLOPT_PRIVATE, transfer.get());
      if (curl_multi_add_handle(multi, transfer->easy) != CURLM_OK) {
        finish(std::move(transfer), TransportError{"cannot start a transfer"});
        continue;
      }
      transfer->sequence = nextSequence++;
      const std::uint64_t sequence = transfer->sequence;
      running.emplace(sequence, std::move(transfer));
    }
  }

  void finish(std::unique_ptr<Transfer> transfer, HttpOutcome outcome) {
    // Connections live in the multi handle's cache, so a fresh easy handle per request still
    // reuses them (and a reset handle would keep its cookie file list).
    if (transfer->easy) curl_easy_cleanup(transfer->easy);
    curl_slist_free_all(transfer->headers);
    const bool saveCookies = transfer->setsCookies;
    try {
      transfer->done(std::move(outcome));
    } catch (...) {
      // A throwing callback must not end the network thread.
    }
    // Cookies the server set (an identity triple among them) must survive a crash.
    if (saveCookies) cookies.save();
    std::lock_guard lock(mutex);
    --pending;
  }

  void collectFinished() {
    int remaining = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &remaining)) {
      if (message->msg != CURLMSG_DONE) continue;
      CURL* easy = message->easy_handle;
      const CURLcode result = message->data.result;
      Transfer* raw = nullptr;
      curl_easy_getinfo(easy, CURLINFO_PRIVATE, reinterpret_cast<char**>(&raw));
      curl_multi_remove_handle(multi, easy);
      if (!raw) continue;
      auto found = running.find(raw->sequence);
      if (found == running.end()) continue;
      auto transfer = std::move(found->second);
      running.erase(found);
      if (result == CURLE_OK) {
        HttpResponse response;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &response.status);
        response.retryAfter = retryAfterOf(easy);
        // Redirects are never followed (a record goes only where the host configured it); where
        // one points is reported, to help find a misconfigured endpoint.
        char* location = nullptr;
        if (curl_easy_getinfo(easy, CURLINFO_REDIRECT_URL, &location) == CURLE_OK && location) {
          response.redirectTo = location;
        }
        response.body = std::move(transfer->responseBody);
        finish(std::move(transfer), std::move(response));
      } else {
        std::string description = curl_easy_strerror(result);
        if (transfer->errorText[0]) description += std::string(": ") + transfer->errorText.data();
        finish(std::move(transfer), TransportError{std::move(description), isTlsFailure(result)});
      }
    }
  }

  void run() {
    for (;;) {
      {
        std::lock_guard lock(mutex);
        if (stopping) break;
      }
      startIncoming();
      int active = 0;
      curl_multi_perform(multi, &active);
      collectFinished();
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    // Shutting down: everything not finished is reported as cancelled, in start order.
    startIncoming();
    for (auto& [sequence, transfer] : running) curl_multi_remove_handle(multi, transfer->easy);
    auto unfinished = std::move(running);
    running.clear();
    for (auto& [sequence, transfer] : unfinished) {
      finish(std::move(transfer), TransportError{"cancelled"});
    }
    cookies.save();
  }

  void stop() {
    {
      std::lock_guard lock(mutex);
      if (stopping) return;
      stopping = true;
      curl_multi_wakeup(multi);
    }
    if (worker.joinable()) worker.join();
  }

  static constexpr size_t kShareLocks = 8;
  const Options options;
  const ProxyChoice proxyChoice;
  const std::string emptyBody;
  CURLSH* share = nullptr;
  CookieJar cookies;  // on the share handle's cookie engine
  CURLM* multi = nullptr;
  std::array<std::mutex, kShareLocks> shareLocks;
  mutable std::mutex mutex;
  std::deque<std::unique_ptr<Transfer>> incoming;
  std::size_t pending = 0;
  bool stopping = false;
  std::map<std::uint64_t, std::unique_ptr<Transfer>> running;  // by start order; network thread
  std::uint64_t nextSequence = 0;                              // network thread only
  std::thread worker;
};

HttpClient::HttpClient(Options options, ProxyChoice proxy)
    : impl_(std::make_unique<Impl>(std::move(options), std::move(proxy))) {}

HttpClient::~HttpClient() = default;

void HttpClient::send(HttpRequest request, std::function<void(HttpOutcome)> done) {
  impl_->send(std::move(request), std::move(done));
}

void HttpClient::shutdown() {
  impl_->stop();
}

std::size_t HttpClient::inFlight() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->pending;
}

void HttpClient::clearCookies() {
  impl_->cookies.clear();
}

std::vector<Cookie> HttpClient::cookiesFor(const std::string& url) {
  return impl_->cookies.cookiesFor(url);
}

}  // namespace zelvanor::network
