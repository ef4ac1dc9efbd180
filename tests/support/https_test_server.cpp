#define CPPHTTPLIB_OPENSSL_SUPPORT
#define CPPHTTPLIB_ZLIB_SUPPORT
#define CPPHTTPLIB_BROTLI_SUPPORT
#include "support/https_test_server.hpp"

#include <httplib.h>

#include <cstdlib>

namespace zelvanor::testing {

struct HttpsTestServer::Impl {
  std::unique_ptr<httplib::SSLServer> server;
  std::thread thread;
  mutable std::mutex mutex;
  std::vector<ReceivedRequest> received;
  std::function<CannedResponse(const ReceivedRequest&)> respond = [](const ReceivedRequest&) {
    return CannedResponse{200, "ok", {}, 0};
  };
};

HttpsTestServer::HttpsTestServer() : impl_(std::make_unique<Impl>()) {
  certificate_ = dir_.path() / "cert.pem";
  const auto key = dir_.path() / "key.pem";
  const std::string command =
      "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1 "
      "-addext subjectAltName=IP:127.0.0.1,DNS:localhost -keyout '" +
      key.string() + "' -out '" + certificate_.string() + "' >/dev/null 2>&1";
  if (std::system(command.c_str()) != 0) return;
  impl_->server = std::make_unique<httplib::SSLServer>(certificate_.c_str(), key.c_str());
  auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    ReceivedRequest got{request.target, {}, request.body};
    for (const auto& [name, value] : request.headers) got.headers.emplace(name, value);
    std::function<CannedResponse(const ReceivedRequest&)> respond;
    {
      std::lock_guard lock(impl_->mutex);
      impl_->received.push_back(got);
      respond = impl_->respond;
    }
    const CannedResponse canned = respond(got);
    if (canned.delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(canned.delayMs));
    response.status = canned.status;
    for (const auto& [name, value] : canned.headers) response.set_header(name, value);
    response.set_content(canned.body, "text/plain");
  };
  // Each kept-alive connection holds a worker; give the client's parallel connections room.
  impl_->server->new_task_queue = [] { return new httplib::ThreadPool(32); };
  impl_->server->set_tcp_nodelay(true);  // no 40 ms delayed-ACK stall between headers and body
  // The library's default closes a connection after five requests: the client then races the
  // close and reconnects, which under load costs seconds that no test means to measure.
  impl_->server->set_keep_alive_max_count(100000);
  impl_->server->Get(".*", handler);
  impl_->server->Post(".*", handler);
  port_ = impl_->server->bind_to_any_port("127.0.0.1");
  impl_->thread = std::thread([this] { impl_->server->listen_after_bind(); });
  for (int i = 0; i < 500 && !impl_->server->is_running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

HttpsTestServer::~HttpsTestServer() {
  stop();
}

void HttpsTestServer::stop() {
  if (impl_->server) impl_->server->stop();
  if (impl_->thread.joinable()) impl_->thread.join();
}

void HttpsTestServer::setResponder(std::function<CannedResponse(const ReceivedRequest&)> respond) {
  std::lock_guard lock(impl_->mutex);
  impl_->respond = std::move(respond);
}

std::vector<ReceivedRequest> HttpsTestServer::received() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->received;
}

}  // namespace zelvanor::testing
