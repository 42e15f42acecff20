#include "Hook/Agents/CopilotAdapter.h"

#include <array>
#include <utility>

#include "Hook/Agents/EventMapping.h"
#include "Hook/Agents/HookFile.h"

namespace CopilotAdapter {
namespace {

using EventMapping::Copied;
using EventMapping::Fixed;
using EventMapping::Member;
using EventMapping::valueOr;

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
  return valueOr(raw, "toolArgs", valueOr(raw, "tool_input", Json::Object{}));
}
Json taskOfAgent(const Json::Object& raw) {
  return valueOr(raw, "agentDescription", valueOr(raw, "agentName", ""));
}
Json messageOfError(const Json::Object& raw) {
  return valueOr(raw.object("error"), "message", "error");
}

constexpr Member prompt{"prompt", Copied{"prompt"}};
constexpr Member toolName{"tool_name", nameOfTool};
constexpr Member toolInput{"tool_input", inputOfTool};
constexpr Member task{"task", taskOfAgent};
constexpr Member error{"error", Copied{"error"}};
constexpr Member errorMessage{"message", messageOfError};
constexpr Member errorType{"notification_type", Fixed{"error"}};

constexpr auto mapping = std::to_array<EventMapping::Row>({
    {{"sessionStart", "SessionStart"}, "SessionStart"},
    {{"userPromptSubmitted", "UserPromptSubmit"}, "UserPromptSubmit", {prompt}},
    {{"preToolUse", "PreToolUse", "permissionRequest"}, "PreToolUse", {toolName, toolInput}},
    {{"postToolUse", "PostToolUse"}, "PostToolUse", {toolName, toolInput}},
    {{"postToolUseFailure", "PostToolUseFailure"}, "PostToolUseFailure", {toolName, error}},
    {{"subagentStart"}, "SubagentStart", {task}},
    {{"subagentStop"}, "SubagentStop"},
    {{"preCompact"}, "PreCompact"},
    {{"agentStop", "Stop"}, "Stop"},
    {{"sessionEnd", "SessionEnd"}, "SessionEnd"},
    {{"errorOccurred"}, "Notification", {errorMessage, errorType}},
});

constexpr Log::Category logger{"hook.copilot"};
constexpr HookFile::File hookFile{".copilot/hooks/obrisk.json", "Copilot", " --app copilot --profile copilot",
                                  logger};

constexpr std::string_view registeredEvents =
    "sessionStart userPromptSubmitted preToolUse postToolUse postToolUseFailure subagentStart subagentStop "
    "agentStop sessionEnd notification";

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
  return {Json(body).compact()};
}

bool install(const std::string& binaryPath) {
  const auto command = HookFile::command(hookFile, binaryPath);
  if (!command) return false;
  const Json::Object entry{{"type", "command"}, {"command", *command}};
  const Json::Object file{{"version", 1},
                          {"disableAllHooks", false},
                          {"hooks", HookFile::registered({}, registeredEvents, entry)}};
  return HookFile::replace(hookFile, Json(file).pretty());
}

}  // namespace CopilotAdapter
