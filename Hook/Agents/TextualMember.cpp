#include "Hook/Agents/TextualMember.h"

#include <algorithm>
#include <set>

namespace TextualMember {
namespace {

constexpr std::string_view whiteSpace = " \t\r\n";
constexpr std::string_view replacementCharacter = "\uFFFD";

struct Member {
  std::string_view name;  // with its quotes
  std::string_view value;
};

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(whiteSpace);
  return first == text.npos ? "" : text.substr(first, text.find_last_not_of(whiteSpace) - first + 1);
}

// Behind the string that opens at `at`.
std::size_t endOfString(std::string_view text, std::size_t at) {
  for (++at; at < text.size() && text[at] != '"'; ++at) {
    if (text[at] == '\\') ++at;
  }
  return std::min(at + 1, text.size());
}

// What stands between the commas of the object or list that `opening` tells; nothing of a text of another
// kind.
std::vector<std::string_view> parts(std::string_view text, char opening) {
  std::vector<std::string_view> found;
  std::size_t begin = trimmed(text).starts_with(opening) ? text.find(opening) + 1 : text.size();
  int depth = 1;
  for (std::size_t at = begin; at < text.size() && depth > 0;) {
    const char c = text[at];
    if (c == '{' || c == '[') ++depth;
    if (c == '}' || c == ']') --depth;
    if (depth == 0 || (depth == 1 && c == ',')) {
      const std::string_view part = trimmed(text.substr(begin, at - begin));
      if (!part.empty()) found.push_back(part);
      begin = at + 1;
    }
    at = c == '"' ? endOfString(text, at) : at + 1;
  }
  return found;
}

std::vector<Member> members(std::string_view object) {
  std::vector<Member> found;
  for (const std::string_view part : parts(object, '{')) {
    const std::size_t end = endOfString(part, 0);
    found.push_back({part.substr(0, end), trimmed(part.substr(part.find(':', end) + 1))});
  }
  return found;
}

std::size_t count(std::string_view text, std::string_view part) {
  std::size_t found = 0;
  for (std::size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size()))
    ++found;
  return found;
}

std::string newLine(std::size_t spaces) {
  return "\n" + std::string(spaces, ' ');
}

}  // namespace

std::vector<std::string> elements(std::string_view list) {
  const auto found = parts(list, '[');
  return {found.begin(), found.end()};
}

std::optional<std::string_view> find(std::string_view object, std::string_view key) {
  std::optional<std::string_view> found;
  for (const auto& [name, value] : members(object)) {
    if (Json::parse(name) == Json(key)) found = value;  // the name may be spelled with escapes
  }
  return found;
}

std::string set(std::string_view object, std::string_view key, std::string_view value, std::size_t spaces) {
  const auto replace = [&](const char* from, const char* to, const std::string& by) {
    return std::string(object.data(), from) + by + std::string(to, object.data() + object.size());
  };
  if (const auto old = find(object, key)) {
    return replace(old->data(), old->data() + old->size(), std::string(value));
  }
  const std::string member = newLine(spaces) + Json(key).compact() + ": " + std::string(value);
  const auto present = parts(object, '{');
  if (present.empty()) {
    return replace(object.data() + object.find('{') + 1, object.data() + object.rfind('}'),
                   member + newLine(spaces - 2));
  }
  const char* end = present.back().data() + present.back().size();
  return replace(end, end, "," + member);
}

std::string list(const std::vector<std::string>& elements, std::size_t spaces) {
  std::string text;
  for (const std::string& element : elements)
    text += (text.empty() ? "[" : ",") + newLine(spaces) + element;
  return text.empty() ? "[]" : text + newLine(spaces - 2) + "]";
}

std::string pretty(const Json& value, std::size_t spaces) {
  std::string lines = value.pretty();
  for (std::size_t at = lines.find('\n'); at != lines.npos; at = lines.find('\n', at + 1))
    lines.insert(at + 1, spaces, ' ');
  return lines;
}

bool survivesRewriting(std::string_view text) {
  text = trimmed(text);
  if (text.starts_with('[')) return std::ranges::all_of(parts(text, '['), survivesRewriting);
  if (text.starts_with('{')) {
    std::set<std::string> names;
    return std::ranges::all_of(members(text), [&](const Member& member) {
      return survivesRewriting(member.name) && names.insert(Json::parse(member.name)->compact()).second &&
             survivesRewriting(member.value);
    });
  }
  const auto value = Json::parse(text);
  if (!value) return false;
  const std::string* string = value->asText();
  return string ? count(*string, replacementCharacter) == count(text, replacementCharacter)
                : value->compact() == text;
}

}  // namespace TextualMember
