#include "Hook/Agents/CursorAdapter.h"

#include <array>
#include <string>
#include <utility>

#include "Hook/Agents/EventMapping.h"
#include "Hook/Agents/HookFile.h"
#include "Hook/Agents/TextualMember.h"

namespace CursorAdapter {
namespace {

using EventMapping::Copied;
using EventMapping::Fixed;
using EventMapping::Member;
using EventMapping::valueOr;

Json toolInputOf(const Json::Object& raw) {
  return valueOr(raw, "tool_input", Json::Object{});
}
Json durationOf(const Json::Object& raw) {
  return valueOr(raw, "duration", 0);
}
Json shellInput(const Json::Object& raw) {
  return Json::Object{{"command", raw.text("command")}};
}
Json serverToolName(const Json::Object& raw) {
  return "MCP:" + raw.text("tool_name");
}
Json serverToolInput(const Json::Object& raw) {
  return Json::Object{{"raw", raw.text("tool_input")}};
}

constexpr Member toolName{"tool_name", Copied{"tool_name"}};
constexpr Member toolInput{"tool_input", toolInputOf};
constexpr Member duration{"duration", durationOf};
constexpr Member shellName{"tool_name", Fixed{"Bash"}};
constexpr Member shellCommand{"tool_input", shellInput};
constexpr Member serverTool{"tool_name", serverToolName};
constexpr Member serverInput{"tool_input", serverToolInput};
constexpr Member prompt{"prompt", Copied{"prompt"}};
constexpr Member task{"task", Copied{"task"}};
constexpr Member answerText{"message", Copied{"text"}};

constexpr Member message(std::string_view text) {
  return {"message", Fixed{text}};
}
constexpr Member ofType(std::string_view notificationType) {
  return {"notification_type", Fixed{notificationType}};
}

constexpr auto mapping = std::to_array<EventMapping::Row>({
    {{"sessionStart"}, "SessionStart"},
    {{"preToolUse"}, "PreToolUse", {toolName, toolInput}},
    {{"beforeShellExecution"}, "PreToolUse", {shellName, shellCommand}},
    {{"beforeMCPExecution"}, "PreToolUse", {serverTool, serverInput}},
    {{"postToolUse"}, "PostToolUse", {toolName, toolInput, duration}},
    {{"afterShellExecution"}, "PostToolUse", {shellName, shellCommand}},
    {{"beforeSubmitPrompt"}, "UserPromptSubmit", {prompt}},
    {{"afterAgentResponse"}, "Notification", {answerText, ofType("assistant_response")}},
    {{"subagentStart"}, "SubagentStart", {task}},
    {{"subagentStop"}, "SubagentStop"},
    {{"preCompact"}, "PreCompact"},
    {{"stop"}, "Notification", {message("turn complete"), ofType("turn_stop")}},
    {{"sessionEnd"}, "Notification", {message("session ended"), ofType("session_end")}},
});

constexpr Log::Category logger{"hook.cursor"};
constexpr HookFile::File hookFile{".cursor/hooks.json", "Cursor", " --app cursor --profile cursor", logger};

constexpr std::string_view registeredEvents =
    "sessionStart beforeSubmitPrompt preToolUse postToolUse beforeShellExecution afterShellExecution "
    "beforeMCPExecution afterAgentResponse subagentStart subagentStop stop sessionEnd";

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
  bool whole;
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
  return {Json(body).compact()};
}

bool install(const std::string& binaryPath) {
  const auto command = HookFile::command(hookFile, binaryPath);
  if (!command) return false;
  Json::Object hooks;
  if (HookFile::exists(hookFile)) {
    const auto text = HookFile::read(hookFile);
    Kept kept = text ? keepOthers(*text, *command) : Kept{{}, false};
    if (!kept.whole && !HookFile::backUp(hookFile, text)) return false;
    hooks = std::move(kept.hooks);
  }
  hooks = HookFile::registered(std::move(hooks), registeredEvents, Json::Object{{"command", *command}});
  const Json::Object file{{"version", 1}, {"hooks", std::move(hooks)}};
  return HookFile::replace(hookFile, Json(file).pretty());
}

}  // namespace CursorAdapter
