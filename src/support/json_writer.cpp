#include "support/json_writer.hpp"

#include <simdjson.h>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace zelvanor::detail {

namespace {

// The shortest round-trip text of any double or float is at most 24 characters.
constexpr std::size_t kNumberRoom = 32;

// Writes the escape of one byte that needs it; at most six bytes.
char* writeEscape(char* at, unsigned char c) {
  static constexpr char kHex[] = "0123456789abcdef";
  char shortForm = 0;
  switch (c) {
    case '"':
      shortForm = '"';
      break;
    case '\\':
      shortForm = '\\';
      break;
    case '\n':
      shortForm = 'n';
      break;
    case '\r':
      shortForm = 'r';
      break;
    case '\t':
      shortForm = 't';
      break;
    case '\b':
      shortForm = 'b';
      break;
    case '\f':
      shortForm = 'f';
      break;
    default: {
      const char escaped[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
      std::memcpy(at, escaped, sizeof escaped);
      return at + sizeof escaped;
    }
  }
  at[0] = '\\';
  at[1] = shortForm;
  return at + 2;
}

}  // namespace

JsonWriter::JsonWriter(std::string& out, bool pretty)
    : out_(out), cur_(out.data() + out.size()), end_(cur_), pretty_(pretty) {}

void JsonWriter::grow(std::size_t size) {
  const auto used = static_cast<std::size_t>(cur_ - out_.data());
  // All the capacity the string already has, else double: few reallocations and zero fills.
  constexpr std::size_t kMinimum = 256;
  out_.resize(std::max({used + size, out_.capacity(), 2 * out_.size(), kMinimum}));
  cur_ = out_.data() + used;
  end_ = out_.data() + out_.size();
}

void JsonWriter::commit() noexcept {
  out_.resize(static_cast<std::size_t>(cur_ - out_.data()));
  end_ = cur_;  // the room beyond the text is gone; the next write makes it again
}

void JsonWriter::separate(char opening) {
  char* at = reserve(1);
  at[0] = takeFirst() ? opening : ',';
  cur_ = at + 1;
  if (pretty_) newline();
}

void JsonWriter::newline() {
  const auto indent = static_cast<std::size_t>(depth_) * 2;
  char* at = reserve(1 + indent);
  at[0] = '\n';
  std::memset(at + 1, ' ', indent);
  cur_ = at + 1 + indent;
}

void JsonWriter::key(std::string_view key) {
  separate('{');
  char* at = reserve(key.size() + 4);
  *at++ = '"';
  std::memcpy(at, key.data(), key.size());
  at += key.size();
  *at++ = '"';
  *at++ = ':';
  if (pretty_) *at++ = ' ';
  cur_ = at;
}

void JsonWriter::prettyKey(std::string_view quotedKeyAndColon) {
  separate('{');
  char* at = reserve(quotedKeyAndColon.size() + 1);
  std::memcpy(at, quotedKeyAndColon.data(), quotedKeyAndColon.size());
  at[quotedKeyAndColon.size()] = ' ';
  cur_ = at + quotedKeyAndColon.size() + 1;
}

bool JsonWriter::validUtf8(std::string_view text) {
  return simdjson::validate_utf8(text.data(), text.size());
}

bool JsonWriter::escapedString(std::string_view text) {
  using namespace scan;
  const char* in = text.data();
  const char* const inEnd = in + text.size();
  // The cursor has not moved: the opening quote and the clean words are simply written again.
  char* at = reserve(text.size() + 2 + kWord);
  *at++ = '"';
  std::uint64_t allBytes = 0;
  while (in != inEnd) {
    const auto left = static_cast<std::size_t>(inEnd - in);
    const std::size_t size = left < kWord ? left : kWord;
    const std::uint64_t word = size == kWord ? loadWord(in) : loadTail(text, size);
    allBytes |= word;
    // Stored before it is checked: the bytes up to the first escape are the output either way.
    std::memcpy(at, &word, kWord);
    const std::uint64_t marks = escapeBytes(word);
    if (marks == 0) {
      at += size;
      in += size;
      continue;
    }
    const std::size_t clean = firstMarked(marks);
    at += clean;
    in += clean;
    // Six bytes at most for this escape, then the rest as it is, the closing quote and a word.
    cur_ = at;
    at = reserve(6 + static_cast<std::size_t>(inEnd - in - 1) + 1 + kWord);
    at = writeEscape(at, static_cast<unsigned char>(*in));
    ++in;
  }
  *at++ = '"';
  cur_ = at;
  valueDone();
  return (allBytes & kHighBits) == 0 || validUtf8(text);
}

void JsonWriter::integer(std::int64_t value) {
  constexpr std::size_t kLongest = 20;  // "-9223372036854775808"
  char* at = reserve(kLongest);
  cur_ = std::to_chars(at, at + kLongest, value).ptr;
  valueDone();
}

void JsonWriter::integer(std::uint64_t value) {
  constexpr std::size_t kLongest = 20;  // "18446744073709551615"
  char* at = reserve(kLongest);
  cur_ = std::to_chars(at, at + kLongest, value).ptr;
  valueDone();
}

bool JsonWriter::number(double value) {
  if (!std::isfinite(value)) return false;
  char* at = reserve(kNumberRoom);
  if (value == 0 && std::signbit(value)) {
    // "-0" reads back as the integer 0; the fraction keeps the sign through a round trip.
    constexpr char kNegativeZero[] = {'-', '0', '.', '0'};
    std::memcpy(at, kNegativeZero, sizeof kNegativeZero);
    cur_ = at + sizeof kNegativeZero;
  } else {
    cur_ = std::to_chars(at, at + kNumberRoom, value).ptr;
  }
  valueDone();
  return true;
}

bool JsonWriter::number(float value) {
  if (!std::isfinite(value)) return false;
  if (value == 0 && std::signbit(value)) return number(static_cast<double>(value));
  // Shortest text that reads back as the same float: 0.1f is "0.1", not 0.10000000149011612.
  char* at = reserve(kNumberRoom);
  cur_ = std::to_chars(at, at + kNumberRoom, value).ptr;
  valueDone();
  return true;
}

}  // namespace zelvanor::detail
