// An HTTPS server on 127.0.0.1 for tests: a throwaway certificate (made with the openssl tool),
// handlers the test sets, and a record of what arrived.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.hpp"

namespace zelvanor::testing {

struct ReceivedRequest {
  std::string path;  ///< with the query
  std::multimap<std::string, std::string> headers;
  std::string body;
};

/// An identity sync answer carrying the triple c, d, s.
inline constexpr const char* kSyncAnswer =
    R"({"version":1,"status":{"code":"0000","msg":"ok"},"data":[{"cid":"c","did":"d","sid":"s"}]})";

struct CannedResponse {
  int status = 200;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  int delayMs = 0;
};

class HttpsTestServer {
 public:
  HttpsTestServer();
  ~HttpsTestServer();

  /// Answers every request with what `respond` returns.
  void setResponder(std::function<CannedResponse(const ReceivedRequest&)> respond);
  std::string baseUrl() const { return "https://127.0.0.1:" + std::to_string(port_); }
  const std::filesystem::path& caFile() const { return certificate_; }
  std::vector<ReceivedRequest> received() const;
  /// Stops listening: later connections are refused.
  void stop();

 private:
  struct Impl;
  TempDir dir_;
  std::filesystem::path certificate_;
  std::unique_ptr<Impl> impl_;
  int port_ = 0;
};

}  // namespace zelvanor::testing
