#include "Hook/Agents/TextualMember.h"

#include <set>

#include "Platform/Json/JsonReader.h"

namespace TextualMember {
namespace {

constexpr std::string_view replacementCharacter = "\uFFFD";

std::size_t count(std::string_view text, std::string_view part) {
  std::size_t found = 0;
  for (std::size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size()))
    ++found;
  return found;
}

std::string newLine(std::size_t spaces) {
  return "\n" + std::string(spaces, ' ');
}

bool survives(JsonView value) {
  if (value.isList()) {
    for (const JsonView element : value.elements())
      if (!survives(element)) return false;
    return true;
  }
  if (value.isObject()) {
    std::set<std::string> names;
    for (const auto& [name, member] : value.members())
      if (!survives(name) || !names.insert(*name.text()).second || !survives(member)) return false;
    return true;
  }
  if (const auto text = value.text())
    return count(*text, replacementCharacter) == count(value.spelling(), replacementCharacter);
  return Json::of(value).compact() == value.spelling();
}

}  // namespace

std::vector<std::string> elements(std::string_view list) {
  JsonReader reader;
  std::vector<std::string> found;
  for (const JsonView element : reader.read(list).elements())
    found.emplace_back(element.spelling());
  return found;
}

std::optional<std::string_view> find(std::string_view object, std::string_view key) {
  JsonReader reader;
  const auto [value] = reader.read(object).members({key});
  return value ? std::optional(value.spelling()) : std::nullopt;
}

std::string set(std::string_view object, std::string_view key, std::string_view value, std::size_t spaces) {
  const auto replace = [&](const char* from, const char* to, const std::string& by) {
    return std::string(object.data(), from) + by + std::string(to, object.data() + object.size());
  };
  if (const auto old = find(object, key)) {
    return replace(old->data(), old->data() + old->size(), std::string(value));
  }
  const std::string added = newLine(spaces) + Json(key).compact() + ": " + std::string(value);
  JsonReader reader;
  std::string_view last;
  for (const auto& [name, present] : reader.read(object).members())
    last = present.spelling();
  if (last.empty()) {
    return replace(object.data() + object.find('{') + 1, object.data() + object.rfind('}'),
                   added + newLine(spaces - 2));
  }
  const char* end = last.data() + last.size();
  return replace(end, end, "," + added);
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
  JsonReader reader;
  return survives(reader.read(text));
}

}  // namespace TextualMember
