#include "Hook/TextualMember.h"

#include <optional>

namespace TextualMember {
namespace {

constexpr std::string_view whiteSpace = " \t\r\n";

struct Span {
  std::size_t begin;
  std::size_t end;
};

struct Layout {
  std::size_t open;           // the object's opening brace
  std::size_t contentEnd;     // behind its last value, or behind the brace when it has none
  std::size_t close;          // its closing brace
  std::optional<Span> value;  // of the member looked for
};

std::size_t skipSpace(std::string_view text, std::size_t at) {
  return std::min(text.find_first_not_of(whiteSpace, at), text.size());
}

// Behind the string that opens at `at`.
std::size_t endOfString(std::string_view text, std::size_t at) {
  for (++at; at < text.size() && text[at] != '"'; ++at) {
    if (text[at] == '\\') ++at;
  }
  return std::min(at + 1, text.size());
}

// Behind the value that begins at `at`.
std::size_t endOfValue(std::string_view text, std::size_t at) {
  if (text[at] == '"') return endOfString(text, at);
  if (text[at] != '{' && text[at] != '[') {
    return std::min(text.find_first_of(",]} \t\r\n", at), text.size());
  }
  int depth = 0;
  while (at < text.size()) {
    const char c = text[at];
    at = c == '"' ? endOfString(text, at) : at + 1;
    if (c == '{' || c == '[') ++depth;
    if ((c == '}' || c == ']') && --depth == 0) break;
  }
  return at;
}

Layout layoutOf(std::string_view text, std::string_view key) {
  Layout layout{};
  layout.open = skipSpace(text, 0);
  layout.contentEnd = layout.open + 1;
  std::size_t at = skipSpace(text, layout.contentEnd);
  while (at < text.size() && text[at] != '}') {
    const Span name{at, endOfString(text, at)};
    const std::size_t begin = skipSpace(text, text.find(':', name.end) + 1);
    layout.contentEnd = endOfValue(text, begin);
    // The name may be spelled with escapes.
    if (Json::parse(text.substr(name.begin, name.end - name.begin)) == Json(key)) {
      layout.value = Span{begin, layout.contentEnd};
    }
    at = skipSpace(text, layout.contentEnd);
    if (at < text.size() && text[at] == ',') at = skipSpace(text, at + 1);
  }
  layout.close = at;
  return layout;
}

// The pretty form, as it stands inside an object: every line but the first one level deeper.
std::string indented(const Json& value) {
  std::string lines = value.pretty();
  for (std::size_t at = lines.find('\n'); at != lines.npos; at = lines.find('\n', at + 1)) {
    lines.insert(at + 1, "  ");
  }
  return lines;
}

}  // namespace

std::string set(std::string_view text, std::string_view key, const Json& value) {
  const Layout layout = layoutOf(text, key);
  std::string out;
  if (layout.value) {
    out = std::string(text.substr(0, layout.value->begin)) + indented(value);
    return out.append(text.substr(layout.value->end));
  }
  const bool isEmpty = layout.contentEnd == layout.open + 1;
  out = std::string(text.substr(0, layout.contentEnd)) + (isEmpty ? "\n  " : ",\n  ");
  out += Json(key).compact() + ": " + indented(value);
  return out.append(isEmpty ? "\n" : "").append(text.substr(isEmpty ? layout.close : layout.contentEnd));
}

}  // namespace TextualMember
