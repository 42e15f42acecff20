#include "Platform/Json/JsonEscapes.h"

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

// The letters behind the backslash of the short escapes, and what each stands for.
constexpr std::string_view letters = "\"\\/bfnrt", meanings = "\"\\/\b\f\n\r\t";

// The meaning of each letter; "\0" where it is no such letter.
constexpr auto escapeValues = [] {
  std::array<char, 256> values{};
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

// One bit for each byte of a block, the lowest for the first.
struct Block {
  std::uint64_t backslashes = 0;
  std::uint64_t frequent = 0;  // what stands behind most backslashes that begin an escape

  explicit Block(const char* bytes) {
#ifdef __SSE2__
#pragma GCC unroll 4
    for (std::size_t i = 0; i < blockSize; i += 16) {
      const __m128i some = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
      auto equal = [&](char c) { return _mm_cmpeq_epi8(some, _mm_set1_epi8(c)); };
      auto bits = [&](__m128i mask) {
        return std::uint64_t{static_cast<std::uint32_t>(_mm_movemask_epi8(mask))} << i;
      };
      const __m128i backslash = equal('\\');
      backslashes |= bits(backslash);
      const __m128i letter = _mm_or_si128(_mm_or_si128(equal('n'), equal('t')), equal('"'));
      frequent |= bits(_mm_or_si128(letter, backslash));
    }
#else
    for (std::size_t i = 0; i < blockSize; ++i)
      backslashes |= std::uint64_t{bytes[i] == '\\'} << i;
#endif
  }

  // The bytes behind a backslash that begins an escape. `first` says whether the block's first byte is one,
  // and then whether the next block's is.
  std::uint64_t escaped(bool& first) const {
    // In a row of backslashes every second one, from its start on, begins an escape. Subtracting the row from
    // the odd bits borrows along it: the bits that flip are those of the escapes, both bytes of each.
    constexpr std::uint64_t odd = 0xAAAA'AAAA'AAAA'AAAA;
    const std::uint64_t row = backslashes & ~std::uint64_t{first};
    const std::uint64_t escapes = (((row << 1) | odd) - row) ^ odd;
    const std::uint64_t behind = escapes ^ (backslashes | std::uint64_t{first});
    first = false;
    if (backslashes >> 63) first = escapes >> 63;  // seldom, so no block waits for the one before
    return behind;
  }
};

// Whether it is one of ASCII's visible characters. No two of them share a user-perceived one (UAX #29),
// whatever stands around them.
bool isVisible(char c) {
  return c > ' ' && c <= '~';
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
  char last[blockSize] = {};
  bool first = false;
  for (std::size_t at = 0;; at += blockSize) {
    const bool partial = text.size() - at < blockSize;
    if (partial) text.copy(last, blockSize, at);
    const Block block(partial ? last : text.data() + at);
    for (std::uint64_t left = block.escaped(first) & ~block.frequent; left; left &= left - 1) {
      const std::size_t letter = at + static_cast<std::size_t>(std::countr_zero(left));
      if (escapeLength(text.substr(letter - 1)) == 0) return false;
    }
    if (partial) return true;
  }
}

std::string resolved(std::string_view content, std::size_t enough) {
  const bool whole = content.size() <= enough;
  std::string out;
  out.reserve(whole ? content.size() : enough + enough / 2);  // no escape is shorter than what it stands for
  for (std::size_t lacking = enough;;) {
    const std::string_view next = whole ? content : content.substr(0, lacking + 1);
    const std::size_t plain = std::min(next.find('\\'), next.size());
    out += next.substr(0, plain);
    content.remove_prefix(plain);
    if (!whole) {
      const auto visible = static_cast<std::size_t>(std::ranges::count_if(next.substr(0, plain), isVisible));
      if (visible > lacking) return out;
      lacking -= visible;
    }
    if (content.empty()) return out;
    if (content[0] != '\\') continue;
    if (const char value = escapeValue(content[1])) {
      out += value;
      content.remove_prefix(2);
    } else {
      takeUnicodeEscape(content, out);
    }
  }
}

void append(std::string& out, std::string_view text) {
  static constexpr char hexadecimal[] = "0123456789abcdef";
  std::size_t written = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto c = static_cast<unsigned char>(text[at]);
    if (c >= 0x20 && c != '"' && c != '\\' && c != '/') continue;
    out += text.substr(written, at - written);
    written = at + 1;
    out += '\\';
    const auto which = meanings.find(text[at]);
    if (which != meanings.npos)
      out += letters[which];
    else
      out.append("u00").append(1, hexadecimal[c >> 4]).append(1, hexadecimal[c & 15]);
  }
  out += text.substr(written);
}

}  // namespace JsonEscapes
