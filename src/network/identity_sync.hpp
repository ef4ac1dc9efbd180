// Produces the identity triple: from the three cookies when the cookie store holds all of them,
// else from the identity sync server. Every caller shares one subject, so every current
// subscriber receives every triple that arrives.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>

#include "network/sources.hpp"
#include "support/subject.hpp"
#include "transport/http_client.hpp"

namespace zelvanor::detail {

class IdentitySync final : public IdentitySource,
                           public std::enable_shared_from_this<IdentitySync> {
 public:
  explicit IdentitySync(std::shared_ptr<network::HttpClient> http) : http_(std::move(http)) {}

  support::Cancellable fetchXid(std::function<void(const ZXid&)> onTriple) override;
  /// Asks the server again (or takes the cookies, if a later answer set all three) for those
  /// subscribed; nothing while a request is under way or once a triple was published.
  void retry() override;
  /// Forgets the triple: the cookies go (in memory and in the jar file), an answer still on its
  /// way is ignored, and the next retry() asks the server for a new one.
  void forget() override;

  /// Handles one answer of the sync server: publishes the first triple of "data", if any.
  /// False when the answer holds no triple.
  bool handleAnswer(std::string_view body);
  std::uint64_t requestsStarted() const noexcept { return requestsStarted_.load(); }

 private:
  std::shared_ptr<network::HttpClient> http_;
  support::PassthroughSubject<ZXid> xidSubject_;
  std::atomic<std::uint64_t> requestsStarted_{0};
  std::atomic<bool> requestUnderWay_{false};
  /// A request asked for while one was under way: it goes once that one is answered, so that it
  /// carries the cookies the answer set (two requests at once would get two identities).
  std::atomic<bool> requestDeferred_{false};
  std::mutex requestMutex_;  ///< orders the start and the end of a request with deferring
  std::atomic<bool> published_{false};
  std::atomic<std::uint64_t> generation_{0};  ///< one more per forget()
  void sendRequest();
};

}  // namespace zelvanor::detail
