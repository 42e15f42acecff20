#include "Platform/Json/JsonString.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include "Platform/Json/Utf8.h"

namespace JsonString {

namespace {

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

constexpr std::ptrdiff_t blockSize = 16;

// Where the first byte in a block is that has to be looked at; `blockSize` when there is none. It is a
// control character, the closing quote, or what stands behind a backslash, but for the most frequent escapes.
// The byte in front of the block, when it is a backslash, begins an escape.
std::ptrdiff_t stopIn(const char* block) {
  using Bytes [[gnu::vector_size(blockSize)]] = signed char;
  Bytes bytes, before;
  std::memcpy(&bytes, block, blockSize);
  std::memcpy(&before, block - 1, blockSize);
  const Bytes quote = bytes == '"', escaped = before == '\\', frequent = (bytes == 'n') | (bytes == 't');
  const Bytes stops = ((bytes & ~0x1F) == 0) | ((quote ^ escaped) & ~(escaped & frequent));
  std::uint64_t words[2];
  std::memcpy(words, &stops, blockSize);
  if (words[0]) return std::countr_zero(words[0]) / 8;
  return 8 + std::countr_zero(words[1]) / 8;
}

// The first such byte from `at` on; the end when there is none.
const char* firstStop(const char* at, const char* end) {
  for (; end - at >= blockSize; at += blockSize) {
    if (const auto found = stopIn(at); found != blockSize) return at + found;
  }
  char padded[1 + blockSize] = {};
  std::copy(at - 1, end, padded);
  return at + stopIn(padded + 1);
}

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
  if (unit < 0xD800 || unit > 0xDFFF) return Utf8::append(out, unit);
  const auto low = static_cast<std::uint32_t>(unit < 0xDC00 ? codeUnit(text) : -1);
  if (low < 0xDC00 || low > 0xDFFF) return Utf8::append(out, Utf8::replacement);
  text.remove_prefix(6);
  Utf8::append(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
}

}  // namespace

std::size_t length(std::string_view text) {
  const char *at = text.data() + 1, *const end = text.data() + text.size();
  while (at != end && *at != '"') {
    if (static_cast<unsigned char>(*at) < ' ') return 0;
    at = firstStop(at + 1, end);
    if (at == end || *at == '"' || at[-1] != '\\') continue;
    const std::size_t escape = escapeLength({at - 1, end});
    if (escape == 0) return 0;
    at += escape - 1;
  }
  return at != end ? static_cast<std::size_t>(at + 1 - text.data()) : 0;
}

std::string resolved(std::string_view content, Enough enough) {
  const bool whole = content.size() <= enough.characters;
  std::string out;
  out.reserve(whole ? content.size()
                    : enough.characters +
                          enough.characters / 2);  // no escape is shorter than what it stands for
  for (std::size_t lacking = enough.characters;;) {
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
  if (!Utf8::isValid(text)) return append(out, Utf8::repaired(text));
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

}  // namespace JsonString
