// An HTTP client in memory: it keeps each request until the test answers it, or answers at once
// through a responder. Tests of delivery and identity sync step through exchanges with it, with
// no server, no TLS and no sleeps.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zelvanor/http_client.hpp"

namespace zelvanor::testing {

/// A header from its "Name: value" line.
inline std::pair<std::string, std::string> header(std::string_view line) {
  const auto colon = line.find(": ");
  return {std::string(line.substr(0, colon)), std::string(line.substr(colon + 2))};
}

class FakeHttpClient final : public ZHttpClient {
 public:
  using Responder = std::function<std::optional<ZHttpResult>(const ZHttpRequest&)>;
  using Done = std::function<void(ZHttpResult)>;

  /// Answers each request as it is sent (from within send, as a client may); a responder that
  /// returns nothing leaves that request waiting for the test.
  void setResponder(Responder responder) {
    std::lock_guard lock(mutex_);
    responder_ = std::move(responder);
  }

  void send(ZHttpRequest request, Done done) override {
    Responder responder;
    {
      std::lock_guard lock(mutex_);
      sent_.push_back(request);
      responder = responder_;
    }
    if (auto answer = responder ? responder(request) : std::nullopt) {
      done(std::move(*answer));
    } else {
      std::lock_guard lock(mutex_);
      waiting_.push_back(std::move(done));
    }
    changed_.notify_all();
  }

  void cancelAll() override {}

  /// Waits until at least `count` requests wait for an answer; false after `timeout`.
  bool waitForWaiting(std::size_t count,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return waiting_.size() >= count; });
  }
  /// Waits until at least `count` requests were sent in all.
  bool waitForSent(std::size_t count,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return sent_.size() >= count; });
  }

  /// Answers the oldest waiting request; false when none waits.
  bool answer(ZHttpResult result) { return answerNth(0, std::move(result)); }
  /// Answers the request `n` places behind the oldest waiting one, as a server answering out of
  /// order would; false when there is none.
  bool answerNth(std::size_t n, ZHttpResult result) {
    Done done;
    {
      std::lock_guard lock(mutex_);
      if (waiting_.size() <= n) return false;
      const auto at = waiting_.begin() + static_cast<std::ptrdiff_t>(n);
      done = std::move(*at);
      waiting_.erase(at);
    }
    done(std::move(result));
    return true;
  }

  std::vector<ZHttpRequest> sent() const {
    std::lock_guard lock(mutex_);
    return sent_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Responder responder_;
  std::vector<ZHttpRequest> sent_;
  std::deque<Done> waiting_;  ///< the answers still owed, oldest first
};

}  // namespace zelvanor::testing
