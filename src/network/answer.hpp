// What the collector's answer (or its absence) means for the record a request carried.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "transport/http_client.hpp"

namespace zelvanor::detail {

enum class AnswerKind {
  delivered,         ///< the exact body "ok", whatever the status
  refused,           ///< any other answer: a verdict on the record, which is dropped
  comeBackLater,     ///< 429, 502, 503, 504 without "ok": kept, first in line, after a wait
  redirected,        ///< 3xx without "ok": never followed; kept as after a transport failure
  transportFailure,  ///< no answer at all: kept and tried again after a back-off
};

AnswerKind classifyAnswer(const network::HttpOutcome& outcome) noexcept;

/// The start of an answer, as one printable quoted line: enough to tell a proxy's error page from
/// the collector's verdict. Identifying values (the SDK's own, and `more`) are hidden before the
/// cut, so that none shows in part.
std::string answerStart(std::string_view body, const std::vector<std::string>& more = {});

}  // namespace zelvanor::detail
