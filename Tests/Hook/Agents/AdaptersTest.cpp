// What becomes of the events of Cursor and Copilot, how both are answered, and their sessions through the
// executable.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "Hook/Agents/CopilotAdapter.h"
#include "Hook/Agents/CursorAdapter.h"
#include "Platform/Process.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionFixture.h"
#include "Tests/Support/Table.h"

namespace {

// In the rows the names of members stand without quotes.
Json::Object object(const std::string& members) {
  static const std::regex name(R"((^|[{,])(\w+):)");
  return parsed("{" + std::regex_replace(members, name, R"($1"$2":)") + "}");
}

// "allow", or "ask" or "deny" with its text.
Outcome outcome(const std::string& described) {
  const std::string text = described.substr(std::min(described.find(' ') + 1, described.size()));
  if (described.starts_with("ask")) return Ask{"PreToolUse", text};
  if (described.starts_with("deny")) return Deny{"PreToolUse", text};
  return Allow{};
}

AgentAnswer render(const std::string& app, const Outcome& outcome, const std::string& event) {
  return (app == "cursor" ? CursorAdapter::render : CopilotAdapter::render)(outcome, event);
}

// Rows: the agent's names of the event ("-": none), its other members, our name, our other members; of these
// "session_id" and "cwd" are empty unless given. "?": the notification that any unknown event becomes.
void translate(NormalizedEvent (*normalize)(const Json::Object&), const char* table) {
  const auto named = [](const std::string& name) { return "hook_event_name:\"" + name + "\","; };
  for (const auto& row : rows(table))
    for (const std::string& event : row[0].empty() ? std::vector<std::string>{""} : words(row[0])) {
      const std::string unknown = "message:\"" + event + "\",notification_type:\"" + event + "\"";
      const auto raw = object((event == "-" ? "" : named(event)) + (row[1].empty() ? "_:1" : row[1]));
      const auto expected = object(named(row[2]) + "session_id:\"\",cwd:\"\"" + (row[3].empty() ? "" : ",") +
                                   (row[3] == "?" ? unknown : row[3]));
      const NormalizedEvent found = normalize(raw);
      EXPECT_EQ(Json(found.data).compact(), Json(expected).compact()) << event << " " << row[1];
      EXPECT_EQ(found.event, row[2]) << event << " " << row[1];
    }
}

TEST(Adapters, TranslateTheEventsOfCursor) {
  translate(CursorAdapter::normalize, R"(
sessionStart         ¦ conversation_id:"c",session_id:"s",cwd:"/c" ¦ SessionStart ¦ session_id:"c",cwd:"/c"
sessionStart         ¦ conversation_id:"",session_id:"s",cwd:"" ¦ SessionStart ¦ session_id:"s"
sessionStart         ¦ conversation_id:7,session_id:"s" ¦ SessionStart ¦ session_id:"s"
sessionStart         ¦ session_id:["s"],cwd:null,workspace_roots:["/w","/v"] ¦ SessionStart ¦ cwd:"/w"
sessionStart         ¦ cwd:"",workspace_roots:["/w"] ¦ SessionStart
sessionStart         ¦ workspace_roots:["/w",1] ¦ SessionStart
sessionStart         ¦ workspace_roots:"/w" ¦ SessionStart
sessionStart         ¦ workspace_roots:[] ¦ SessionStart
sessionStart         ¦ model:"m",transcript_path:"" ¦ SessionStart ¦ model:"m",transcript_path:""
sessionStart         ¦ model:1,transcript_path:null,x:1 ¦ SessionStart
preToolUse           ¦ tool_name:5,tool_input:[1.5,null] ¦ PreToolUse ¦ tool_name:5,tool_input:[1.5,null]
preToolUse           ¦ ∅ ¦ PreToolUse ¦ tool_name:"",tool_input:{}
preToolUse           ¦ tool_name:null,tool_input:null ¦ PreToolUse ¦ tool_name:null,tool_input:null
beforeShellExecution ¦ command:"ls",tool_name:"x" ¦ PreToolUse ¦ tool_name:"Bash",tool_input:{command:"ls"}
beforeShellExecution ¦ command:["ls"] ¦ PreToolUse ¦ tool_name:"Bash",tool_input:{command:""}
beforeMCPExecution   ¦ tool_name:"s",tool_input:"{}" ¦ PreToolUse ¦ tool_name:"MCP:s",tool_input:{raw:"{}"}
beforeMCPExecution   ¦ tool_name:1,tool_input:{q:1} ¦ PreToolUse ¦ tool_name:"MCP:",tool_input:{raw:""}
postToolUse          ¦ tool_input:1,duration:2.5,x:1 ¦ PostToolUse ¦ tool_name:"",tool_input:1,duration:2.5
postToolUse          ¦ ∅ ¦ PostToolUse ¦ tool_name:"",tool_input:{},duration:0
afterShellExecution  ¦ command:"ls",duration:3 ¦ PostToolUse ¦ tool_name:"Bash",tool_input:{command:"ls"}
beforeSubmitPrompt   ¦ prompt:"hi" ¦ UserPromptSubmit ¦ prompt:"hi"
beforeSubmitPrompt   ¦ ∅ ¦ UserPromptSubmit ¦ prompt:""
afterAgentResponse   ¦ text:1,message:"x" ¦ Notification ¦ message:1,notification_type:"assistant_response"
subagentStart        ¦ task:{t:1} ¦ SubagentStart ¦ task:{t:1}
subagentStop         ¦ task:"t" ¦ SubagentStop
preCompact           ¦ ∅ ¦ PreCompact
stop                 ¦ status:"done" ¦ Notification ¦ message:"turn complete",notification_type:"turn_stop"
sessionEnd           ¦ ∅ ¦ Notification ¦ message:"session ended",notification_type:"session_end"
beforeReadFile Stop  ¦ message:"x" ¦ Notification ¦ ?
∅                    ¦ ∅ ¦ Notification ¦ ?
-                    ¦ hook_event_name:["stop"] ¦ Notification ¦ message:"",notification_type:""
-                    ¦ ∅ ¦ Notification ¦ message:"",notification_type:""
)");
}

TEST(Adapters, TranslateTheEventsOfCopilot) {
  translate(CopilotAdapter::normalize, R"(
SessionStart         ¦ sessionId:"a",session_id:"b",cwd:"/c" ¦ SessionStart ¦ session_id:"a",cwd:"/c"
SessionStart         ¦ transcriptPath:"/t",transcript_path:"/u" ¦ SessionStart ¦ transcript_path:"/t"
sessionStart         ¦ sessionId:1,session_id:"b" ¦ SessionStart ¦ session_id:"b"
sessionStart         ¦ transcriptPath:{},transcript_path:"/u" ¦ SessionStart ¦ transcript_path:"/u"
SessionStart         ¦ sessionId:"",session_id:"b" ¦ SessionStart
SessionStart         ¦ transcriptPath:"",transcript_path:"/u" ¦ SessionStart ¦ transcript_path:""
SessionStart         ¦ session_id:[],cwd:1,transcript_path:null ¦ SessionStart
SessionStart sessionStart ¦ model:"m",workspace_roots:["/w"],source:"x" ¦ SessionStart
preToolUse           ¦ __copilot_event:"subagentStop" ¦ SubagentStop
subagentStop         ¦ __copilot_event:7 ¦ SubagentStop
subagentStop         ¦ __copilot_event:"" ¦ Notification ¦ message:"",notification_type:""
-                    ¦ hook_event_name:{},__copilot_event:1 ¦ Notification ¦ message:"",notification_type:""
-                    ¦ hookEventName:"Stop" ¦ Notification ¦ message:"",notification_type:""
userPromptSubmitted UserPromptSubmit ¦ prompt:["p"] ¦ UserPromptSubmit ¦ prompt:["p"]
UserPromptSubmit     ¦ ∅ ¦ UserPromptSubmit ¦ prompt:""
preToolUse      ¦ toolName:"t",tool_name:2,toolArgs:1,tool_input:2 ¦ PreToolUse ¦ tool_name:"t",tool_input:1
permissionRequest PreToolUse ¦ tool_name:"t",tool_input:[1] ¦ PreToolUse ¦ tool_name:"t",tool_input:[1]
preToolUse           ¦ toolName:1,tool_name:"t" ¦ PreToolUse ¦ tool_name:"t",tool_input:{}
preToolUse           ¦ toolArgs:null,tool_input:{a:1} ¦ PreToolUse ¦ tool_name:"",tool_input:null
preToolUse           ¦ toolArgs:"{\"a\":1}" ¦ PreToolUse ¦ tool_name:"",tool_input:"{\"a\":1}"
postToolUse PostToolUse ¦ toolName:"t",toolResult:{},duration:4 ¦ PostToolUse ¦ tool_name:"t",tool_input:{}
postToolUseFailure   ¦ toolName:"t",toolArgs:{},error:{m:1} ¦ PostToolUseFailure ¦ tool_name:"t",error:{m:1}
PostToolUseFailure   ¦ tool_name:"t" ¦ PostToolUseFailure ¦ tool_name:"t",error:""
subagentStart        ¦ agentDescription:"d",agentName:"n" ¦ SubagentStart ¦ task:"d"
subagentStart        ¦ agentDescription:null,agentName:"n" ¦ SubagentStart ¦ task:null
subagentStart        ¦ agentName:"n" ¦ SubagentStart ¦ task:"n"
subagentStart        ¦ task:"t" ¦ SubagentStart ¦ task:""
preCompact           ¦ ∅ ¦ PreCompact
agentStop Stop       ¦ message:1 ¦ Stop
sessionEnd SessionEnd ¦ reason:1 ¦ SessionEnd
errorOccurred        ¦ error:{message:"b"},message:1 ¦ Notification ¦ message:"b",notification_type:"error"
errorOccurred        ¦ error:{message:null} ¦ Notification ¦ message:null,notification_type:"error"
errorOccurred        ¦ error:"boom" ¦ Notification ¦ message:"error",notification_type:"error"
errorOccurred        ¦ error:{} ¦ Notification ¦ message:"error",notification_type:"error"
notification PreCompact sessionstart ¦ message:"x" ¦ Notification ¦ ?
∅                    ¦ ∅ ¦ Notification ¦ ?
)");
}

TEST(Adapters, AnswerInTheAgentsWords) {
  for (const auto& row : rows(R"(
cursor  ¦ allow    ¦ beforeSubmitPrompt   ¦ {"continue":true}
cursor  ¦ ask a/b? ¦ beforeSubmitPrompt   ¦ {"continue":true,"user_message":"a\/b?"}
cursor  ¦ deny no  ¦ beforeSubmitPrompt   ¦ {"continue":false,"user_message":"no"}
cursor  ¦ allow    ¦ stop UserPromptSubmit - ¦ {"permission":"allow"}
cursor  ¦ ask a/b? ¦ beforeMCPExecution   ¦ {"permission":"ask","user_message":"a\/b?"}
cursor  ¦ deny no  ¦ beforeShellExecution ¦ {"agent_message":"no","permission":"deny","user_message":"no"}
copilot ¦ allow    ¦ agentStop Stop       ¦ {"decision":"allow"}
copilot ¦ ask a/b? ¦ agentStop Stop       ¦ {"decision":"allow"}
copilot ¦ deny no  ¦ agentStop Stop       ¦ {"decision":"block","reason":"no"}
copilot ¦ allow    ¦ stop preToolUse -    ¦ {"permissionDecision":"allow"}
copilot ¦ ask a/b? ¦ preToolUse           ¦ {"permissionDecision":"ask","permissionDecisionReason":"a\/b?"}
copilot ¦ deny no  ¦ permissionRequest    ¦ {"permissionDecision":"deny","permissionDecisionReason":"no"}
)"))
    for (const std::string& event : words(row[2])) {
      const AgentAnswer answer = render(row[0], outcome(row[1]), event == "-" ? "" : event);
      EXPECT_EQ(answer.body, row[3]) << event;
      EXPECT_EQ(answer.status, 0) << event;
    }
}

class AdapterProcess : public SessionFixture {
 protected:
  AdapterProcess() {
    const std::string profile = "]\napi_url = " + plane.url() + "\napi_key = k\nagent_slug = reviewer\n";
    sandbox.write(sandbox.home() + "/.obrisk/config", "[cursor" + profile + "[copilot" + profile);
    plane.on("*/policy-check/", [](const FakeControlPlane::Request& request) {
      std::string action = "allow";
      if (request.body.find("\"tool:MCP:search\"") != std::string::npos) action = "warn";
      if (request.body.find("\"tool:deploy\"") != std::string::npos) action = "block";
      return FakeControlPlane::json({{"action", action}, {"reason", "costly"}});
    });
  }

  // Rows: the event, its members beside the common ones, and what the agent must be told.
  void session(const std::string& app, const std::string& common, const char* table) const {
    for (const auto& row : rows(table)) {
      const std::string members = common + (row[1].empty() ? "" : ",") + row[1];
      const auto result = sandbox.run({"--app", app, "--profile", app},
                                      object(members + ",hook_event_name:\"" + row[0] + "\""));
      EXPECT_EQ(result.output, render(app, outcome(row[2]), row[0]).body) << row[0];
      EXPECT_EQ(result.error, "") << row[0];
      EXPECT_EQ(result.status, 0) << row[0];
    }
  }

  // What the requests to this path name under `member`, in order.
  std::string named(const std::string& path, const std::string& member) const {
    const std::regex one("\"" + member + "\":\"([^\"]*)");
    std::string names;
    for (const auto& request : plane.requests(path))
      for (std::sregex_iterator at(request.body.begin(), request.body.end(), one), end; at != end; ++at)
        names += (*at)[1].str() + " ";
    return names;
  }
};

TEST_F(AdapterProcess, GuardsASessionOfCursor) {
  session("cursor", R"(conversation_id:"c",workspace_roots:[")" + sandbox.project() + R"("])", R"(
sessionStart         ¦ ∅ ¦ allow
beforeSubmitPrompt   ¦ prompt:"clean up"   ¦ allow
beforeShellExecution ¦ command:"rm -rf /"  ¦ deny Obrisk guard: Blocked command pattern: rm -rf /
beforeShellExecution ¦ command:"ls"        ¦ allow
beforeMCPExecution   ¦ tool_name:"search"  ¦ ask Obrisk: Policy warning: costly
preToolUse           ¦ tool_name:"deploy"  ¦ deny Obrisk policy blocked: costly
afterShellExecution  ¦ command:"ls"        ¦ allow
stop                 ¦ ∅ ¦ allow
sessionEnd           ¦ ∅ ¦ allow
)");
  EXPECT_EQ(named("*/policy-check/", "workflow_name"), "tool:Bash tool:MCP:search tool:deploy ")
      << "the local guard's refusal is final";
  EXPECT_EQ(named("*/steps/", "step_name"),
            "hook:session_start hook:user_prompt hook:guard_decision:deny "
            "hook:guard_decision:policy_warn hook:guard_decision:policy_block hook:tool_use:Bash "
            "hook:notification hook:notification ");
  EXPECT_EQ(plane.requests("*/runs/daily/").size(), 1u) << "the session goes on from event to event";
  EXPECT_TRUE(plane.requests("*/complete/").empty()) << "the end of a turn is not the end of the run";
}

TEST_F(AdapterProcess, GuardsASessionOfCopilotAndRecordsItsCalls) {
  const std::string transcript = sandbox.root() + "/transcript.jsonl";
  sandbox.write(transcript, transcriptOf(1));
  session("copilot",
          R"(sessionId:"s",cwd:")" + sandbox.project() + R"(",transcriptPath:")" + transcript + '"', R"(
sessionStart       ¦ ∅ ¦ allow
preToolUse ¦ toolName:"Bash",toolArgs:{command:"mkfs a"} ¦ deny Obrisk guard: Blocked command pattern: mkfs a
permissionRequest  ¦ toolName:"deploy"             ¦ deny Obrisk policy blocked: costly
postToolUseFailure ¦ toolName:"Bash",error:"exit 1" ¦ allow
agentStop          ¦ ∅ ¦ allow
)");
  EXPECT_EQ(named("*/policy-check/", "workflow_name"), "tool:deploy claude-code:stop ");
  EXPECT_EQ(named("*/steps/", "step_name"),
            "hook:session_start hook:guard_decision:deny hook:guard_decision:policy_block "
            "hook:tool_failure hook:stop ");
  const auto calls = plane.requests("*/runs/daily-1/llm-calls/");
  ASSERT_EQ(calls.size(), 1u);
  ASSERT_EQ(calls[0].json.list("calls").size(), 1u);
  EXPECT_EQ(calls[0].json.list("calls")[0].asObject()->integer("tokens_in"), 100000);
}

TEST_F(AdapterProcess, AnswersFromTheCommandLineThatItInstalled) {
  const auto shell = [](const std::string& command) {
    return Process::run("/bin/sh", {"-c", command}).value_or("");
  };
  const std::string folder = sandbox.root() + "/my tools ($HOME)";
  std::filesystem::create_directory(folder);
  std::filesystem::copy_file(QUIB_HOOK_EXECUTABLE, folder + "/quib-hook");
  const std::string start = "cd '" + folder + "' && ./quib-hook --install-";
  for (const auto& row : rows(R"(
cursor  ¦ .cursor/hooks.json         ¦ stop      ¦ {"permission":"allow"}
copilot ¦ .copilot/hooks/obrisk.json ¦ agentStop ¦ {"decision":"allow"}
claude  ¦ .claude/settings.json      ¦ Stop      ¦ {"continue":true}
)")) {
    EXPECT_EQ(shell(start + row[0] + " && echo \" $?\""), "{\"installed\":true} 0\n");
    const Json::Array entries = parsed(contentOf(sandbox.home() + "/" + row[1])).object("hooks").list(row[2]);
    ASSERT_EQ(entries.size(), 1u) << row[0];
    const Json::Array& commands = entries[0].asObject()->list("hooks");
    const std::string command = (commands.empty() ? entries : commands)[0].asObject()->text("command");
    EXPECT_EQ(shell("echo '{\"hook_event_name\":\"" + row[2] + "\"}' | " + command), row[3]) << command;
  }
  EXPECT_EQ(shell("export HOME=/dev/null; " + start + "cursor; echo \" $?\""), "{\"installed\":false} 1\n");
}

}  // namespace
