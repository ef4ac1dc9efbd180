// WinHTTP behind the SDK's HTTP seam. Synchronous calls on at most kMaxThreads threads of the
// client's own: a request runs from connecting to the last body byte on one thread. The session
// handle is shared, so WinHTTP's connection pool keeps connections alive between requests.
#include <windows.h>
// windows.h first: the others build on its types.
#include <wincrypt.h>
#include <winhttp.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "transport/extra_roots.hpp"
#include "transport/http_client_winhttp.hpp"
#include "transport/winhttp_text.hpp"

namespace zelvanor::network {

namespace {

// Only the exact body "ok" and the identity envelope are ever read; a runaway answer is cut here
// rather than exhausting memory. Headers likewise.
constexpr std::size_t kMaxBodyBytes = 1 << 20;
constexpr std::size_t kMaxHeaders = 200;

/// The host's timeout in whole milliseconds. Zero, negative or not finite: 60 s.
std::chrono::milliseconds timeoutOf(double seconds) {
  if (!std::isfinite(seconds) || seconds <= 0) return std::chrono::milliseconds(60000);
  constexpr double kMaxMs = 2147483647.0;  // what a WinHTTP timeout (an int) holds
  const double ms = std::min(seconds * 1000.0, kMaxMs);
  return std::chrono::milliseconds(std::max(1LL, static_cast<long long>(ms)));
}

struct HandleCloser {
  void operator()(void* handle) const { WinHttpCloseHandle(handle); }
};
using Handle = std::unique_ptr<void, HandleCloser>;

}  // namespace

struct WinHttpClient::Impl : std::enable_shared_from_this<Impl> {
  struct Job {
    ZHttpRequest request;
    std::function<void(ZHttpResult)> done;
  };
  /// A request under way. Whoever answers first (its thread, or a cancellation) takes `done`.
  struct Exchange {
    Impl* impl = nullptr;
    std::function<void(ZHttpResult)> done;  // guarded by mutex
    HINTERNET request = nullptr;            // guarded by mutex; null once closed
    bool cancelled = false;                 // guarded by mutex
    bool certificateChecked = false;        // the exchange's thread only
    bool certificateRejected = false;       // the exchange's thread only
  };

  explicit Impl(Options options) : options(std::move(options)) {
    // The system's proxy settings (automatic configuration included where the system has it);
    // older systems only know the default one.
    session = WinHttpOpen(L"Zelvanor", WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY, WINHTTP_NO_PROXY_NAME,
                          WINHTTP_NO_PROXY_BYPASS, 0);
    if (!session) {
      session = WinHttpOpen(L"Zelvanor", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME,
                            WINHTTP_NO_PROXY_BYPASS, 0);
    }
    if (!session) {
      openError = GetLastError();
      return;
    }
    DWORD protocols = WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3;
    if (!WinHttpSetOption(session, WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols, sizeof protocols)) {
      protocols = WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2;
      WinHttpSetOption(session, WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols, sizeof protocols);
    }
    if (this->options.caBundle) {
      extraRoots = ExtraRoots::load(*this->options.caBundle);
      // The chain is checked once the TLS handshake is done and before the request goes out.
      WinHttpSetStatusCallback(session, &onStatus, WINHTTP_CALLBACK_FLAG_SEND_REQUEST, 0);
    }
  }

  ~Impl() {
    if (session) WinHttpCloseHandle(session);
  }

  static void CALLBACK onStatus(HINTERNET handle, DWORD_PTR context, DWORD status, LPVOID, DWORD) {
    if (status != WINHTTP_CALLBACK_STATUS_SENDING_REQUEST || context == 0) return;
    auto* exchange = reinterpret_cast<Exchange*>(context);
    exchange->impl->checkCertificate(*exchange, handle);
    // A rejected server is to get nothing: the request is closed before it is written (Wine
    // writes the request line and headers all the same; the body never goes out, see perform).
    if (exchange->certificateRejected) exchange->impl->close(*exchange);
  }

  void checkCertificate(Exchange& exchange, HINTERNET request) {
    if (exchange.certificateChecked) return;
    exchange.certificateChecked = true;
    PCCERT_CONTEXT server = nullptr;
    DWORD size = sizeof server;
    bool accepted = false;
    if (WinHttpQueryOption(request, WINHTTP_OPTION_SERVER_CERT_CONTEXT, &server, &size) && server) {
      accepted = extraRoots && extraRoots->accept(server);
      CertFreeCertificateContext(server);
    }
    exchange.certificateRejected = !accepted;
  }

  /// Closes the exchange's request handle once; a call blocked on it ends.
  void close(Exchange& exchange) {
    HINTERNET request = nullptr;
    {
      std::lock_guard lock(mutex);
      request = std::exchange(exchange.request, nullptr);
    }
    if (request) WinHttpCloseHandle(request);
  }

