// Helpers of the WinHTTP client: UTF-8 and UTF-16 text, and WinHTTP's error codes in words.
#pragma once

#include <string>
#include <string_view>

namespace zelvanor::network {

std::wstring widen(std::string_view text);
std::string narrow(std::wstring_view text);
/// Failures a host fixes in its certificates or its TLS setup, not by waiting.
bool isTlsFailure(unsigned long error);
/// "step: what went wrong (code)".
std::string describeWinHttpError(const char* step, unsigned long error);

}  // namespace zelvanor::network
