#include "Hook/Agents/CopilotAdapter.h"

#include <gtest/gtest.h>

#include "Tests/Support/Sandbox.h"

namespace {

struct MappingRow {
  const char* sentence;
  const char* raw;   // the members of the event
  const char* data;  // what becomes of it, beside an empty session and directory
};

void expectMapped(const std::string& sentence, const std::string& raw, const std::string& data) {
  const NormalizedEvent normalized = CopilotAdapter::normalize(parsed(raw));
  EXPECT_EQ(Json(normalized.data).compact(), Json(parsed(data)).compact()) << sentence;
  EXPECT_EQ(normalized.event, normalized.data.text("hook_event_name")) << sentence;
}

TEST(CopilotAdapter, GivesEveryEventASessionAndADirectory) {
  const MappingRow rows[] = {
      {"the camel-case names take precedence",
       R"("sessionId":"a","session_id":"b","transcriptPath":"/t","transcript_path":"/u","cwd":"/c")",
       R"("session_id":"a","cwd":"/c","transcript_path":"/t")"},
      {"the snake-case names stand in for mistyped ones",
       R"("sessionId":1,"session_id":"b","transcriptPath":{},"transcript_path":"/u")",
       R"("session_id":"b","cwd":"","transcript_path":"/u")"},
      {"an empty string is a string",
       R"("sessionId":"","session_id":"b","transcriptPath":"","transcript_path":"/u")",
       R"("session_id":"","cwd":"","transcript_path":"")"},
      {"mistyped members are empty, the transcript absent",
       R"("session_id":[],"cwd":1,"transcript_path":null)", R"("session_id":"","cwd":"")"},
      {"neither a model nor workspace roots are read", R"("model":"m","workspace_roots":["/w"])",
       R"("session_id":"","cwd":"")"},
  };
  for (const MappingRow& row : rows)
    expectMapped(row.sentence, std::string(R"({"hook_event_name":"SessionStart",)") + row.raw + "}",
                 std::string(R"({"hook_event_name":"SessionStart",)") + row.data + "}");
}

TEST(CopilotAdapter, TakesTheNameFromItsOwnMemberFirst) {
  const std::pair<const char*, const char*> rows[] = {
      {R"({"hook_event_name":"preToolUse","__copilot_event":"subagentStop"})", "SubagentStop"},
      {R"({"hook_event_name":"subagentStop","__copilot_event":7})", "SubagentStop"},
      {R"({"hook_event_name":"subagentStop","__copilot_event":""})", "Notification"},
      {R"({"hook_event_name":{},"__copilot_event":null})", "Notification"},
      {R"({"hookEventName":"Stop"})", "Notification"},
  };
  for (const auto& [raw, event] : rows)
    EXPECT_EQ(CopilotAdapter::normalize(parsed(raw)).event, event) << raw;
}

TEST(CopilotAdapter, TranslatesEveryEvent) {
  const MappingRow rows[] = {
      {"a session starts", R"("sessionStart")", R"("SessionStart")"},
      {"a session starts by the common name", R"("SessionStart","source":"x")", R"("SessionStart")"},
      {"a prompt is copied", R"("userPromptSubmitted","prompt":["p"])",
       R"("UserPromptSubmit","prompt":["p"])"},
      {"a prompt may be missing", R"("UserPromptSubmit")", R"("UserPromptSubmit","prompt":"")"},
      {"a tool call in camel case",
       R"("preToolUse","toolName":"bash","tool_name":"x","toolArgs":{"a":1},"tool_input":2)",
       R"("PreToolUse","tool_name":"bash","tool_input":{"a":1})"},
      {"a tool call in snake case", R"("PreToolUse","tool_name":"bash","tool_input":[1])",
       R"("PreToolUse","tool_name":"bash","tool_input":[1])"},
      {"a tool name that is no string gives way", R"("preToolUse","toolName":1,"tool_name":"bash")",
       R"("PreToolUse","tool_name":"bash","tool_input":{})"},
      {"arguments of null are there", R"("preToolUse","toolArgs":null,"tool_input":{"a":1})",
       R"("PreToolUse","tool_name":"","tool_input":null)"},
      {"arguments in a string are not parsed", R"("preToolUse","toolArgs":"{\"a\":1}")",
       R"("PreToolUse","tool_name":"","tool_input":"{\"a\":1}")"},
      {"a permission request passes the gate", R"("permissionRequest","toolName":"t")",
       R"("PreToolUse","tool_name":"t","tool_input":{})"},
      {"a finished tool call", R"("postToolUse","toolName":"t","toolArgs":{},"toolResult":{},"duration":4)",
       R"("PostToolUse","tool_name":"t","tool_input":{})"},
      {"a finished tool call by the common name", R"("PostToolUse","tool_name":2)",
       R"("PostToolUse","tool_name":"","tool_input":{})"},
      {"a failed tool call carries its error but no input",
       R"("postToolUseFailure","toolName":"t","toolArgs":{},"error":{"m":1})",
       R"("PostToolUseFailure","tool_name":"t","error":{"m":1})"},
      {"a failed tool call by the common name, without an error", R"("PostToolUseFailure","tool_name":"t")",
       R"("PostToolUseFailure","tool_name":"t","error":"")"},
      {"a subagent's description is its task", R"("subagentStart","agentDescription":"d","agentName":"n")",
       R"("SubagentStart","task":"d")"},
      {"a description is copied whatever its type",
       R"("subagentStart","agentDescription":null,"agentName":"n")", R"("SubagentStart","task":null)"},
      {"a subagent's name stands in for its description", R"("subagentStart","agentName":"n")",
       R"("SubagentStart","task":"n")"},
      {"a subagent without either", R"("subagentStart","task":"t")", R"("SubagentStart","task":"")"},
      {"a subagent stops", R"("subagentStop")", R"("SubagentStop")"},
      {"the context is compacted", R"("preCompact")", R"("PreCompact")"},
      {"the agent stops", R"("agentStop","message":"x")", R"("Stop")"},
      {"the agent stops by the common name", R"("Stop")", R"("Stop")"},
      {"a session ends", R"("sessionEnd","reason":"x")", R"("SessionEnd")"},
      {"a session ends by the common name", R"("SessionEnd")", R"("SessionEnd")"},
      {"an error's message is passed on",
       R"("errorOccurred","error":{"message":"boom","name":"E"},"message":"x")",
       R"("Notification","message":"boom","notification_type":"error")"},
      {"an error's message is copied whatever its type", R"("errorOccurred","error":{"message":null})",
       R"("Notification","message":null,"notification_type":"error")"},
      {"an error in a string has no message", R"("errorOccurred","error":"boom")",
       R"("Notification","message":"error","notification_type":"error")"},
      {"an error without a message", R"("errorOccurred","error":{})",
       R"("Notification","message":"error","notification_type":"error")"},
      {"an unknown event is a notification of its name", R"("notification","message":"x")",
       R"("Notification","message":"notification","notification_type":"notification")"},
      {"only the common events have two names", R"("PreCompact")",
       R"("Notification","message":"PreCompact","notification_type":"PreCompact")"},
      {"names differ by their letters' case", R"("sessionstart")",
       R"("Notification","message":"sessionstart","notification_type":"sessionstart")"},
      {"the empty name is unknown", R"("")", R"("Notification","message":"","notification_type":"")"},
  };
  for (const MappingRow& row : rows)
    expectMapped(row.sentence, std::string(R"({"hook_event_name":)") + row.raw + "}",
                 std::string(R"({"session_id":"","cwd":"","hook_event_name":)") + row.data + "}");
}

TEST(CopilotAdapter, AnswersInCopilotsWords) {
  const Ask ask{"PreToolUse", "sure?"};
  const Deny deny{"PreToolUse", "no"};
  const struct {
    Outcome outcome;
    const char* copilotEvent;
    const char* body;
  } rows[] = {
      {Allow{}, "agentStop", R"({"decision":"allow"})"},
      {Allow{}, "Stop", R"({"decision":"allow"})"},
      {Allow{}, "stop", R"({"permissionDecision":"allow"})"},
      {Allow{}, "preToolUse", R"({"permissionDecision":"allow"})"},
      {Allow{}, "", R"({"permissionDecision":"allow"})"},
      {ask, "Stop", R"({"decision":"allow"})"},
      {ask, "agentStop", R"({"decision":"allow"})"},
      {ask, "preToolUse", R"({"permissionDecision":"ask","permissionDecisionReason":"sure?"})"},
      {deny, "agentStop", R"({"decision":"block","reason":"no"})"},
      {deny, "Stop", R"({"decision":"block","reason":"no"})"},
      {deny, "permissionRequest", R"({"permissionDecision":"deny","permissionDecisionReason":"no"})"},
  };
  for (const auto& row : rows) {
    const AgentAnswer answer = CopilotAdapter::render(row.outcome, row.copilotEvent);
    EXPECT_EQ(answer.body, row.body) << row.copilotEvent;
    EXPECT_EQ(answer.status, 0) << row.copilotEvent;
  }
}

}  // namespace
