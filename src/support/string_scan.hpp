// Word-at-a-time (8 bytes) scanning of string content for the JSON writer: which bytes need an
// escape, and whether any byte is non-ASCII, without looking at bytes one by one.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace zelvanor::detail::scan {

inline constexpr std::size_t kWord = 8;
inline constexpr std::uint64_t kOnes = 0x0101010101010101;
inline constexpr std::uint64_t kHighBits = kOnes * 0x80;

/// Marks (sets the high bit of) the bytes JSON strings cannot carry as they are: control
/// characters, quote and backslash; slashes are left alone. Only the lowest mark is exact: a
/// borrow can also mark bytes above a marked one, never below it. Callers act on that one only.
constexpr std::uint64_t escapeBytes(std::uint64_t word) {
  // Each difference sets a byte's high bit when that byte is below 0x20, or is '"' or '\\' (the
  // difference wraps); the mask then drops bytes whose own high bit is set.
  const std::uint64_t wrapped =
      (word - kOnes * 0x20) | ((word ^ (kOnes * '"')) - kOnes) | ((word ^ (kOnes * '\\')) - kOnes);
  return wrapped & ~word & kHighBits;
}

/// The index of the first byte that needs an escape, given escapeBytes(word) != 0.
constexpr std::size_t firstMarked(std::uint64_t marks) {
  return static_cast<std::size_t>(std::countr_zero(marks)) / 8;
}

/// `Word`'s bytes read from `in` with the first byte lowest, whatever the machine's byte order:
/// firstMarked counts from the low end.
template <class Word>
Word loadLittleEndian(const char* in) {
  Word word = 0;
  std::memcpy(&word, in, sizeof word);
  if constexpr (std::endian::native == std::endian::big) {
    Word swapped = 0;
    for (std::size_t i = 0; i < sizeof word; ++i, word >>= 8) {
      swapped = static_cast<Word>((swapped << 8) | (word & 0xFF));
    }
    word = swapped;
  }
  return word;
}

inline std::uint64_t loadWord(const char* in) {
  return loadLittleEndian<std::uint64_t>(in);
}

/// The last `size` (1 to 7) bytes of `text` as the low bytes of a word, without reading past
/// them. The bytes above are spaces: nothing to escape, nothing non-ASCII.
inline std::uint64_t loadTail(std::string_view text, std::size_t size) {
  const char* const end = text.data() + text.size();
  const std::uint64_t spaces = (kOnes * ' ') << (8 * size);
  // A string of a word or more has a whole word before its end to shift down.
  if (text.size() >= kWord) return (loadWord(end - kWord) >> (8 * (kWord - size))) | spaces;
  const char* in = end - size;
  std::uint64_t word = 0;
  unsigned shift = 0;
  if (size & 4) {
    word = loadLittleEndian<std::uint32_t>(in);
    shift = 32;
    in += 4;
  }
  if (size & 2) {
    word |= std::uint64_t{loadLittleEndian<std::uint16_t>(in)} << shift;
    shift += 16;
    in += 2;
  }
  if (size & 1) word |= std::uint64_t{static_cast<unsigned char>(*in)} << shift;
  return word | spaces;
}

}  // namespace zelvanor::detail::scan
