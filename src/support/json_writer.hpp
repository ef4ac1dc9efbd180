// A small JSON writer: exact shortest numbers via std::to_chars, no DOM, one output buffer.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "support/string_scan.hpp"

namespace zelvanor::detail {

/// A member's key as it is written: one byte for the separator before it, then "key":. The codec
/// builds one per field at compile time, so writing a key is a single fixed-size copy.
template <std::size_t N>
struct MemberToken {
  std::array<char, N> text{};

  consteval explicit MemberToken(std::string_view key) {
    if (key.size() + 4 != N) throw "MemberToken<N> needs N == key.size() + 4";
    text[1] = '"';
    for (std::size_t i = 0; i < key.size(); ++i) {
      const auto c = static_cast<unsigned char>(key[i]);
      // Keys are copied as they are, so they must be plain JSON string content.
      if (c < 0x20 || c == '"' || c == '\\') throw "a key that would need escaping";
      text[i + 2] = key[i];
    }
    text[N - 2] = '"';
    text[N - 1] = ':';
  }
};

/// Writes JSON into `out`, after whatever it already holds. Containers are opened and closed
/// explicitly; separators and (pretty) indentation are the writer's business.
///
/// The writer fills `out`'s storage through a raw cursor instead of appending piece by piece, so
/// while a container is open `out` is longer than the text: it is cut to the text each time a
/// top-level value is complete. Output left unfinished (after a failure) is for discarding.
class JsonWriter {
 public:
  JsonWriter(std::string& out, bool pretty);
  JsonWriter(const JsonWriter&) = delete;
  JsonWriter& operator=(const JsonWriter&) = delete;

  void beginObject() { open(); }
  void endObject() { close('{', '}'); }
  void beginArray() { open(); }
  void endArray() { close('[', ']'); }

  /// Starts a member; keys are the SDK's own constants and need no escaping.
  void key(std::string_view key);
  /// Starts a member whose key was prepared at compile time.
  // Always inlined, like close(): left to itself GCC keeps one out-of-line copy per key length,
  // and the call then costs about as much as the work.
  template <std::size_t N>
  [[gnu::always_inline]] void key(const MemberToken<N>& token) {
    if (pretty_) {
      prettyKey(std::string_view(token.text.data() + 1, N - 1));
      return;
    }
    const bool first = takeFirst();
    char* at = reserve(N);
    std::memcpy(at, token.text.data(), N);
    at[0] = first ? '{' : ',';
    cur_ = at + N;
  }
  /// Starts an array element.
  void element() { separate('['); }

  /// False when the text is not valid UTF-8 (JSON cannot carry it).
  bool string(std::string_view text) {
    using namespace scan;
    // Room for the quotes and the text as it is, plus one word: whole words are stored even
    // where only part of one is text.
    char* at = reserve(text.size() + 2 + kWord);
    *at++ = '"';
    const char* in = text.data();
    std::size_t left = text.size();
    std::uint64_t allBytes = 0;  // a high bit set here means non-ASCII text to check
    // Text with nothing to escape, by far the most common, is copied a word at a time. The
    // first byte that needs an escape hands the whole string to the general loop.
    for (; left >= kWord; left -= kWord, in += kWord, at += kWord) {
      const std::uint64_t word = loadWord(in);
      if (escapeBytes(word) != 0) [[unlikely]]
        return escapedString(text);
      std::memcpy(at, &word, kWord);
      allBytes |= word;
    }
    if (left != 0) {
      const std::uint64_t word = loadTail(text, left);
      if (escapeBytes(word) != 0) [[unlikely]]
        return escapedString(text);
      std::memcpy(at, &word, kWord);
      allBytes |= word;
      at += left;
    }
    *at++ = '"';
    cur_ = at;
    valueDone();
    // Most of what we write is ASCII, which is valid UTF-8 by construction; only other text
    // pays for the full check. On failure the caller discards the whole output.
    return (allBytes & kHighBits) == 0 || validUtf8(text);
  }
  void integer(std::int64_t value);
  void integer(std::uint64_t value);
  /// False for NaN and infinities.
  bool number(double value);
  bool number(float value);
  void boolean(bool value) {
    char* at = reserve(5);
    std::memcpy(at, value ? "true" : "false", 5);  // "true" brings its terminator: 5 bytes too
    cur_ = at + (value ? 4 : 5);
    valueDone();
  }

 private:
  // Room for `size` more bytes at the cursor.
  char* reserve(std::size_t size) {
    if (static_cast<std::size_t>(end_ - cur_) < size) grow(size);
    return cur_;
  }
  void grow(std::size_t size);
  // Cuts `out` to the text written so far.
  void commit() noexcept;
  void valueDone() {
    if (depth_ == 0) commit();
  }

  // True for the first member or element of the innermost container.
  bool takeFirst() {
    const bool first = empty_;
    empty_ = false;
    return first;
  }
  void open() {
    ++depth_;
    empty_ = true;
  }
  [[gnu::always_inline]] void close(char opening, char closing) {
    const bool wasEmpty = takeFirst();
    --depth_;
    if (pretty_ && !wasEmpty) newline();
    char* at = reserve(2);
    at[0] = wasEmpty ? opening : closing;
    at[1] = closing;
    cur_ = at + (wasEmpty ? 2 : 1);
    valueDone();
  }
  // An opening bracket is written together with the first member or element, so the byte before
  // each of them is simply its separator: the bracket or a comma.
  void separate(char opening);
  void prettyKey(std::string_view quotedKeyAndColon);
  // string() for text with at least one byte to escape.
  bool escapedString(std::string_view text);
  static bool validUtf8(std::string_view text);
  void newline();

  std::string& out_;
  char* cur_ = nullptr;
  char* end_ = nullptr;
  bool pretty_;
  int depth_ = 0;
  // The innermost open container has no member yet. One flag is enough: a container is itself a
  // member or element of the one around it, so once it is closed that one is never empty.
  bool empty_ = false;
};

}  // namespace zelvanor::detail
