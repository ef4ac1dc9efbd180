#include "model/json_writer.hpp"

#include <simdjson.h>

#include <array>
#include <charconv>
#include <cmath>

namespace zelvanor::detail {

namespace {

// Bytes that JSON strings cannot carry as they are: control characters, quote and backslash.
// Slashes are left alone.
constexpr auto kNeedsEscape = [] {
  std::array<bool, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[static_cast<std::size_t>(c)] = true;
  table['"'] = true;
  table['\\'] = true;
  return table;
}();

}  // namespace

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
  static constexpr char kHex[] = "0123456789abcdef";
  out_.push_back('"');
  std::size_t runStart = 0;
  unsigned char seen = 0;  // OR of every byte: bit 7 set means there is non-ASCII text to check
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    seen |= c;
    if (!kNeedsEscape[c]) continue;
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
  // Most of what we write is ASCII, which is valid UTF-8 by construction; only other text pays
  // for the full check. On failure the caller discards the whole output.
  return (seen & 0x80) == 0 || simdjson::validate_utf8(text.data(), text.size());
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
