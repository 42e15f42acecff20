#include "Platform/JsonEscapes.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace JsonEscapes {

namespace {

constexpr std::uint32_t replacementCharacter = 0xFFFD;

void appendUtf8(std::string& out, std::uint32_t codePoint) {
  if (codePoint < 0x80) {
    out += static_cast<char>(codePoint);
    return;
  }
  int trailing = codePoint < 0x800 ? 1 : codePoint < 0x10000 ? 2 : 3;
  constexpr unsigned char leads[] = {0, 0xC0, 0xE0, 0xF0};
  out += static_cast<char>(leads[trailing] | codePoint >> 6 * trailing);
  while (trailing-- > 0)
    out += static_cast<char>(0x80 | (codePoint >> 6 * trailing & 0x3F));
}

// What each character is worth as a hexadecimal digit; -1 where it is none.
constexpr auto digitValues = [] {
  std::array<std::int8_t, 256> values{};
  values.fill(-1);
  for (std::int8_t digit = 0; digit < 16; ++digit) {
    values[static_cast<unsigned char>("0123456789abcdef"[digit])] = digit;
    values[static_cast<unsigned char>("0123456789ABCDEF"[digit])] = digit;
  }
  return values;
}();

// The code unit of the "\uXXXX" escape that `text` begins with; negative when it begins with none.
std::int32_t codeUnit(std::string_view text) {
  if (text.size() < 6 || !text.starts_with("\\u")) return -1;
  auto digit = [&](std::size_t i) -> std::int32_t {
    return digitValues[static_cast<unsigned char>(text[i])];
  };
  return digit(2) << 12 | digit(3) << 8 | digit(4) << 4 | digit(5);
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
  return codeUnit(text) < 0 ? 0 : 6;
}

constexpr std::size_t blockSize = 64;

// One bit for each byte of the block, the lowest for the first: set where a backslash stands that needs a
// look, which is every one but those before the letters behind most of them. Such a letter is no backslash,
// so that of several in a row only the last can be left out: what each of the others begins stays the same.
std::uint64_t backslashesIn(const char* block) {
  std::uint64_t bits = 0;
#ifdef __SSE2__
  auto equal = [](__m128i bytes, char c) { return _mm_cmpeq_epi8(bytes, _mm_set1_epi8(c)); };
#pragma GCC unroll 4
  for (std::size_t i = 0; i < blockSize; i += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block + i));
    const __m128i next = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block + i + 1));
    const __m128i frequent = _mm_or_si128(_mm_or_si128(equal(next, 'n'), equal(next, '"')), equal(next, 't'));
    const auto found =
        static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_andnot_si128(frequent, equal(bytes, '\\'))));
    bits |= std::uint64_t{found} << i;
  }
#else
  for (std::size_t i = 0; i < blockSize; ++i)
    bits |= std::uint64_t{block[i] == '\\'} << i;
#endif
  return bits;
}

// Appends what the "\uXXXX" escape (or surrogate pair of two) that `text` begins with stands for, and drops
// it from `text`; a surrogate on its own stands for U+FFFD.
void takeUnicodeEscape(std::string_view& text, std::string& out) {
  const auto unit = static_cast<std::uint32_t>(codeUnit(text));
  text.remove_prefix(6);
  if (unit < 0xD800 || unit > 0xDFFF) return appendUtf8(out, unit);
  const auto low = static_cast<std::uint32_t>(unit < 0xDC00 ? codeUnit(text) : -1);
  if (low < 0xDC00 || low > 0xDFFF) return appendUtf8(out, replacementCharacter);
  text.remove_prefix(6);
  appendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
}

}  // namespace

bool areValid(std::string_view text) {
  std::size_t at = 0;  // what stands before is valid
  while (text.size() - at > blockSize) {
    const std::size_t block = at;
    std::uint64_t bits = backslashesIn(text.data() + block);
    at += blockSize;
    while (bits) {
      const auto first = static_cast<std::size_t>(std::countr_zero(bits));
      const std::size_t length = escapeLength(text.substr(block + first));
      if (length == 0) return false;
      at = std::max(at, block + first + length);
      // The escape's own second backslash, where it has one, begins none.
      bits &= ~(std::uint64_t{3} << first);
    }
  }
  while (at < text.size()) {
    const std::size_t length = text[at] == '\\' ? escapeLength(text.substr(at)) : 1;
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string_view beginning(std::string_view content, std::size_t count) {
  if (content.size() <= count) return content;
  // No two of ASCII's visible characters share a user-perceived one (UAX #29), whatever stands around them.
  std::size_t at = 0;
  for (std::size_t visible = 0; visible <= count; ++at) {
    if (at >= content.size()) return content;
    if (content[at] == '\\')
      at += escapeLength(content.substr(at)) - 1;
    else
      visible += content[at] > ' ' && content[at] <= '~';
  }
  return content.substr(0, at);
}

std::string resolved(std::string_view content) {
  std::string out;
  out.reserve(content.size());  // no escape is shorter than what it stands for
  for (;;) {
    const std::size_t plain = std::min(content.find('\\'), content.size());
    out += content.substr(0, plain);
    content.remove_prefix(plain);
    if (content.empty()) return out;
    if (const char value = escapeValue(content[1])) {
      out += value;
      content.remove_prefix(2);
    } else {
      takeUnicodeEscape(content, out);
    }
  }
}

}  // namespace JsonEscapes
