// The JSON writer against references: its word-at-a-time string scan must find every byte that
// needs an escape wherever it sits in a word, never read past the text, and still reject invalid
// UTF-8; its raw output buffer must hold exactly the text.
#include <gtest/gtest.h>
#include <simdjson.h>

#include <array>
#include <bit>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "support/json_writer.hpp"
#include "support/string_scan.hpp"

namespace zelvanor::detail {
namespace {

TEST(StringScan, FirstMarkIsTheFirstByteThatNeedsAnEscape) {
  // Every pair of byte values side by side, at every place in the word, on backgrounds that are
  // plain ASCII, the last ASCII byte, and non-ASCII: borrows must never mark a byte below the
  // first real one, and no real one may go unmarked.
  for (const unsigned char background : {'a', ' ', '\x7f', '\x80', '\xff'}) {
    for (std::size_t place = 0; place + 1 < 8; ++place) {
      for (unsigned first = 0; first < 256; ++first) {
        for (unsigned second = 0; second < 256; ++second) {
          std::array<unsigned char, 8> bytes;
          bytes.fill(background);
          bytes[place] = static_cast<unsigned char>(first);
          bytes[place + 1] = static_cast<unsigned char>(second);
          std::size_t expected = 8;
          for (std::size_t i = 0; i < 8 && expected == 8; ++i) {
            if (bytes[i] < 0x20 || bytes[i] == '"' || bytes[i] == '\\') expected = i;
          }
          const std::uint64_t marks = scan::escapeBytes(std::bit_cast<std::uint64_t>(bytes));
          ASSERT_EQ(marks == 0 ? 8 : scan::firstMarked(marks), expected)
              << "bytes " << first << ", " << second << " at " << place;
        }
      }
    }
  }
}

// ----- strings end to end -------------------------------------------------------------------

// simdjson is the reference: it must accept exactly the valid UTF-8, read the text back, and
// write it again byte for byte (its minimal escapes are the ones the format asks for).
void expectMatchesTheReferences(const std::string& text) {
  // A copy in a heap block of exactly its size, so that a sanitizer build catches any read past
  // its end.
  const std::vector<char> exact(text.begin(), text.end());
  std::string out;
  JsonWriter writer(out, /*pretty=*/false);
  const bool ok = writer.string(std::string_view(exact.data(), exact.size()));
  ASSERT_EQ(ok, simdjson::validate_utf8(text.data(), text.size())) << testing::PrintToString(text);
  if (!ok) return;
  static simdjson::dom::parser parser;
  simdjson::dom::element parsed;
  ASSERT_EQ(parser.parse(out).get(parsed), simdjson::SUCCESS) << out;
  ASSERT_EQ(std::string_view(parsed.get_string()), text) << out;
  ASSERT_EQ(simdjson::minify(parsed), out);
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
        for (std::size_t pair = 0; pair < std::size(specials) * std::size(specials); ++pair) {
          std::string text = plain;
          text[first] = specials[pair / std::size(specials)];
          text[second] = specials[pair % std::size(specials)];
          ASSERT_NO_FATAL_FAILURE(expectMatchesTheReferences(text));
        }
      }
    }
  }
  // Random strings of the bytes above, plain text, whole UTF-8 sequences, and sequences that are
  // invalid: a surrogate, an overlong form, and one above U+10FFFF.
  std::vector<std::string> pieces = {
      "plain",        "\xc3\xa9", "\xe2\x9c\x93",    "\xf0\x9f\x98\x80",
      "\xed\xa0\x80", "\xc0\xaf", "\xf4\x90\x80\x80"};
  for (const char special : specials) pieces.emplace_back(1, special);
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

// The codec writes its keys from compile-time tokens (checked through its exact output); other
// writers use run-time keys. Each document is written after what the string already holds.
TEST(JsonWriter, WritesExactlyTheDocumentCompactAndPrettyAfterWhatTheStringHolds) {
  const auto document = [](bool pretty) {
    std::string out = "before ";
    JsonWriter writer(out, pretty);
    writer.beginObject();
    writer.key("a");
    writer.beginObject();
    writer.endObject();
    writer.key("with_under_score");
    writer.beginArray();
    writer.element();
    writer.beginObject();
    writer.key("a");
    writer.boolean(false);
    writer.key("b");
    writer.number(-0.0);
    writer.endObject();
    writer.element();
    writer.beginArray();
    writer.endArray();
    writer.endArray();
    writer.endObject();
    return out;
  };
  std::string out = document(false);
  const std::string compact = R"(before {"a":{},"with_under_score":[{"a":false,"b":-0.0},[]]})";
  EXPECT_EQ(out, compact);
  EXPECT_EQ(document(true),
            "before {\n  \"a\": {},\n  \"with_under_score\": [\n    {\n      \"a\": false,\n"
            "      \"b\": -0.0\n    },\n    []\n  ]\n}");

  // A second writer on the same string picks up where the first one stopped, and writes far more
  // than its first room: it grows many times while the array is open.
  JsonWriter writer(out, /*pretty=*/false);
  writer.beginArray();
  std::string expected = compact + "[";
  for (int i = 0; i < 5000; ++i) {
    writer.element();
    writer.integer(std::numeric_limits<std::int64_t>::max());
    expected += (i == 0 ? "" : ",") + std::string("9223372036854775807");
  }
  writer.endArray();
  EXPECT_EQ(out, expected + "]");
}

}  // namespace
}  // namespace zelvanor::detail
