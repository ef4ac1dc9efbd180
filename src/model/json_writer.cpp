#include "model/json_writer.hpp"

#include <simdjson.h>

#include <charconv>
#include <cmath>

namespace zelvanor::detail {

void JsonWriter::open(char bracket) {
  out_.push_back(bracket);
  ++depth_;
  empty_ |= (std::uint64_t{1} << (depth_ & 63));
}

void JsonWriter::close(char bracket) {
  const bool wasEmpty = (empty_ >> (depth_ & 63)) & 1U;
  empty_ &= ~(std::uint64_t{1} << (depth_ & 63));
  --depth_;
  if (pretty_ && !wasEmpty) newline();
  out_.push_back(bracket);
}

void JsonWriter::newline() {
  out_.push_back('\n');
  out_.append(static_cast<std::size_t>(depth_) * 2, ' ');
}

void JsonWriter::separate() {
  const std::uint64_t bit = std::uint64_t{1} << (depth_ & 63);
  if (empty_ & bit) {
    empty_ &= ~bit;
  } else {
    out_.push_back(',');
  }
  if (pretty_) newline();
}

void JsonWriter::key(std::string_view key) {
  separate();
  out_.push_back('"');
  out_.append(key);
  out_.append(pretty_ ? "\": " : "\":");
}

bool JsonWriter::string(std::string_view text) {
  if (!simdjson::validate_utf8(text.data(), text.size())) return false;
  static constexpr char kHex[] = "0123456789abcdef";
  out_.push_back('"');
  std::size_t runStart = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out_.append(text.data() + runStart, i - runStart);
    runStart = i + 1;
    switch (c) {
      case '"':
        out_.append("\\\"");
        break;
      case '\\':
        out_.append("\\\\");
        break;
      case '\n':
        out_.append("\\n");
        break;
      case '\r':
        out_.append("\\r");
        break;
      case '\t':
        out_.append("\\t");
        break;
      case '\b':
        out_.append("\\b");
        break;
      case '\f':
        out_.append("\\f");
        break;
      default: {
        const char escaped[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
        out_.append(escaped, sizeof escaped);
      }
    }
  }
  out_.append(text.data() + runStart, text.size() - runStart);
  out_.push_back('"');
  return true;
}

void JsonWriter::integer(std::int64_t value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out_.append(buffer, result.ptr);
}

bool JsonWriter::number(double value) {
  if (!std::isfinite(value)) return false;
  if (value == 0 && std::signbit(value)) {
    // "-0" reads back as the integer 0; the fraction keeps the sign through a round trip.
    out_.append("-0.0");
    return true;
  }
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out_.append(buffer, result.ptr);
  return true;
}

bool JsonWriter::number(float value) {
  if (!std::isfinite(value)) return false;
  if (value == 0 && std::signbit(value)) return number(static_cast<double>(value));
  // Shortest text that reads back as the same float: 0.1f is "0.1", not 0.10000000149011612.
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out_.append(buffer, result.ptr);
  return true;
}

}  // namespace zelvanor::detail
