#include "Hook/Agents/CopilotAdapter.h"

#include <array>
#include <utility>
#include <variant>

#include "Hook/Agents/EventMapping.h"
#include "Hook/Agents/HookFile.h"

namespace CopilotAdapter {
namespace {

using EventMapping::copied;
using EventMapping::derived;
using EventMapping::fixed;

// The member's value under the first of the two names that is there, whatever its type.
Json either(const Json::Object& raw, std::string_view key, std::string_view otherKey, const Json& missing) {
  const Json* value = raw.find(key);
  if (!value) value = raw.find(otherKey);
  return value ? *value : missing;
}

// The string under the first of the two names that has one.
std::optional<std::string> eitherText(const Json::Object& raw, std::string_view key,
                                      std::string_view otherKey) {
  auto text = raw.optionalText(key);
  return text ? std::move(text) : raw.optionalText(otherKey);
}

Json nameOfTool(const Json::Object& raw) {
  return eitherText(raw, "toolName", "tool_name").value_or("");
}
Json inputOfTool(const Json::Object& raw) {
  return either(raw, "toolArgs", "tool_input", Json::Object{});
}
Json taskOfAgent(const Json::Object& raw) {
  return either(raw, "agentDescription", "agentName", "");
}
Json messageOfError(const Json::Object& raw) {
  const Json* message = raw.object("error").find("message");
  return message ? *message : "error";
}

constexpr EventMapping::Member toolName = derived("tool_name", nameOfTool);
constexpr EventMapping::Member toolInput = derived("tool_input", inputOfTool);
constexpr EventMapping::Member error = copied("error", "error");
constexpr EventMapping::Member errorMessage = derived("message", messageOfError);
constexpr EventMapping::Member errorType = fixed("notification_type", "error");

constexpr auto mapping = std::to_array<EventMapping::Row>({
    {{"sessionStart", "SessionStart"}, "SessionStart"},
    {{"userPromptSubmitted", "UserPromptSubmit"}, "UserPromptSubmit", {copied("prompt", "prompt")}},
    {{"preToolUse", "PreToolUse", "permissionRequest"}, "PreToolUse", {toolName, toolInput}},
    {{"postToolUse", "PostToolUse"}, "PostToolUse", {toolName, toolInput}},
    {{"postToolUseFailure", "PostToolUseFailure"}, "PostToolUseFailure", {toolName, error}},
    {{"subagentStart"}, "SubagentStart", {derived("task", taskOfAgent)}},
    {{"subagentStop"}, "SubagentStop"},
    {{"preCompact"}, "PreCompact"},
    {{"agentStop", "Stop"}, "Stop"},
    {{"sessionEnd", "SessionEnd"}, "SessionEnd"},
    {{"errorOccurred"}, "Notification", {errorMessage, errorType}},
});

constexpr Log::Category logger{"hook.copilot"};
constexpr HookFile::File hookFile{".copilot/hooks/obrisk.json", "Copilot", logger};

constexpr std::array<std::string_view, 10> registeredEvents{
    "sessionStart",  "userPromptSubmitted", "preToolUse", "postToolUse", "postToolUseFailure",
    "subagentStart", "subagentStop",        "agentStop",  "sessionEnd",  "notification",
};

// An agent that has stopped cannot be asked anything: a question lets it stop.
Json::Object answer(const Allow&, bool isStop) {
  if (isStop) return {{"decision", "allow"}};
  return {{"permissionDecision", "allow"}};
}
Json::Object answer(const Ask& ask, bool isStop) {
  if (isStop) return {{"decision", "allow"}};
  return {{"permissionDecision", "ask"}, {"permissionDecisionReason", ask.context}};
}
Json::Object answer(const Deny& deny, bool isStop) {
  if (isStop) return {{"decision", "block"}, {"reason", deny.reason}};
  return {{"permissionDecision", "deny"}, {"permissionDecisionReason", deny.reason}};
}

}  // namespace

NormalizedEvent normalize(const Json::Object& raw) {
  Json::Object common;
  common.set("session_id", eitherText(raw, "sessionId", "session_id").value_or(""));
  common.set("cwd", raw.text("cwd"));
  if (auto path = eitherText(raw, "transcriptPath", "transcript_path")) {
    common.set("transcript_path", std::move(*path));
  }
  const auto event = eitherText(raw, "__copilot_event", "hook_event_name").value_or("");
  return EventMapping::apply(mapping, event, raw, std::move(common));
}

AgentAnswer render(const Outcome& outcome, std::string_view copilotEvent) {
  const bool isStop = copilotEvent == "agentStop" || copilotEvent == "Stop";
  const auto body = std::visit([&](const auto& decided) { return answer(decided, isStop); }, outcome);
  return {Json(body).compact(), 0};
}

bool install(const std::string& binaryPath) {
  if (!HookFile::accepts(hookFile, binaryPath)) return false;
  const Json entry =
      Json::Object{{"type", "command"}, {"command", "'" + binaryPath + "' --app copilot --profile copilot"}};
  Json::Object hooks;
  for (const std::string_view event : registeredEvents)
    hooks.set(event, Json::Array{entry});
  const Json file = Json::Object{{"version", 1}, {"disableAllHooks", false}, {"hooks", std::move(hooks)}};
  return HookFile::replace(hookFile, file.pretty());
}

}  // namespace CopilotAdapter
