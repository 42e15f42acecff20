#include "Hook/Handlers/ToolSummaries.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "Platform/Text.h"

namespace EventRouter {

namespace {

constexpr std::size_t maxSummary = 200;
constexpr std::size_t maxOtherValue = 100;
constexpr std::size_t maxElements = 50;

// The tools whose summary is one member of their input, cut to `limit` characters.
struct SummaryRow {
  std::string_view toolName;
  std::string_view member;
  std::size_t limit = std::string_view::npos;
};

constexpr SummaryRow summaries[] = {
    {"Bash", "command", maxSummary},
    {"Read", "file_path"},
    {"Write", "file_path"},
    {"Edit", "file_path"},
    {"Glob", "pattern"},
    {"WebSearch", "query"},
    {"WebFetch", "url"},
};

std::string cut(std::string_view text, std::size_t limit) {
  return std::string(Text::prefix(text, limit));
}

std::string summarizeGrep(const Json::Object& input) {
  const std::string& path = input.text("path");
  return input.text("pattern") + (path.empty() ? "" : " in " + path);
}

std::string summarizeTask(const Json::Object& input) {
  const std::string& type = input.text("subagent_type");
  return (type.empty() ? "" : "[" + type + "] ") + input.text("description");
}

// Strings as they are, numbers in decimal form, everything else as JSON.
std::string textForm(const Json& value) {
  if (const std::string* text = value.asText()) return *text;
  if (auto integer = value.asInteger()) return std::to_string(*integer);
  auto number = value.asNumber();
  if (!number) return value.compact();
  std::array<char, 400> digits;  // enough for the largest double
  auto end =
      std::to_chars(digits.data(), digits.data() + digits.size(), *number, std::chars_format::fixed).ptr;
  return std::string(digits.data(), end);
}

Json truncated(const Json& value, std::size_t maxChars) {
  if (const std::string* text = value.asText()) return cut(*text, maxChars);
  if (const Json::Object* object = value.asObject()) return truncateJSON(*object, maxChars);
  const Json::Array* list = value.asList();
  if (!list) return value;
  Json::Array elements;
  for (std::size_t at = 0; at < std::min(list->size(), maxElements); ++at)
    elements.push_back(truncated((*list)[at], maxChars));
  return elements;
}

std::string summarizeOther(const Json::Object& input) {
  const auto& [name, value] = *input.begin();
  return name + "=" + cut(textForm(value), maxOtherValue);
}

}  // namespace

std::string summarizeToolInput(std::string_view toolName, const Json::Object& input) {
  if (input.empty()) return "";
  if (toolName == "Grep") return summarizeGrep(input);
  if (toolName == "Task") return summarizeTask(input);
  auto row = std::find_if(std::begin(summaries), std::end(summaries),
                          [&](const SummaryRow& each) { return each.toolName == toolName; });
  return row == std::end(summaries) ? summarizeOther(input) : cut(input.text(row->member), row->limit);
}

std::string summarizeToolOutput(const Json::Object& response) {
  if (const std::string& content = response.text("content"); !content.empty())
    return cut(content, maxSummary);
  const std::string& path = response.text("filePath");
  return path.empty() ? "" : "file:" + path;
}

Json::Object truncateJSON(const Json::Object& object, std::size_t maxChars) {
  std::vector<Json::Member> members;
  for (const auto& [key, value] : object)
    members.push_back({key, truncated(value, maxChars)});
  return Json::Object(std::move(members));
}

}  // namespace EventRouter
