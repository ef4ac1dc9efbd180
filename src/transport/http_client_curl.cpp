#include "transport/http_client_curl.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

// Only the exact body "ok" and the identity envelope are ever read; a runaway answer is cut here
// rather than exhausting memory on the SDK's thread. Headers likewise.
constexpr std::size_t kMaxBodyBytes = 1 << 20;
constexpr std::size_t kMaxHeaders = 200;

struct Transfer {
  std::uint64_t sequence = 0;  // start order, for reporting cancellations in that order
  ZHttpRequest request;
  std::function<void(ZHttpResult)> done;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  ZHttpResponse response;
  std::array<char, CURL_ERROR_SIZE> errorText{};
};

size_t collectBody(char* data, size_t size, size_t count, void* user) {
  std::string& body = static_cast<Transfer*>(user)->response.body;
  const size_t bytes = size * count;
  // Past the limit the answer is read to its end but not kept: it is not "ok" either way.
  if (body.size() < kMaxBodyBytes) body.append(data, std::min(bytes, kMaxBodyBytes - body.size()));
  return bytes;
}

size_t collectHeader(char* data, size_t size, size_t count, void* user) {
  auto& headers = static_cast<Transfer*>(user)->response.headers;
  const size_t bytes = size * count;
  std::string_view line(data, bytes);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  // A status line starts another answer (after a 100, or a proxy's CONNECT): only the last counts.
  if (line.substr(0, 5) == "HTTP/") {
    headers.clear();
    return bytes;
  }
  const auto colon = line.find(':');
  if (colon == std::string_view::npos || headers.size() >= kMaxHeaders) return bytes;
  std::string_view value = line.substr(colon + 1);
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
  headers.emplace_back(std::string(line.substr(0, colon)), std::string(value));
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

}  // namespace

struct CurlHttpClient::Impl {
  explicit Impl(Options options) : options(std::move(options)) {
    initCurlOnce();
    // One thread uses the share handle, so it needs no locks: DNS and TLS sessions are reused
    // across the per-request easy handles.
    share = curl_share_init();
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxConnectionsPerHost);
  }

  ~Impl() {
    cancelRunning("cancelled");
    for (CURL* easy : idle) curl_easy_cleanup(easy);
    curl_multi_cleanup(multi);
    curl_share_cleanup(share);
  }

  void configure(Transfer& transfer) {
    CURL* easy = transfer.easy;
    const ZHttpRequest& request = transfer.request;
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_SHARE, share);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorText.data());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &collectBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &collectHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
    if (options.caBundle) curl_easy_setopt(easy, CURLOPT_CAINFO, options.caBundle->c_str());
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, timeoutMilliseconds(request.timeoutSeconds));
    if (const std::optional<std::string> proxy =
            options.proxy ? options.proxy() : std::optional<std::string>()) {
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
      const std::string& body = request.body ? *request.body : emptyBody;
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
    } else if (request.method == "GET") {
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headers);
  }

  void send(ZHttpRequest request, std::function<void(ZHttpResult)> done) {
    {
      std::lock_guard lock(mutex);
      if (!loopEnded) {
        auto transfer = std::make_unique<Transfer>();
        transfer->request = std::move(request);
        transfer->done = std::move(done);
        // One wake-up per batch; none from the loop's own thread, which starts what came in
        // before it next waits.
        const bool wakeLoop = incoming.empty() && std::this_thread::get_id() != loopThread;
        incoming.push_back(std::move(transfer));
        if (wakeLoop) curl_multi_wakeup(multi);
        return;
      }
    }
    done(ZHttpFailure{"the HTTP client has shut down"});
  }

  void startIncoming() {
    std::deque<std::unique_ptr<Transfer>> batch;
    {
      std::lock_guard lock(mutex);
      batch.swap(incoming);
    }
    for (auto& transfer : batch) {
      transfer->easy = takeEasy();
      if (!transfer->easy) {
        finish(std::move(transfer), ZHttpFailure{"cannot create a transfer"});
        continue;
      }
      configure(*transfer);
      curl_easy_setopt(transfer->easy, CURLOPT_PRIVATE, transfer.get());
      if (curl_multi_add_handle(multi, transfer->easy) != CURLM_OK) {
        finish(std::move(transfer), ZHttpFailure{"cannot start a transfer"});
        continue;
      }
      transfer->sequence = nextSequence++;
      const std::uint64_t sequence = transfer->sequence;
      running.emplace(sequence, std::move(transfer));
    }
  }

  /// An easy handle for the next transfer: a reset one from earlier transfers when there is one
  /// (setting one up costs more than the request's own work on a kept-alive connection).
  CURL* takeEasy() {
    if (idle.empty()) return curl_easy_init();
    CURL* easy = idle.back();
    idle.pop_back();
    return easy;
  }

  void finish(std::unique_ptr<Transfer> transfer, ZHttpResult result) {
    // Connections live in the multi handle's cache, so a handle is reset, not tied to one.
    if (transfer->easy) {
      curl_easy_reset(transfer->easy);
      if (idle.size() < static_cast<std::size_t>(kMaxConnectionsPerHost)) {
        idle.push_back(transfer->easy);
      } else {
        curl_easy_cleanup(transfer->easy);
      }
    }
    curl_slist_free_all(transfer->headers);
    try {
      transfer->done(std::move(result));
    } catch (...) {
      // A throwing callback must not end the SDK's worker.
    }
  }

  /// Hands every finished transfer its answer; how many there were.
  std::size_t collectFinished() {
    std::size_t finished = 0;
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
      ++finished;
      if (result == CURLE_OK) {
        long status = 0;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
        transfer->response.status = static_cast<int>(status);
        ZHttpResponse response = std::move(transfer->response);
        finish(std::move(transfer), std::move(response));
      } else {
        std::string description = curl_easy_strerror(result);
        if (transfer->errorText[0]) description += std::string(": ") + transfer->errorText.data();
        finish(std::move(transfer), ZHttpFailure{std::move(description), isTlsFailure(result)});
      }
    }
    return finished;
  }

  /// Ends every transfer under way and every one not yet started, in start order.
  void cancelRunning(const char* why) {
    std::deque<std::unique_ptr<Transfer>> notStarted;
    {
      std::lock_guard lock(mutex);
      notStarted.swap(incoming);
    }
    for (auto& [sequence, transfer] : running) curl_multi_remove_handle(multi, transfer->easy);
    auto unfinished = std::move(running);
    running.clear();
    for (auto& [sequence, transfer] : unfinished) finish(std::move(transfer), ZHttpFailure{why});
    for (auto& transfer : notStarted) finish(std::move(transfer), ZHttpFailure{why});
  }

  void drive() {
    int active = 0;
    curl_multi_perform(multi, &active);
  }

  void waitUntil(std::optional<std::chrono::steady_clock::time_point> deadline) {
    bool cancel = false;
    {
      std::lock_guard lock(mutex);
      loopThread = std::this_thread::get_id();
      cancel = std::exchange(cancelRequested, false);
    }
    if (cancel) cancelRunning("cancelled");
    startIncoming();
    drive();
    // Answers may have queued work for the loop: it runs before the next wait.
    if (collectFinished() > 0) return;
    // Until the loop's next timer, libcurl's own next timeout, a socket or a wake-up; a minute at
    // most, so that nothing can leave the loop asleep for good.
    long wait = 60000;
    if (deadline) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(
          *deadline - std::chrono::steady_clock::now());
      wait = std::clamp<long>(static_cast<long>(left.count()), 0, wait);
    }
    long curlWants = -1;
    if (curl_multi_timeout(multi, &curlWants) == CURLM_OK && curlWants >= 0) {
      wait = std::min(wait, curlWants);
    }
    if (wait > 0) curl_multi_poll(multi, nullptr, 0, static_cast<int>(wait), nullptr);
    startIncoming();
    drive();
    collectFinished();
  }

  void ended() {
    {
      std::lock_guard lock(mutex);
      loopEnded = true;
    }
    cancelRunning("cancelled");
  }

  const Options options;
  const std::string emptyBody;
  CURLSH* share = nullptr;
  CURLM* multi = nullptr;
  std::mutex mutex;
  std::deque<std::unique_ptr<Transfer>> incoming;              // guarded by mutex
  bool cancelRequested = false;                                // guarded by mutex
  bool loopEnded = false;                                      // guarded by mutex
  std::thread::id loopThread;                                  // guarded by mutex
  std::map<std::uint64_t, std::unique_ptr<Transfer>> running;  // by start order; loop only
  std::vector<CURL*> idle;                                     // reset handles; loop only
  std::uint64_t nextSequence = 0;                              // loop only
};

