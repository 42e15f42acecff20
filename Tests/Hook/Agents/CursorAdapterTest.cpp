#include "Hook/Agents/CursorAdapter.h"

#include <gtest/gtest.h>

#include "Tests/Support/Sandbox.h"

namespace {

struct MappingRow {
  const char* sentence;
  const char* raw;
  const char* data;  // with the members that every event has
};

void expectMapped(const MappingRow& row) {
  const NormalizedEvent normalized = CursorAdapter::normalize(parsed(row.raw));
  EXPECT_EQ(Json(normalized.data).compact(), Json(parsed(row.data)).compact()) << row.sentence;
  EXPECT_EQ(normalized.event, normalized.data.text("hook_event_name")) << row.sentence;
}

TEST(CursorAdapter, GivesEveryEventASessionAndADirectory) {
  const MappingRow rows[] = {
      {"the conversation is the session",
       R"({"hook_event_name":"sessionStart","conversation_id":"c","session_id":"s","cwd":"/c"})",
       R"({"hook_event_name":"SessionStart","session_id":"c","cwd":"/c"})"},
      {"an empty conversation falls back to the session",
       R"({"hook_event_name":"sessionStart","conversation_id":"","session_id":"s"})",
       R"({"hook_event_name":"SessionStart","session_id":"s","cwd":""})"},
      {"a conversation that is no string falls back to the session",
       R"({"hook_event_name":"sessionStart","conversation_id":7,"session_id":"s"})",
       R"({"hook_event_name":"SessionStart","session_id":"s","cwd":""})"},
      {"a session that is no string is empty", R"({"hook_event_name":"sessionStart","session_id":["s"]})",
       R"({"hook_event_name":"SessionStart","session_id":"","cwd":""})"},
      {"the first workspace root stands for a missing directory",
       R"({"hook_event_name":"sessionStart","workspace_roots":["/w","/v"]})",
       R"({"hook_event_name":"SessionStart","session_id":"","cwd":"/w"})"},
      {"an empty directory still takes precedence over the roots",
       R"({"hook_event_name":"sessionStart","cwd":"","workspace_roots":["/w"]})",
       R"({"hook_event_name":"SessionStart","session_id":"","cwd":""})"},
      {"a directory that is no string gives way to the roots",
       R"({"hook_event_name":"sessionStart","cwd":null,"workspace_roots":["/w"]})",
       R"({"hook_event_name":"SessionStart","session_id":"","cwd":"/w"})"},
      {"roots that are not all strings do not count",
       R"({"hook_event_name":"sessionStart","workspace_roots":["/w",1]})",
       R"({"hook_event_name":"SessionStart","session_id":"","cwd":""})"},
      {"roots that are no list do not count", R"({"hook_event_name":"sessionStart","workspace_roots":"/w"})",
       R"({"hook_event_name":"SessionStart","session_id":"","cwd":""})"},
      {"empty roots give no directory", R"({"hook_event_name":"sessionStart","workspace_roots":[]})",
       R"({"hook_event_name":"SessionStart","session_id":"","cwd":""})"},
      {"a model and a transcript are carried over, empty ones too",
       R"({"hook_event_name":"sessionStart","model":"m","transcript_path":""})",
       R"({"hook_event_name":"SessionStart","session_id":"","cwd":"","model":"m","transcript_path":""})"},
      {"a model and a transcript that are no strings are left out",
       R"({"hook_event_name":"sessionStart","model":1,"transcript_path":null})",
       R"({"hook_event_name":"SessionStart","session_id":"","cwd":""})"},
  };
  for (const MappingRow& row : rows)
    expectMapped(row);
}

// The rows hold only what differs: the event, and what becomes of it.
TEST(CursorAdapter, TranslatesEveryEvent) {
  const MappingRow rows[] = {
      {"a session starts", R"("sessionStart","source":"x")", R"("SessionStart")"},
      {"a tool call is copied whatever its types", R"("preToolUse","tool_name":5,"tool_input":[1.5,null])",
       R"("PreToolUse","tool_name":5,"tool_input":[1.5,null])"},
      {"a tool call may lack everything", R"("preToolUse")",
       R"("PreToolUse","tool_name":"","tool_input":{})"},
      {"null is there, not missing", R"("preToolUse","tool_name":null,"tool_input":null)",
       R"("PreToolUse","tool_name":null,"tool_input":null)"},
      {"a shell command is a call of Bash", R"("beforeShellExecution","command":"ls /","tool_name":"x")",
       R"("PreToolUse","tool_name":"Bash","tool_input":{"command":"ls /"})"},
      {"a shell command that is no string is empty", R"("beforeShellExecution","command":["ls"])",
       R"("PreToolUse","tool_name":"Bash","tool_input":{"command":""})"},
      {"a server's tool is marked and its input kept raw",
       R"("beforeMCPExecution","tool_name":"search","tool_input":"{\"q\":1}")",
       R"("PreToolUse","tool_name":"MCP:search","tool_input":{"raw":"{\"q\":1}"})"},
      {"a server's tool of no name with an input that is no string",
       R"("beforeMCPExecution","tool_name":1,"tool_input":{"q":1})",
       R"("PreToolUse","tool_name":"MCP:","tool_input":{"raw":""})"},
      {"a finished tool call keeps its duration",
       R"("postToolUse","tool_name":"Read","tool_input":{"a":1},"duration":280.475,"tool_output":"x")",
       R"("PostToolUse","tool_name":"Read","tool_input":{"a":1},"duration":280.475)"},
      {"a finished tool call may lack everything", R"("postToolUse")",
       R"("PostToolUse","tool_name":"","tool_input":{},"duration":0)"},
      {"a finished shell command carries no duration", R"("afterShellExecution","command":"ls","duration":3)",
       R"("PostToolUse","tool_name":"Bash","tool_input":{"command":"ls"})"},
      {"a prompt is copied", R"("beforeSubmitPrompt","prompt":"hi")", R"("UserPromptSubmit","prompt":"hi")"},
      {"a missing prompt is empty", R"("beforeSubmitPrompt")", R"("UserPromptSubmit","prompt":"")"},
      {"an answer is a notification", R"("afterAgentResponse","text":"done","message":"x")",
       R"("Notification","message":"done","notification_type":"assistant_response")"},
      {"a missing answer is empty", R"("afterAgentResponse")",
       R"("Notification","message":"","notification_type":"assistant_response")"},
      {"a subagent starts with its task", R"("subagentStart","task":{"t":1})",
       R"("SubagentStart","task":{"t":1})"},
      {"a subagent starts without a task", R"("subagentStart")", R"("SubagentStart","task":"")"},
      {"a subagent stops", R"("subagentStop","task":"t")", R"("SubagentStop")"},
      {"the context is compacted", R"("preCompact")", R"("PreCompact")"},
      {"the end of a turn is only a notification", R"("stop","status":"completed")",
       R"("Notification","message":"turn complete","notification_type":"turn_stop")"},
      {"the end of a session is only a notification", R"("sessionEnd")",
       R"("Notification","message":"session ended","notification_type":"session_end")"},
      {"an unknown event is a notification of its name", R"("beforeReadFile","message":"x")",
       R"("Notification","message":"beforeReadFile","notification_type":"beforeReadFile")"},
      {"names differ by their letters' case", R"("Stop")",
       R"("Notification","message":"Stop","notification_type":"Stop")"},
      {"the empty name is unknown", R"("")", R"("Notification","message":"","notification_type":"")"},
      {"a name that is no string is the empty one", R"(["stop"])",
       R"("Notification","message":"","notification_type":"")"},
  };
  for (const MappingRow& row : rows) {
    const std::string raw = std::string(R"({"hook_event_name":)") + row.raw + "}";
    const std::string data = std::string(R"({"session_id":"","cwd":"","hook_event_name":)") + row.data + "}";
    expectMapped({row.sentence, raw.c_str(), data.c_str()});
  }
  expectMapped(
      {"an empty event", "{}",
       R"({"session_id":"","cwd":"","hook_event_name":"Notification","message":"","notification_type":""})"});
}

TEST(CursorAdapter, AnswersInCursorsWords) {
  const Ask ask{"PreToolUse", "sure? a/b"};
  const Deny deny{"PreToolUse", "blocked"};
  const struct {
    Outcome outcome;
    const char* cursorEvent;
    const char* body;
  } rows[] = {
      {Allow{}, "beforeSubmitPrompt", R"({"continue":true})"},
      {Allow{}, "afterShellExecution", R"({"permission":"allow"})"},
      {Allow{}, "", R"({"permission":"allow"})"},
      {Allow{}, "UserPromptSubmit", R"({"permission":"allow"})"},
      {ask, "beforeSubmitPrompt", R"({"continue":true,"user_message":"sure? a\/b"})"},
      {ask, "beforeMCPExecution", R"({"permission":"ask","user_message":"sure? a\/b"})"},
      {deny, "beforeSubmitPrompt", R"({"continue":false,"user_message":"blocked"})"},
      {deny, "beforeShellExecution",
       R"({"agent_message":"blocked","permission":"deny","user_message":"blocked"})"},
  };
  for (const auto& row : rows) {
    const AgentAnswer answer = CursorAdapter::render(row.outcome, row.cursorEvent);
    EXPECT_EQ(answer.body, row.body) << row.cursorEvent;
    EXPECT_EQ(answer.status, 0) << row.cursorEvent;
  }
}

}  // namespace
