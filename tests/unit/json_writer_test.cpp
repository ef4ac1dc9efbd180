// The JSON writer against simple byte-by-byte references written here: its word-at-a-time string
// scan must find every byte that needs an escape wherever it sits in a word, never read past the
// text, and still reject invalid UTF-8; its raw output buffer must hold exactly the text.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "support/json_writer.hpp"
#include "support/string_scan.hpp"

namespace zelvanor::detail {
namespace {

bool needsEscape(unsigned char c) {
  return c < 0x20 || c == '"' || c == '\\';
}

std::string referenceString(std::string_view text) {
  static const std::pair<char, const char*> kShortForms[] = {
      {'"', "\\\""}, {'\\', "\\\\"}, {'\n', "\\n"}, {'\r', "\\r"},
      {'\t', "\\t"}, {'\b', "\\b"},  {'\f', "\\f"}};
  std::string out = "\"";
  for (const char byte : text) {
    const auto c = static_cast<unsigned char>(byte);
    const auto* shortForm = std::find_if(std::begin(kShortForms), std::end(kShortForms),
                                         [&](const auto& form) { return form.first == byte; });
    if (shortForm != std::end(kShortForms)) {
      out += shortForm->second;
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
      out += escaped;
    } else {
      out += byte;
    }
  }
  return out + "\"";
}

// Shortest forms only, no surrogates, nothing above U+10FFFF.
bool referenceValidUtf8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) {
      ++i;
      continue;
    }
    std::size_t extra = 0;
    std::uint32_t codePoint = 0, smallest = 0;
    if (lead >= 0xC0 && lead < 0xE0) {
      extra = 1, codePoint = lead & 0x1F, smallest = 0x80;
    } else if (lead >= 0xE0 && lead < 0xF0) {
      extra = 2, codePoint = lead & 0x0F, smallest = 0x800;
    } else if (lead >= 0xF0 && lead < 0xF8) {
      extra = 3, codePoint = lead & 0x07, smallest = 0x10000;
    } else {
      return false;
    }
    if (text.size() - i <= extra) return false;
    for (std::size_t k = 1; k <= extra; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    if (codePoint < smallest || codePoint > 0x10FFFF) return false;
    if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return false;
    i += extra + 1;
  }
  return true;
}

// The text in a heap block of exactly its size, so that a sanitizer build catches any read past
// its end.
class ExactText {
 public:
  explicit ExactText(std::string_view text) : bytes_(new char[text.size()]), size_(text.size()) {
    if (size_ != 0) std::memcpy(bytes_.get(), text.data(), size_);
  }
  std::string_view view() const { return {bytes_.get(), size_}; }

 private:
  std::unique_ptr<char[]> bytes_;
  std::size_t size_;
};

struct Written {
  std::string text;
  bool ok;
};

Written writeString(std::string_view text) {
  const ExactText exact(text);
  std::string out;
  JsonWriter writer(out, /*pretty=*/false);
  const bool ok = writer.string(exact.view());
  return {out, ok};
}

// ----- the word scan ------------------------------------------------------------------------

std::uint64_t wordOf(const unsigned char (&bytes)[8]) {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, 8);
  return word;
}

TEST(StringScan, FirstMarkIsTheFirstByteThatNeedsAnEscape) {
  // Every pair of byte values side by side, at every place in the word, on backgrounds that are
  // plain ASCII, the last ASCII byte, and non-ASCII: borrows must never mark a byte below the
  // first real one, and no real one may go unmarked.
  for (const unsigned char background : {'a', ' ', '\x7f', '\x80', '\xff'}) {
    for (std::size_t place = 0; place + 1 < 8; ++place) {
      for (unsigned first = 0; first < 256; ++first) {
        for (unsigned second = 0; second < 256; ++second) {
          unsigned char bytes[8];
          std::memset(bytes, background, sizeof bytes);
          bytes[place] = static_cast<unsigned char>(first);
          bytes[place + 1] = static_cast<unsigned char>(second);
          std::size_t expected = 8;
          for (std::size_t i = 0; i < 8 && expected == 8; ++i) {
            if (needsEscape(bytes[i])) expected = i;
          }
          const std::uint64_t marks = scan::escapeBytes(wordOf(bytes));
          if (expected == 8) {
            ASSERT_EQ(marks, 0U) << "bytes " << first << ", " << second << " at " << place;
          } else {
            ASSERT_NE(marks, 0U) << "bytes " << first << ", " << second << " at " << place;
            ASSERT_EQ(scan::firstMarked(marks), expected)
                << "bytes " << first << ", " << second << " at " << place;
          }
        }
      }
    }
  }
}

// ----- strings end to end -------------------------------------------------------------------

void expectMatchesTheReferences(const std::string& text) {
  const auto result = writeString(text);
  ASSERT_EQ(result.ok, referenceValidUtf8(text)) << testing::PrintToString(text);
  if (!result.ok) return;
  ASSERT_EQ(result.text, referenceString(text)) << testing::PrintToString(text);
}

