#include "Tests/Support/Events.h"

#include "Platform/Clock.h"

std::vector<Json::Object> everyEvent(const std::string& project, const std::string& transcript) {
  const Json::Object command{{"command", "rm -rf build"}};
  const Json::Object file{{"file_path", project + "/a.txt"}, {"content", "text"}};
  std::vector<Json::Object> events{
      {{"hook_event_name", "SessionStart"}, {"model", "sonnet"}},
      {{"hook_event_name", "UserPromptSubmit"}, {"prompt", "a prompt"}},
      {{"hook_event_name", "PreToolUse"}, {"tool_name", "Bash"}, {"tool_input", command}},
      {{"hook_event_name", "PostToolUse"}, {"tool_name", "Bash"}, {"tool_input", command}},
      {{"hook_event_name", "PreToolUse"}, {"tool_name", "Write"}, {"tool_input", file}},
      {{"hook_event_name", "PostToolUse"}, {"tool_name", "Write"}, {"tool_input", file}},
      {{"hook_event_name", "PostToolUseFailure"}, {"tool_name", "Bash"}, {"error", "an error"}},
      {{"hook_event_name", "SubagentStart"}, {"agent_id", "a"}, {"agent_type", "explorer"}},
      {{"hook_event_name", "SubagentStop"}, {"agent_id", "a"}, {"agent_type", "explorer"}},
      {{"hook_event_name", "TeammateIdle"}},
      {{"hook_event_name", "PreCompact"}, {"pre_tokens", 1000}},
      {{"hook_event_name", "Notification"}, {"message", "a message"}},
      {{"hook_event_name", "Unheard"}},
      {{"hook_event_name", "Stop"}, {"transcript_path", transcript}},
      {{"hook_event_name", "SessionEnd"}, {"transcript_path", transcript}},
  };
  for (Json::Object& event : events) {
    event.set("session_id", "s");
    event.set("cwd", project);
  }
  return events;
}

std::string transcriptOf(int calls) {
  std::string text = R"({"type":"user","message":{"content":"a prompt"}})"
                     "\n";
  for (int call = 0; call < calls; ++call)
    text += R"({"type":"assistant","timestamp":")" + Clock::dateTime() + R"(","message":{"id":"m)" +
            std::to_string(call) +
            R"(","model":"opus","usage":{"input_tokens":100000,"output_tokens":10}}})"
            "\n";
  return text;
}