  static void answer(std::function<void(ZHttpResult)>& done, ZHttpResult result) {
    if (!done) return;
    try {
      done(std::move(result));
    } catch (...) {
      // A throwing callback must not end the client's thread.
    }
  }

  void send(ZHttpRequest request, std::function<void(ZHttpResult)> done) {
    std::string failure;
    {
      std::lock_guard lock(mutex);
      if (!session) {
        failure = describeWinHttpError("WinHttpOpen", openError);
      } else if (stopping) {
        failure = "the HTTP client has shut down";
      } else {
        waiting.push_back(Job{std::move(request), std::move(done)});
        if (idle < waiting.size() && threads < kMaxThreads) {
          try {
            // Detached: a thread blocked in WinHTTP must not hold up the SDK's shutdown. It
            // keeps the session alive until it ends.
            std::thread([self = shared_from_this()] { self->run(); }).detach();
            ++threads;
          } catch (...) {
            // No thread to be had: with none at all, the request fails now.
            if (threads == 0) {
              done = std::move(waiting.back().done);
              waiting.pop_back();
              failure = "cannot start a thread for the request";
            }
          }
        }
        if (failure.empty()) {
          wakeUp.notify_one();
          return;
        }
      }
    }
    answer(done, ZHttpFailure{std::move(failure)});
  }

  void cancel(const char* why, bool stop) {
    std::deque<Job> dropped;
    std::vector<std::function<void(ZHttpResult)>> interrupted;
    std::vector<HINTERNET> toClose;
    {
      std::lock_guard lock(mutex);
      if (stop) stopping = true;
      dropped.swap(waiting);
      for (Exchange* exchange : running) {
        exchange->cancelled = true;
        if (exchange->done) interrupted.push_back(std::move(exchange->done));
        exchange->done = nullptr;
        if (exchange->request) toClose.push_back(std::exchange(exchange->request, nullptr));
      }
    }
    wakeUp.notify_all();
    for (HINTERNET request : toClose) WinHttpCloseHandle(request);
    for (auto& done : interrupted) answer(done, ZHttpFailure{why});
    for (auto& job : dropped) answer(job.done, ZHttpFailure{why});
  }

  void run() {
    std::unique_lock lock(mutex);
    for (;;) {
      ++idle;
      wakeUp.wait(lock, [&] { return stopping || !waiting.empty(); });
      --idle;
      if (stopping) break;
      Job job = std::move(waiting.front());
      waiting.pop_front();
      Exchange exchange;
      exchange.impl = this;
      exchange.done = std::move(job.done);
      running.insert(&exchange);
      lock.unlock();
      ZHttpResult result = perform(exchange, job.request);
      lock.lock();
      running.erase(&exchange);
      std::function<void(ZHttpResult)> done = std::move(exchange.done);
      exchange.done = nullptr;
      HINTERNET request = std::exchange(exchange.request, nullptr);
      lock.unlock();
      if (request) WinHttpCloseHandle(request);
      answer(done, std::move(result));
      lock.lock();
    }
    --threads;
  }

