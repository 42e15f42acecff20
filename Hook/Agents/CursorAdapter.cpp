#include "Hook/Agents/CursorAdapter.h"

#include <array>
#include <utility>
#include <variant>

#include "Hook/Agents/EventMapping.h"
#include "Hook/Agents/HookFile.h"
#include "Hook/Agents/TextualMember.h"

namespace CursorAdapter {
namespace {

using EventMapping::copied;
using EventMapping::derived;
using EventMapping::fixed;
using EventMapping::Missing;

Json shellInput(const Json::Object& raw) {
  return Json::Object{{"command", raw.text("command")}};
}
Json serverToolName(const Json::Object& raw) {
  return "MCP:" + raw.text("tool_name");
}
Json serverToolInput(const Json::Object& raw) {
  return Json::Object{{"raw", raw.text("tool_input")}};
}

constexpr EventMapping::Member toolName = copied("tool_name", "tool_name");
constexpr EventMapping::Member toolInput = copied("tool_input", "tool_input", Missing::emptyObject);
constexpr EventMapping::Member duration = copied("duration", "duration", Missing::zero);
constexpr EventMapping::Member shellName = fixed("tool_name", "Bash");
constexpr EventMapping::Member shellCommand = derived("tool_input", shellInput);
constexpr EventMapping::Member serverTool = derived("tool_name", serverToolName);
constexpr EventMapping::Member serverInput = derived("tool_input", serverToolInput);

constexpr EventMapping::Member ofType(std::string_view notificationType) {
  return fixed("notification_type", notificationType);
}

constexpr auto mapping = std::to_array<EventMapping::Row>({
    {{"sessionStart"}, "SessionStart"},
    {{"preToolUse"}, "PreToolUse", {toolName, toolInput}},
    {{"beforeShellExecution"}, "PreToolUse", {shellName, shellCommand}},
    {{"beforeMCPExecution"}, "PreToolUse", {serverTool, serverInput}},
    {{"postToolUse"}, "PostToolUse", {toolName, toolInput, duration}},
    {{"afterShellExecution"}, "PostToolUse", {shellName, shellCommand}},
    {{"beforeSubmitPrompt"}, "UserPromptSubmit", {copied("prompt", "prompt")}},
    {{"afterAgentResponse"}, "Notification", {copied("message", "text"), ofType("assistant_response")}},
    {{"subagentStart"}, "SubagentStart", {copied("task", "task")}},
    {{"subagentStop"}, "SubagentStop"},
    {{"preCompact"}, "PreCompact"},
    {{"stop"}, "Notification", {fixed("message", "turn complete"), ofType("turn_stop")}},
    {{"sessionEnd"}, "Notification", {fixed("message", "session ended"), ofType("session_end")}},
});

constexpr Log::Category logger{"hook.cursor"};
constexpr HookFile::File hookFile{".cursor/hooks.json", "Cursor", logger};

constexpr std::array<std::string_view, 12> registeredEvents{
    "sessionStart",
    "beforeSubmitPrompt",
    "preToolUse",
    "postToolUse",
    "beforeShellExecution",
    "afterShellExecution",
    "beforeMCPExecution",
    "afterAgentResponse",
    "subagentStart",
    "subagentStop",
    "stop",
    "sessionEnd",
};

std::string workingDirectory(const Json::Object& raw) {
  if (const auto directory = raw.optionalText("cwd")) return *directory;
  const Json* roots = raw.find("workspace_roots");
  const auto texts = roots ? roots->asTexts() : std::nullopt;
  return texts && !texts->empty() ? texts->front() : "";
}

// The hooks of other tools in the present file, and whether rewriting them keeps all that it held beside
// ours.
struct Kept {
  Json::Object hooks;
  bool whole = true;
};

Kept keepOthers(std::string_view text, std::string_view command) {
  const auto file = Json::parseObject(text);
  const Json* hooks = file ? file->find("hooks") : nullptr;
  if (!hooks || !hooks->asObject()) return {{}, file && file->empty()};

  Kept kept{{}, TextualMember::survivesRewriting(text)};
  for (const auto& [key, value] : *file) {
    kept.whole = kept.whole && (key == "hooks" || (key == "version" && value.asInteger() == 1));
  }
  for (const auto& [event, value] : *hooks->asObject()) {
    const auto entries = value.asObjects();
    if (!entries) {
      kept.whole = false;
      continue;
    }
    Json::Array others = *entries;
    std::erase_if(others, [&](const Json& entry) { return HookFile::isOwn(entry, command); });
    if (!others.empty()) kept.hooks.set(event, std::move(others));
  }
  return kept;
}

// The answer to a prompt has members of its own.
Json::Object answer(const Allow&, bool isPrompt) {
  if (isPrompt) return {{"continue", true}};
  return {{"permission", "allow"}};
}
Json::Object answer(const Ask& ask, bool isPrompt) {
  if (isPrompt) return {{"continue", true}, {"user_message", ask.context}};
  return {{"permission", "ask"}, {"user_message", ask.context}};
}
Json::Object answer(const Deny& deny, bool isPrompt) {
  if (isPrompt) return {{"continue", false}, {"user_message", deny.reason}};
  return {{"permission", "deny"}, {"agent_message", deny.reason}, {"user_message", deny.reason}};
}

}  // namespace

NormalizedEvent normalize(const Json::Object& raw) {
  Json::Object common;
  const std::string& conversation = raw.text("conversation_id");
  common.set("session_id", conversation.empty() ? raw.text("session_id") : conversation);
  common.set("cwd", workingDirectory(raw));
  for (const std::string_view key : {"model", "transcript_path"}) {
    if (const auto text = raw.optionalText(key)) common.set(key, *text);
  }
  return EventMapping::apply(mapping, raw.text("hook_event_name"), raw, std::move(common));
}

AgentAnswer render(const Outcome& outcome, std::string_view cursorEvent) {
  const bool isPrompt = cursorEvent == "beforeSubmitPrompt";
  const auto body = std::visit([&](const auto& decided) { return answer(decided, isPrompt); }, outcome);
  return {Json(body).compact(), 0};
}

bool install(const std::string& binaryPath) {
  if (!HookFile::accepts(hookFile, binaryPath)) return false;
  const std::string command = "'" + binaryPath + "' --app cursor --profile cursor";

  Json::Object hooks;
  if (HookFile::exists(hookFile)) {
    const auto text = HookFile::read(hookFile);
    Kept kept = text ? keepOthers(*text, command) : Kept{{}, false};
    if (!kept.whole && !HookFile::backUp(hookFile, text)) return false;
    hooks = std::move(kept.hooks);
  }
  for (const std::string_view event : registeredEvents) {
    Json::Array entries = hooks.list(event);
    entries.push_back(Json::Object{{"command", command}});
    hooks.set(event, std::move(entries));
  }
  const Json file = Json::Object{{"version", 1}, {"hooks", std::move(hooks)}};
  return HookFile::replace(hookFile, file.pretty());
}

}  // namespace CursorAdapter