std::shared_ptr<CurlHttpClient> CurlHttpClient::startOn(support::SerialQueue& loop,
                                                        Options options) {
  auto client = std::make_shared<CurlHttpClient>(std::move(options));
  loop.setIdleWait(client);
  return client;
}

CurlHttpClient::CurlHttpClient(Options options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}

CurlHttpClient::~CurlHttpClient() = default;

void CurlHttpClient::send(ZHttpRequest request, std::function<void(ZHttpResult)> done) {
  impl_->send(std::move(request), std::move(done));
}

void CurlHttpClient::cancelAll() {
  std::lock_guard lock(impl_->mutex);
  impl_->cancelRequested = true;
  curl_multi_wakeup(impl_->multi);
}

void CurlHttpClient::waitUntil(std::optional<std::chrono::steady_clock::time_point> deadline) {
  impl_->waitUntil(deadline);
}

void CurlHttpClient::wake() noexcept {
  curl_multi_wakeup(impl_->multi);
}

void CurlHttpClient::ended() noexcept {
  impl_->ended();
}

std::optional<UrlSchemeAndHost> readUrl(const std::string& url, bool anyScheme) {
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle(curl_url(), &curl_url_cleanup);
  if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(),
                              anyScheme ? CURLU_NON_SUPPORT_SCHEME : 0) != CURLUE_OK) {
    return std::nullopt;
  }
  UrlSchemeAndHost parts;
  for (auto [part, text] :
       {std::pair{CURLUPART_SCHEME, &parts.scheme}, std::pair{CURLUPART_HOST, &parts.host}}) {
    char* value = nullptr;
    if (curl_url_get(handle.get(), part, &value, 0) != CURLUE_OK) return std::nullopt;
    *text = value;
    curl_free(value);
  }
  return parts;
}

std::shared_ptr<ZHttpClient> makeSystemHttpClient(support::SerialQueue& worker,
                                                  SystemHttpClientOptions options) {
  // Runs on the worker, between its tasks.
  return CurlHttpClient::startOn(worker, std::move(options));
}

}  // namespace zelvanor::network