  ZHttpResult perform(Exchange& exchange, const ZHttpRequest& request) {
    using Clock = std::chrono::steady_clock;
    const auto timeout = timeoutOf(request.timeoutSeconds);
    const auto deadline = Clock::now() + timeout;
    if (options.caBundle && !extraRoots) {
      return ZHttpFailure{"cannot read a certificate from the CA file " + *options.caBundle, true};
    }

    const std::wstring url = widen(request.url);
    URL_COMPONENTS parts{};
    parts.dwStructSize = sizeof parts;
    parts.dwHostNameLength = static_cast<DWORD>(-1);
    parts.dwUrlPathLength = static_cast<DWORD>(-1);
    parts.dwExtraInfoLength = static_cast<DWORD>(-1);
    if (!WinHttpCrackUrl(url.c_str(), static_cast<DWORD>(url.size()), 0, &parts)) {
      return ZHttpFailure{describeWinHttpError("not a valid URL", GetLastError())};
    }
    if (parts.nScheme != INTERNET_SCHEME_HTTPS) return ZHttpFailure{"only https is allowed"};
    const std::wstring host(parts.lpszHostName, parts.dwHostNameLength);
    std::wstring path(parts.lpszUrlPath, parts.dwUrlPathLength);
    path.append(parts.lpszExtraInfo, parts.dwExtraInfoLength);
    if (path.empty()) path = L"/";

    // A connection handle names the server; WinHTTP's pool behind the session reuses the
    // connections themselves.
    Handle connection(WinHttpConnect(session, host.c_str(), parts.nPort, 0));
    if (!connection) return ZHttpFailure{describeWinHttpError("WinHttpConnect", GetLastError())};
    HINTERNET handle =
        WinHttpOpenRequest(connection.get(), widen(request.method).c_str(), path.c_str(), nullptr,
                           WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES, WINHTTP_FLAG_SECURE);
    if (!handle) return ZHttpFailure{describeWinHttpError("WinHttpOpenRequest", GetLastError())};
    {
      std::lock_guard lock(mutex);
      exchange.request = handle;
      if (exchange.cancelled) return ZHttpFailure{"cancelled"};  // run() closes the handle
    }
    if (auto failure = configure(exchange, handle, timeout)) return std::move(*failure);

    std::wstring headers;
    for (const auto& [name, value] : request.headers) {
      headers += widen(name) + L": " + widen(value) + L"\r\n";
    }
    const std::string* body = request.body ? request.body.get() : nullptr;
    const DWORD bodySize = body ? static_cast<DWORD>(body->size()) : 0;
    const auto failed = [&](const char* step) -> ZHttpResult {
      const DWORD error = GetLastError();
      std::lock_guard lock(mutex);
      if (exchange.cancelled) return ZHttpFailure{"cancelled"};
      if (exchange.certificateRejected) {
        return ZHttpFailure{"the server's certificate is not trusted (nor issued by the CA file)",
                            true};
      }
      return ZHttpFailure{describeWinHttpError(step, error), isTlsFailure(error)};
    };
    // The body follows the headers separately, so that it goes out only to a server whose
    // chain passed the check.
    if (!WinHttpSendRequest(handle,
                            headers.empty() ? WINHTTP_NO_ADDITIONAL_HEADERS : headers.c_str(),
                            headers.empty() ? 0 : static_cast<DWORD>(-1), WINHTTP_NO_REQUEST_DATA,
                            0, bodySize, 0)) {
      return failed("sending");
    }
    if (options.caBundle) {
      // Where the system did not report the request's sending, the chain is checked now.
      checkCertificate(exchange, handle);
      if (exchange.certificateRejected) {
        SetLastError(ERROR_WINHTTP_SECURE_FAILURE);
        return failed("sending");
      }
    }
    for (DWORD sent = 0; sent < bodySize;) {
      DWORD written = 0;
      if (!WinHttpWriteData(handle, body->data() + sent, bodySize - sent, &written) ||
          written == 0) {
        return failed("sending the body");
      }
      sent += written;
    }
    if (!setReceiveTimeout(handle, deadline) || !WinHttpReceiveResponse(handle, nullptr)) {
      return failed("receiving");
    }

    ZHttpResponse response;
    DWORD status = 0;
    DWORD size = sizeof status;
    if (!WinHttpQueryHeaders(handle, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                             WINHTTP_HEADER_NAME_BY_INDEX, &status, &size,
                             WINHTTP_NO_HEADER_INDEX)) {
      return failed("reading the status");
    }
    response.status = static_cast<int>(status);
    size = 0;
    WinHttpQueryHeaders(handle, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX,
                        WINHTTP_NO_OUTPUT_BUFFER, &size, WINHTTP_NO_HEADER_INDEX);
    std::wstring raw(size / sizeof(wchar_t) + 1, L'\0');
    size = static_cast<DWORD>(raw.size() * sizeof(wchar_t));
    if (!WinHttpQueryHeaders(handle, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX,
                             raw.data(), &size, WINHTTP_NO_HEADER_INDEX)) {
      return failed("reading the headers");
    }
    raw.resize(size / sizeof(wchar_t));
    response.headers = splitHeaders(narrow(raw));

    std::vector<char> buffer(64 * 1024);
    for (;;) {
      DWORD read = 0;
      if (!setReceiveTimeout(handle, deadline) ||
          !WinHttpReadData(handle, buffer.data(), static_cast<DWORD>(buffer.size()), &read)) {
        return failed("reading the body");
      }
      if (read == 0) break;
      // Past the limit the answer is read to its end but not kept: it is not "ok" either way.
      std::string& kept = response.body;
      if (kept.size() < kMaxBodyBytes) {
        kept.append(buffer.data(), std::min<std::size_t>(read, kMaxBodyBytes - kept.size()));
      }
    }
    return response;
  }

