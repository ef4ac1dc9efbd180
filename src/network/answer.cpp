#include "network/answer.hpp"

#include "support/diagnostics.hpp"

namespace zelvanor::detail {

AnswerKind classifyAnswer(const network::HttpOutcome& outcome) noexcept {
  const auto* response = std::get_if<network::HttpResponse>(&outcome);
  if (response == nullptr) return AnswerKind::transportFailure;
  // The collector treats only the exact body ok as success; the status is not looked at then.
  if (response->body == "ok") return AnswerKind::delivered;
  // What a load balancer or a busy collector says to mean "not now" rather than judge the record.
  switch (response->status) {
    case 429:
    case 502:
    case 503:
    case 504:
      return AnswerKind::comeBackLater;
    default:
      break;
  }
  // An endpoint moved, or a proxy is in the way: no verdict on the record, and records go only
  // where the host said, so it is not followed.
  if (response->status >= 300 && response->status < 400) return AnswerKind::redirected;
  return AnswerKind::refused;
}

std::string answerStart(std::string_view body, const std::vector<std::string>& more) {
  constexpr std::size_t kShown = 120;
  // Only the start of a long answer is searched, room for a long token included.
  constexpr std::size_t kSearched = kShown + 8192;
  const std::string hidden = withoutHiddenValues(body.substr(0, kSearched), more);
  std::string text;
  for (const char c : std::string_view(hidden).substr(0, kShown)) {
    const auto byte = static_cast<unsigned char>(c);
    text.push_back(byte < 0x20 || byte == 0x7f ? ' ' : c);
  }
  if (hidden.size() > kShown || body.size() > kSearched) text += "...";
  return text.empty() ? "(empty)" : "\"" + text + "\"";
}

}  // namespace zelvanor::detail
