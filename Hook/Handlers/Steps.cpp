#include "Hook/Handlers/Steps.h"

#include <algorithm>

#include "Hook/Handlers/DailyRun.h"
#include "Hook/SessionStore.h"
#include "Platform/Clock.h"
#include "Platform/Text.h"
#include "Shared/HardwareID.h"

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
  return std::string(limit < text.size() ? Text::prefix(text, limit) : text);
}

std::string summarizeGrep(const Json::Object& input) {
  const std::string& path = input.text("path");
  return input.text("pattern") + (path.empty() ? "" : " in " + path);
}

std::string summarizeTask(const Json::Object& input) {
  const std::string& type = input.text("subagent_type");
  return (type.empty() ? "" : "[" + type + "] ") + input.text("description");
}

std::string summarizeOther(const Json::Object& input) {
  const auto& [name, value] = *input.begin();
  const std::string* text = value.asText();
  return name + "=" + cut(text ? *text : value.compact(), maxOtherValue);
}

}  // namespace

void emitStep(SessionState& state, const std::string& kind, const Json::Object& payload,
              const ObserveClient& client) {
  if (state.run_id.empty() || !client.config.isConfigured()) return;
  refreshDailyRunIfStale(state, client);
  Json::Object output{{"kind", kind},
                      {"source", "hook"},
                      {"session_id", state.session_id},
                      {"timestamp", Clock::dateTime()},
                      {"hardware_uuid", HardwareID::uuid()}};
  for (const auto& [key, value] : payload)
    output.set(key, value);
  Json::Object step{
      {"step_name", "hook:" + kind}, {"position", state.span_count}, {"output", std::move(output)}};
  client.recordSteps(state.run_id, {std::move(step)});
  state.advancePosition();
  SessionStore::save(state);
}

void emitSpan(const SessionState& state, const Json::Object& span, const ObserveClient& client) {
  client.post("/api/v1/observe/runs/" + state.run_id + "/spans/", {{"spans", Json::Array{span}}}, "");
}

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

Json truncateJSON(const Json& value, std::size_t maxChars) {
  if (const std::string* text = value.asText()) return cut(*text, maxChars);
  if (const Json::Object* object = value.asObject()) {
    std::vector<Json::Member> members;
    for (const auto& [key, member] : *object)
      members.push_back({key, truncateJSON(member, maxChars)});
    return Json::Object(std::move(members));
  }
  if (const Json::Array* list = value.asList()) {
    Json::Array elements;
    for (std::size_t at = 0; at < std::min(list->size(), maxElements); ++at)
      elements.push_back(truncateJSON((*list)[at], maxChars));
    return elements;
  }
  return value;
}

}  // namespace EventRouter
