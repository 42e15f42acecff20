#include "Platform/JsonEscapes.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace JsonEscapes {

namespace {

constexpr std::uint32_t replacementCharacter = 0xFFFD;

// Returns where the writing ended.
char* writeUtf8(char* out, std::uint32_t codePoint) {
  if (codePoint < 0x80) {
    *out++ = static_cast<char>(codePoint);
    return out;
  }
  int trailing = codePoint < 0x800 ? 1 : codePoint < 0x10000 ? 2 : 3;
  constexpr unsigned char leads[] = {0, 0xC0, 0xE0, 0xF0};
  *out++ = static_cast<char>(leads[trailing] | codePoint >> 6 * trailing);
  while (trailing-- > 0)
    *out++ = static_cast<char>(0x80 | (codePoint >> 6 * trailing & 0x3F));
  return out;
}

// The code unit of the "\uXXXX" escape that `text` begins with; absent when it begins with none.
std::optional<std::uint32_t> codeUnit(std::string_view text) {
  std::uint32_t unit = 0;
  if (text.size() < 6 || !text.starts_with("\\u")) return std::nullopt;
  auto [end, error] = std::from_chars(text.data() + 2, text.data() + 6, unit, 16);
  if (error != std::errc() || end != text.data() + 6) return std::nullopt;
  return unit;
}

// What each letter behind a backslash stands for; "\0" where it is no such letter.
constexpr auto escapeValues = [] {
  std::array<char, 256> values{};
  constexpr std::string_view letters = "\"\\/bfnrt", meanings = "\"\\/\b\f\n\r\t";
  for (std::size_t i = 0; i < letters.size(); ++i)
    values[static_cast<unsigned char>(letters[i])] = meanings[i];
  return values;
}();

char escapeValue(char letter) {
  return escapeValues[static_cast<unsigned char>(letter)];
}

// Bytes of the escape that `text` begins with; 0 when it is malformed.
std::size_t escapeLength(std::string_view text) {
  if (text.size() > 1 && escapeValue(text[1])) return 2;
  return codeUnit(text) ? 6 : 0;
}

constexpr std::size_t blockSize = 64;

// One bit for each byte of the block, the lowest for the first: set where a backslash stands.
std::uint64_t backslashesIn(const char* block) {
  std::uint64_t bits = 0;
#ifdef __SSE2__
  const __m128i backslash = _mm_set1_epi8('\\');
  for (std::size_t i = 0; i < blockSize; i += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block + i));
    const auto found = static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, backslash)));
    bits |= std::uint64_t{found} << i;
  }
#else
  for (std::size_t i = 0; i < blockSize; ++i)
    bits |= std::uint64_t{block[i] == '\\'} << i;
#endif
  return bits;
}

// Writes what the "\uXXXX" escape (or surrogate pair of two) that `text` begins with stands for, drops it
// from `text`, and returns where the writing ended; a surrogate on its own stands for U+FFFD.
char* takeUnicodeEscape(std::string_view& text, char* out) {
  std::uint32_t unit = codeUnit(text).value_or(0);
  text.remove_prefix(6);
  if (unit < 0xD800 || unit > 0xDFFF) return writeUtf8(out, unit);
  auto low = unit < 0xDC00 ? codeUnit(text) : std::nullopt;
  if (!low || *low < 0xDC00 || *low > 0xDFFF) return writeUtf8(out, replacementCharacter);
  text.remove_prefix(6);
  return writeUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (*low - 0xDC00));
}

// Copies `text` up to its first backslash, or all of it, to `out`, which has room for all of it. Returns how
// many bytes that is. Eight at a time: escapes lie too close together for the library's search to pay off.
std::size_t copyPlain(std::string_view text, char* out) {
  static_assert(std::endian::native == std::endian::little);
  constexpr std::uint64_t ones = 0x0101010101010101, backslashes = ones * '\\';
  std::size_t count = 0;
  for (; text.size() - count >= 8; count += 8) {
    std::uint64_t eight;
    std::memcpy(&eight, text.data() + count, 8);
    std::memcpy(out + count, &eight, 8);
    std::uint64_t zeroes = eight ^ backslashes;  // where a backslash stands
    std::uint64_t found = (zeroes - ones) & ~zeroes & ones << 7;
    if (found) return count + static_cast<std::size_t>(std::countr_zero(found) / 8);
  }
  for (; count < text.size() && text[count] != '\\'; ++count)
    out[count] = text[count];
  return count;
}

}  // namespace

bool areValid(std::string_view text) {
  std::size_t at = 0;  // what stands before is valid
  while (text.size() - at >= blockSize) {
    const std::size_t block = at;
    std::uint64_t bits = backslashesIn(text.data() + block);
    at += blockSize;
    while (bits) {
      const auto first = static_cast<std::size_t>(std::countr_zero(bits));
      const std::size_t length = escapeLength(text.substr(block + first));
      if (length == 0) return false;
      at = std::max(at, block + first + length);
      // The escape's own second backslash, where it has one, begins none.
      bits = first + length < blockSize ? bits >> (first + length) << (first + length) : 0;
    }
  }
  while (at < text.size()) {
    const std::size_t length = text[at] == '\\' ? escapeLength(text.substr(at)) : 1;
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string resolved(std::string_view content) {
  if (content.find('\\') == content.npos) return std::string(content);
  std::string out(content.size(), '\0');  // no escape is shorter than what it stands for
  char* end = out.data();
  for (;;) {
    std::size_t plain = copyPlain(content, end);
    end += plain;
    content.remove_prefix(plain);
    if (content.empty()) break;
    if (char value = escapeValue(content[1])) {
      *end++ = value;
      content.remove_prefix(2);
    } else {
      end = takeUnicodeEscape(content, end);
    }
  }
  out.resize(static_cast<std::size_t>(end - out.data()));
  return out;
}

}  // namespace JsonEscapes
