#include "Platform/Text.h"

#include <string.h>  // memmem
#include <unicode/ubrk.h>
#include <unicode/ucasemap.h>

#include <algorithm>
#include <array>
#include <cstdint>

#include "Platform/Json/Utf8.h"

namespace Text {
namespace {

bool isAsciiByte(char byte) {
  return static_cast<unsigned char>(byte) < 0x80;
}

// Where the character after the first `count` ones begins; the end of `text` when there is none.
std::size_t clusterBoundary(std::string_view text, std::size_t count) {
  UErrorCode status = U_ZERO_ERROR;
  UText source = UTEXT_INITIALIZER;
  utext_openUTF8(&source, text.data(), static_cast<std::int64_t>(text.size()), &status);
  UBreakIterator* iterator = ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status);
  ubrk_setUText(iterator, &source, &status);
  std::size_t boundary = text.size();
  if (U_SUCCESS(status)) {
    std::int32_t position = 0;
    while (count > 0 && position != UBRK_DONE) {
      position = ubrk_next(iterator);
      --count;
    }
    if (position != UBRK_DONE) boundary = static_cast<std::size_t>(position);
  }
  if (iterator != nullptr) ubrk_close(iterator);
  utext_close(&source);
  return boundary;
}

struct CodePointRange {
  char32_t first;
  char32_t last;
};

constexpr std::array spaceSeparators{
    CodePointRange{0x20, 0x20},     CodePointRange{0xA0, 0xA0},     CodePointRange{0x1680, 0x1680},
    CodePointRange{0x2000, 0x200A}, CodePointRange{0x202F, 0x202F}, CodePointRange{0x205F, 0x205F},
    CodePointRange{0x3000, 0x3000},
};
constexpr std::array lineBreaks{
    CodePointRange{0x0A, 0x0D},
    CodePointRange{0x85, 0x85},
    CodePointRange{0x2028, 0x2029},
};

// Beyond ASCII, letters and signs that join neither the one before nor the one after when that is of these
// too, or of ASCII. A common subset: the rest is left to the break iterator, which takes a hundred times as
// long.
constexpr std::array standalone{
    CodePointRange{0xA0, 0xAC},     CodePointRange{0xAE, 0x2FF},    CodePointRange{0x370, 0x482},
    CodePointRange{0x48A, 0x58F},   CodePointRange{0x1E00, 0x200A}, CodePointRange{0x2010, 0x2027},
    CodePointRange{0x202F, 0x205F}, CodePointRange{0x2070, 0x20CF}, CodePointRange{0x20F1, 0x2CEE},
    CodePointRange{0x2E00, 0x3029}, CodePointRange{0x3030, 0x3098}, CodePointRange{0x309B, 0xA66E},
    CodePointRange{0xFF00, 0xFF9D},
};

bool isIn(const auto& ranges, char32_t point) {
  return std::ranges::any_of(ranges, [&](CodePointRange r) { return r.first <= point && point <= r.last; });
}

bool isSpace(char32_t point, Space kind) {
  if (point == '\t' || point == ' ') return true;
  if (kind == Space::blanks) return false;
  return isIn(spaceSeparators, point) || (kind == Space::any && isIn(lineBreaks, point));
}

std::size_t standaloneCharacter(std::string_view text) {
  const auto [point, size] = Utf8::first(text);
  return isIn(standalone, point) ? size : 0;
}

// The size of the white space at the front of `text`, 0 when there is none.
std::size_t leadingSpace(std::string_view text, Space kind) {
  const auto [point, size] = Utf8::first(text);
  return isSpace(point, kind) ? size : 0;
}

std::size_t trailingSpace(std::string_view text, Space kind) {
  for (std::size_t most = 1; most <= std::min<std::size_t>(3, text.size()); ++most) {
    const auto [point, size] = Utf8::first(text.substr(text.size() - most));
    if (size == most) return isSpace(point, kind) ? size : 0;
  }
  return 0;
}

// The size of the ASCII or standalone character that `text` begins with, 0 when it begins with another.
inline std::size_t plainCharacter(std::string_view text) {
  if (text.empty()) return 0;
  if (!isAsciiByte(text[0])) return standaloneCharacter(text);
  return text[0] == '\r' && text.starts_with("\r\n") ? 2 : 1;
}

std::string asciiLowercased(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if ('A' <= c && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

using CaseMapping = std::int32_t(const UCaseMap*, char*, std::int32_t, const char*, std::int32_t,
                                 UErrorCode*);

// `text` as it stands when the library cannot map it, which takes a text of nearly 2 GB.
std::string mapped(std::string_view text, CaseMapping* mapping) {
  UErrorCode status = U_ZERO_ERROR;
  UCaseMap* rootLocale = ucasemap_open("", 0, &status);
  const auto size = static_cast<std::int32_t>(text.size());
  std::string result(text.size(), '\0');
  std::int32_t length = mapping(rootLocale, result.data(), size, text.data(), size, &status);
  if (status == U_BUFFER_OVERFLOW_ERROR) {
    status = U_ZERO_ERROR;
    result.resize(static_cast<std::size_t>(length));
    length = mapping(rootLocale, result.data(), length, text.data(), size, &status);
  }
  ucasemap_close(rootLocale);
  if (U_FAILURE(status)) return std::string(text);
  result.resize(static_cast<std::size_t>(length));
  return result;
}

}  // namespace

std::string_view prefix(std::string_view text, std::size_t count) {
  if (text.size() <= count) return text;
  std::size_t end = 0, counted = 0;  // of the characters counted so far
  std::size_t start = 0;             // of the last of them
  std::size_t size = plainCharacter(text);
  while (counted < count && size > 0) {
    start = end;
    end += size;
    ++counted;
    // ASCII between ASCII, which is most.
    while (counted < count && end < text.size() && isAsciiByte(text[end]) && text[end] != '\r') {
      start = end++;
      ++counted;
    }
    size = plainCharacter({text.data() + end, text.size() - end});
  }
  if (end == text.size() || count == 0 || (counted == count && size > 0)) return text.substr(0, end);
  // What follows may belong to the last character counted, so that one is counted again.
  const std::size_t recounted = counted == 0 ? 0 : 1;
  return text.substr(0, start + clusterBoundary(text.substr(start), count - counted + recounted));
}

std::string_view trim(std::string_view text, Space kind) {
  while (const std::size_t size = leadingSpace(text, kind)) {
    text.remove_prefix(size);
  }
  while (const std::size_t size = trailingSpace(text, kind)) {
    text.remove_suffix(size);
  }
  return text;
}

std::string_view trim(std::string_view text, std::string_view characters) {
  text.remove_prefix(std::min(text.find_first_not_of(characters), text.size()));
  return text.substr(0, text.find_last_not_of(characters) + 1);
}

std::string_view takePart(std::string_view& rest, std::string_view separators) {
  // A single character is what the C library looks for fastest.
  const std::size_t end = separators.size() == 1 ? rest.find(separators[0]) : rest.find_first_of(separators);
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(std::min(part.size() + 1, rest.size()));
  return part;
}

std::string lowercased(std::string_view text) {
  return isAscii(text) ? asciiLowercased(text) : mapped(text, ucasemap_utf8ToLower);
}

std::string folded(std::string_view text) {
  return isAscii(text) ? asciiLowercased(text) : mapped(text, ucasemap_utf8FoldCase);
}

bool isAscii(std::string_view text) {
  return std::ranges::all_of(text, isAsciiByte);
}

bool contains(std::string_view text, std::string_view part) {
  return !part.empty() && memmem(text.data(), text.size(), part.data(), part.size()) != nullptr;
}

}  // namespace Text
