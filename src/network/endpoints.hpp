// The servers in force, process-wide; read whenever a request is built.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "zelvanor/endpoints.hpp"

namespace zelvanor::detail {

ZEndpoints currentEndpoints();
/// False (nothing changed) unless every URL parses as an absolute https URL.
bool replaceEndpoints(const ZEndpoints& endpoints);
/// The URL for `path` on `base` ("https://h:1" + "/sdk/track"), or absent if it does not parse
/// as an https URL.
std::optional<std::string> joinHttpsUrl(std::string_view base, std::string_view pathAndQuery);

}  // namespace zelvanor::detail
