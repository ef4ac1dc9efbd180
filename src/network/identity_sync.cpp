#include "network/identity_sync.hpp"

#include <optional>
#include <vector>

#include "network/http_api.hpp"
#include "support/diagnostics.hpp"
#include "support/settings.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {

namespace {

std::optional<std::string> firstCookie(const std::vector<network::Cookie>& cookies,
                                       std::string_view name) {
  for (const auto& cookie : cookies) {
    if (cookie.name == name) return cookie.value;
  }
  return std::nullopt;
}

}  // namespace

support::Cancellable IdentitySync::fetchXid(std::function<void(const ZXid&)> onTriple) {
  const auto cookies = http_->cookiesFor(ZHttpApi::idSync().endpoint());
  auto cid = firstCookie(cookies, "fa_cid");
  auto did = cid ? firstCookie(cookies, "fa_did") : std::nullopt;
  auto sid = did ? firstCookie(cookies, "fa_sid") : std::nullopt;
  if (cid && did && sid) {
    // All three known from an earlier sync: no request. Any partial set is ignored entirely.
    onTriple(ZXid{std::move(*cid), std::move(*did), std::move(*sid)});
    return {};
  }

  auto subscription = xidSubject_.subscribe(std::move(onTriple));
  sendRequest();
  return subscription;
}

void IdentitySync::sendRequest() {
  // Collection off: no request leaves the process. The manager asks again when it is back on.
  if (!settings().collectionEnabled.load()) return;
  {
    std::lock_guard lock(requestMutex_);
    if (requestUnderWay_.exchange(true)) {
      requestDeferred_ = true;
      return;
    }
  }
  auto request = ZHttpApi::idSync().urlRequest();
  requestsStarted_.fetch_add(1);
  std::weak_ptr<IdentitySync> weak = weak_from_this();
  const std::uint64_t generation = generation_.load();
  http_->send(std::move(request), [weak, generation](network::HttpOutcome outcome) {
    auto self = weak.lock();
    if (!self) return;
    if (generation != self->generation_.load()) {
      // Asked before the app's data was deleted: its triple (and any cookie its answer set) is
      // the identity the host asked to forget.
      self->http_->clearCookies();
      return;
    }
    // A failure is asked again by the SDK's back-off while no triple is known.
    if (const auto* response = std::get_if<network::HttpResponse>(&outcome)) {
      if (!self->handleAnswer(response->body)) {
        // The answer's body is not shown: it would carry identifiers when it is half right.
        diagnose(ZLogLevel::warning, "identity sync failed: the answer (HTTP " +
                                         std::to_string(response->status) +
                                         ") holds no identity triple; events wait and the "
                                         "sync server is asked again later");
      }
    } else {
      const auto& failure = std::get<network::TransportError>(outcome);
      diagnose(failure.tls ? ZLogLevel::error : ZLogLevel::warning,
               std::string("identity sync failed: ") + (failure.tls ? "TLS failure: " : "") +
                   failure.description + "; events wait and the sync server is asked again later");
    }
    // Only now, once a triple in the answer is published: a retry in between would otherwise ask
    // the server again, or publish the triple a second time.
    bool again = false;
    {
      std::lock_guard lock(self->requestMutex_);
      self->requestUnderWay_ = false;
      again = self->requestDeferred_.exchange(false);
    }
    // A request asked for meanwhile goes now, with the cookies this answer set; once a triple
    // is published it would only bring the same one back.
    if (again && !self->published_) self->sendRequest();
  });
}

void IdentitySync::forget() {
  generation_.fetch_add(1);
  http_->clearCookies();
  published_ = false;
  std::lock_guard lock(requestMutex_);
  requestUnderWay_ = false;
  requestDeferred_ = false;
}

void IdentitySync::retry() {
  if (published_ || requestUnderWay_) return;
  const auto cookies = http_->cookiesFor(ZHttpApi::idSync().endpoint());
  auto cid = firstCookie(cookies, "fa_cid");
  auto did = cid ? firstCookie(cookies, "fa_did") : std::nullopt;
  auto sid = did ? firstCookie(cookies, "fa_sid") : std::nullopt;
  if (cid && did && sid) {
    published_ = true;
    xidSubject_.send(ZXid{std::move(*cid), std::move(*did), std::move(*sid)});
    return;
  }
  sendRequest();
}

bool IdentitySync::handleAnswer(std::string_view body) {
  // Only the body counts: the HTTP status, "status" and "version" are not inspected.
  auto envelope = decodeJson<ZHTTPResult<std::vector<ZXid>>>(body);
  if (!envelope || !envelope->data || envelope->data->empty()) return false;
  published_ = true;
  xidSubject_.send(envelope->data->front());
  return true;
}

}  // namespace zelvanor::detail