  /// Options of one request; a failure when one that matters cannot be set.
  std::optional<ZHttpFailure> configure(Exchange& exchange, HINTERNET handle,
                                        std::chrono::milliseconds timeout) {
    // The SDK keeps the cookies and never follows a redirect: a 3xx is an answer.
    DWORD disabled = WINHTTP_DISABLE_COOKIES | WINHTTP_DISABLE_REDIRECTS;
    if (!WinHttpSetOption(handle, WINHTTP_OPTION_DISABLE_FEATURE, &disabled, sizeof disabled)) {
      return ZHttpFailure{describeWinHttpError("cannot turn off redirects", GetLastError())};
    }
    const int ms = static_cast<int>(timeout.count());
    WinHttpSetTimeouts(handle, ms, ms, ms, ms);
    if (options.proxy) {
      if (const std::optional<std::string> proxy = options.proxy()) {
        std::wstring server;
        WINHTTP_PROXY_INFO info{};
        info.dwAccessType = WINHTTP_ACCESS_TYPE_NO_PROXY;
        if (!proxy->empty()) {
          // WinHTTP talks to plain HTTP proxies only, named "host:port".
          std::string rest = *proxy;
          constexpr std::string_view kScheme = "http://";
          if (rest.size() >= kScheme.size() &&
              std::equal(kScheme.begin(), kScheme.end(), rest.begin(),
                         [](char a, char b) { return a == std::tolower(b); })) {
            rest.erase(0, kScheme.size());
          } else if (rest.find("://") != std::string::npos) {
            return ZHttpFailure{"WinHTTP takes only http:// proxies, not " + *proxy};
          }
          if (rest.find('@') != std::string::npos) {
            return ZHttpFailure{"WinHTTP takes no proxy credentials in the proxy's URL"};
          }
          rest = rest.substr(0, rest.find('/'));
          server = widen(rest);
          info.dwAccessType = WINHTTP_ACCESS_TYPE_NAMED_PROXY;
          info.lpszProxy = server.data();
        }
        if (!WinHttpSetOption(handle, WINHTTP_OPTION_PROXY, &info, sizeof info)) {
          return ZHttpFailure{describeWinHttpError("cannot set the proxy", GetLastError())};
        }
      }
    }
    if (options.caBundle) {
      // WinHTTP still checks the name, the dates and the usage; the chain's root is checked
      // against the CA file (and the system's roots) by checkCertificate before the request is
      // written.
      DWORD flags = SECURITY_FLAG_IGNORE_UNKNOWN_CA;
      DWORD_PTR context = reinterpret_cast<DWORD_PTR>(&exchange);
      if (!WinHttpSetOption(handle, WINHTTP_OPTION_SECURITY_FLAGS, &flags, sizeof flags) ||
          !WinHttpSetOption(handle, WINHTTP_OPTION_CONTEXT_VALUE, &context, sizeof context)) {
        return ZHttpFailure{describeWinHttpError("cannot use the CA file", GetLastError()), true};
      }
    }
    return std::nullopt;
  }

  static bool setReceiveTimeout(HINTERNET handle, std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      SetLastError(ERROR_WINHTTP_TIMEOUT);
      return false;
    }
    DWORD ms = static_cast<DWORD>(left.count());
    return WinHttpSetOption(handle, WINHTTP_OPTION_RECEIVE_TIMEOUT, &ms, sizeof ms);
  }

  static ZHttpHeaders splitHeaders(const std::string& raw) {
    ZHttpHeaders headers;
    std::size_t at = raw.find("\r\n");  // past the status line
    while (at != std::string::npos && headers.size() < kMaxHeaders) {
      at += 2;
      const std::size_t end = raw.find("\r\n", at);
      const std::string_view line(raw.data() + at,
                                  (end == std::string::npos ? raw.size() : end) - at);
      at = end;
      const std::size_t colon = line.find(':');
      if (colon == std::string_view::npos) continue;
      std::string_view value = line.substr(colon + 1);
      while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
        value.remove_prefix(1);
      }
      headers.emplace_back(std::string(line.substr(0, colon)), std::string(value));
    }
    return headers;
  }

  const Options options;
  HINTERNET session = nullptr;
  DWORD openError = 0;
  std::unique_ptr<ExtraRoots> extraRoots;
  std::mutex mutex;
  std::condition_variable wakeUp;
  std::deque<Job> waiting;      // guarded by mutex
  std::set<Exchange*> running;  // guarded by mutex
  std::size_t idle = 0;         // guarded by mutex
  int threads = 0;              // guarded by mutex
  bool stopping = false;        // guarded by mutex
};

WinHttpClient::WinHttpClient(Options options) : impl_(std::make_shared<Impl>(std::move(options))) {}

WinHttpClient::~WinHttpClient() {
  impl_->cancel("the HTTP client has shut down", true);
}

void WinHttpClient::send(ZHttpRequest request, std::function<void(ZHttpResult)> done) {
  impl_->send(std::move(request), std::move(done));
}

void WinHttpClient::cancelAll() {
  impl_->cancel("cancelled", false);
}

std::shared_ptr<ZHttpClient> makeSystemHttpClient(support::SerialQueue&,
                                                  SystemHttpClientOptions options) {
  // WinHTTP blocks on threads of the client's own, so the worker keeps its usual idle wait.
  return std::make_shared<WinHttpClient>(std::move(options));
}

}  // namespace zelvanor::network
