// Text between the SDK (UTF-8) and WinHTTP (UTF-16), WinHTTP's errors as the SDK words them, and
// URLs read the way WinHTTP reads them.
#include <windows.h>
// windows.h first: winhttp.h builds on its types.
#include <winhttp.h>

#include <algorithm>
#include <cctype>
#include <optional>
#include <string>
#include <string_view>

#include "transport/system_http_client.hpp"
#include "transport/winhttp_text.hpp"

namespace zelvanor::network {

std::wstring widen(std::string_view text) {
  if (text.empty()) return {};
  const int length =
      MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(std::max(length, 0)), L'\0');
  if (length > 0) {
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(),
                        length);
  }
  return wide;
}

std::string narrow(std::wstring_view text) {
  if (text.empty()) return {};
  const int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                         nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<std::size_t>(std::max(length, 0)), '\0');
  if (length > 0) {
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), result.data(),
                        length, nullptr, nullptr);
  }
  return result;
}

bool isTlsFailure(unsigned long error) {
  switch (error) {
    case ERROR_WINHTTP_SECURE_FAILURE:
    case ERROR_WINHTTP_SECURE_CHANNEL_ERROR:
    case ERROR_WINHTTP_SECURE_INVALID_CA:
    case ERROR_WINHTTP_SECURE_INVALID_CERT:
    case ERROR_WINHTTP_SECURE_CERT_DATE_INVALID:
    case ERROR_WINHTTP_SECURE_CERT_CN_INVALID:
    case ERROR_WINHTTP_SECURE_CERT_REVOKED:
    case ERROR_WINHTTP_SECURE_CERT_REV_FAILED:
    case ERROR_WINHTTP_SECURE_CERT_WRONG_USAGE:
    case ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED:
      return true;
    default:
      return false;
  }
}

std::string describeWinHttpError(const char* step, unsigned long error) {
  const char* what = nullptr;
  switch (error) {
    case ERROR_WINHTTP_TIMEOUT:
      what = "timed out";
      break;
    case ERROR_WINHTTP_NAME_NOT_RESOLVED:
      what = "host name not resolved";
      break;
    case ERROR_WINHTTP_CANNOT_CONNECT:
      what = "cannot connect";
      break;
    case ERROR_WINHTTP_CONNECTION_ERROR:
      what = "connection reset";
      break;
    case ERROR_WINHTTP_OPERATION_CANCELLED:
      what = "cancelled";
      break;
    case ERROR_WINHTTP_INVALID_SERVER_RESPONSE:
      what = "invalid answer";
      break;
    case ERROR_WINHTTP_SECURE_FAILURE:
      what = "TLS or certificate failure";
      break;
    case ERROR_WINHTTP_SECURE_INVALID_CA:
      what = "certificate from an untrusted authority";
      break;
    case ERROR_WINHTTP_SECURE_CERT_CN_INVALID:
      what = "certificate names another host";
      break;
    case ERROR_WINHTTP_SECURE_CERT_DATE_INVALID:
      what = "certificate expired or not yet valid";
      break;
    default:
      break;
  }
  std::string text = std::string(step) + ": ";
  text += what ? what : "WinHTTP error";
  return text + " (" + std::to_string(error) + ")";
}

std::optional<UrlSchemeAndHost> readUrl(const std::string& url, bool anyScheme) {
  // WinHTTP reads http and https URLs only: another scheme (a SOCKS proxy's) is read as http.
  std::wstring wide = widen(url);
  const std::size_t separator = url.find("://");
  std::string scheme = separator == std::string::npos ? "" : url.substr(0, separator);
  std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (scheme.empty() ||
      scheme.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789+.-") != std::string::npos) {
    return std::nullopt;
  }
  if (anyScheme && scheme != "http" && scheme != "https") {
    wide = L"http" + widen(url.substr(separator));
  }
  URL_COMPONENTS parts{};
  parts.dwStructSize = sizeof parts;
  parts.dwHostNameLength = static_cast<DWORD>(-1);
  if (wide.find_first_of(L" \t\r\n") != std::wstring::npos ||
      !WinHttpCrackUrl(wide.c_str(), static_cast<DWORD>(wide.size()), 0, &parts)) {
    return std::nullopt;
  }
  return UrlSchemeAndHost{scheme,
                          narrow(std::wstring_view(parts.lpszHostName, parts.dwHostNameLength))};
}

}  // namespace zelvanor::network