TEST(JsonWriterString, EveryPlacementRandomTextAndLongTextMatchTheReferences) {
  // One or two special bytes at every pair of places in texts up to two words and a bit long:
  // escapes within a word, across word boundaries and in the tail (which the scan loads padded),
  // and bytes that are invalid UTF-8 on their own.
  const char specials[] = {'"', '\\', '\0', '\x01', '\n', '\x1f', ' ', '/', '\x7f', '\x80', '\xc3'};
  for (std::size_t length = 0; length <= 17; ++length) {
    const std::string plain(length, 'x');
    for (std::size_t first = 0; first < length; ++first) {
      for (std::size_t second = first; second < length; ++second) {
        for (const char a : specials) {
          for (const char b : specials) {
            std::string text = plain;
            text[first] = a;
            text[second] = b;
            ASSERT_NO_FATAL_FAILURE(expectMatchesTheReferences(text));
          }
        }
      }
    }
  }
  // Plain and special ASCII, whole UTF-8 sequences, and pieces of them (invalid on their own).
  const char* const pieces[] = {"a",
                                "Z",
                                " ",
                                "/",
                                "\"",
                                "\\",
                                "\n",
                                "\x1f",
                                "\x7f",
                                "\xc3\xa9",
                                "\xe2\x9c\x93",
                                "\xf0\x9f\x98\x80",
                                "\xc3",
                                "\xa9",
                                "\xed\xa0\x80",
                                "\xc0\xaf",
                                "\xf4\x90\x80\x80"};
  std::mt19937 random(20251124);
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    const auto count = random() % 24;
    for (unsigned i = 0; i < count; ++i) text += pieces[random() % std::size(pieces)];
    ASSERT_NO_FATAL_FAILURE(expectMatchesTheReferences(text));
  }
  // Every ASCII byte over and over: the escapes make the output far longer than the room the
  // writer first takes for the text.
  std::string text;
  for (int i = 0; i < 100000; ++i) text += static_cast<char>(i % 0x80);
  expectMatchesTheReferences(text);
}

// ----- the output buffer and structure ------------------------------------------------------

TEST(JsonWriter, OutputHoldsExactlyTheTextAfterEachTopLevelValue) {
  std::string out = "before ";
  {
    JsonWriter writer(out, /*pretty=*/false);
    writer.beginObject();
    writer.key("k");
    writer.string("v");
    writer.endObject();
    EXPECT_EQ(out, "before {\"k\":\"v\"}");
  }
  // A second writer on the same string picks up where the first one stopped.
  JsonWriter writer(out, /*pretty=*/false);
  writer.integer(std::numeric_limits<std::int64_t>::min());
  const std::string head = "before {\"k\":\"v\"}-9223372036854775808";
  EXPECT_EQ(out, head);
  // Far more than the writer's first room: it grows many times while the array is open.
  writer.beginArray();
  for (int i = 0; i < 5000; ++i) {
    writer.element();
    writer.integer(std::numeric_limits<std::int64_t>::max());
  }
  writer.endArray();
  std::string expected = head + "[";
  for (int i = 0; i < 5000; ++i)
    expected += (i == 0 ? "" : ",") + std::string("9223372036854775807");
  EXPECT_EQ(out, expected + "]");
}

// The same document through compile-time and run-time keys.
template <class KeyWriter>
std::string document(bool pretty, KeyWriter writeKey) {
  std::string out;
  JsonWriter writer(out, pretty);
  writer.beginObject();
  writeKey(writer, 0);
  writer.beginObject();
  writer.endObject();
  writeKey(writer, 1);
  writer.beginArray();
  writer.endArray();
  writeKey(writer, 2);
  writer.beginArray();
  for (int i = 0; i < 2; ++i) {
    writer.element();
    writer.beginObject();
    writeKey(writer, 0);
    writer.boolean(i == 0);
    writeKey(writer, 1);
    writer.number(-0.0);
    writer.endObject();
  }
  writer.endArray();
  writeKey(writer, 1);
  writer.string("last");
  writer.endObject();
  return out;
}

TEST(JsonWriter, CompileTimeKeysWriteWhatRunTimeKeysWrite) {
  static constexpr MemberToken<5> kA{"a"};
  static constexpr MemberToken<10> kLonger{"longer"};
  static constexpr MemberToken<20> kUnder{"with_under_score"};
  const auto tokens = [](JsonWriter& writer, int which) {
    if (which == 0) writer.key(kA);
    if (which == 1) writer.key(kLonger);
    if (which == 2) writer.key(kUnder);
  };
  const auto names = [](JsonWriter& writer, int which) {
    const char* keys[] = {"a", "longer", "with_under_score"};
    writer.key(keys[which]);
  };
  const std::string compact = document(false, names);
  EXPECT_EQ(compact, R"({"a":{},"longer":[],"with_under_score":[{"a":true,"longer":-0.0},)"
                     R"({"a":false,"longer":-0.0}],"longer":"last"})");
  EXPECT_EQ(document(false, tokens), compact);
  const std::string pretty = document(true, names);
  EXPECT_EQ(pretty,
            "{\n  \"a\": {},\n  \"longer\": [],\n  \"with_under_score\": [\n    {\n"
            "      \"a\": true,\n      \"longer\": -0.0\n    },\n    {\n      \"a\": false,\n"
            "      \"longer\": -0.0\n    }\n  ],\n  \"longer\": \"last\"\n}");
  EXPECT_EQ(document(true, tokens), pretty);
}

}  // namespace
}  // namespace zelvanor::detail
