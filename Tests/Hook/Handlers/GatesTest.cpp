// The events that can be objected to, those that are recorded and no more, and what is recorded of a tool.
#include <gtest/gtest.h>

#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"
#include "Hook/Handlers/ToolSummaries.h"
#include "Hook/State/SessionStore.h"
#include "Hook/Transcript/Transcript.h"
#include "Tests/Support/SessionScript.h"
#include "Tests/Support/Table.h"

namespace EventRouter {
namespace {

class Gates : public SessionScript {
 protected:
  void SetUp() override {
    reset();
    command("own");
  }

  // What is seen of an event with that outcome and those steps, and then `rest`.
  static std::string seen(std::string outcome, const std::vector<std::string>& steps,
                          const std::string& rest = "") {
    for (std::size_t position = 0; position < steps.size(); ++position)
      outcome += " steps " + std::to_string(position) + " " + steps[position];
    outcome += rest + (steps.empty() ? "" : " record {span_count:" + std::to_string(steps.size()) + "}");
    return outcome.substr(outcome.starts_with(' '));
  }

  static Json::Object call(const std::string& tool, const std::string& member, const std::string& value) {
    return event("PreToolUse", {{"tool_name", tool}, {"tool_input", Json::Object{{member, value}}}});
  }
};

TEST_F(Gates, AskThePolicyWhenNoLocalRuleBlocks) {
  play(R"(
    == a local block is reported, and the policy not asked ¦ daily
    > PreToolUse {tool_name:"Bash",tool_input:{command:"rm -rf /"}}
      deny Obrisk guard: Blocked command pattern: rm -rf /
      steps 0 deny by destructive_command of Bash: Blocked command pattern: rm -rf / record {span_count:1}
    == the policy is asked, but not without a slug ¦ daily
    > PreToolUse {tool_name:"Read",tool_input:{file_path:"/etc/passwd"}}
      policy-check {agent_id:"run-0",agent_name:"claude-code",workflow_name:"tool:Read"}
    > PreCompact {}
      steps 0 pre_compact {}
      policy-check {agent_id:"run-0",agent_name:"claude-code",workflow_name:"claude-code:precompact"}
      record {span_count:1}
    own
    > PreToolUse {tool_name:"Read",tool_input:{file_path:"/etc/passwd"}}
    > PreToolUse {tool_name:7,tool_input:"x"}
    > PreCompact {} ¦ steps 1 pre_compact {} record {span_count:2}
    == a warning hides the checks of files ¦ own
    file @project/.obrisk/guard.json {warn_file_changes:1}
    > PreToolUse {tool_name:"Write",tool_input:{file_path:"yarn.lock"}}
      ask Obrisk: Write to sensitive file: yarn.lock (matched: *.lock)
      steps 0 ask by file_protection of Write: Write to sensitive file: yarn.lock (matched: *.lock)
      record {span_count:1}
    == local rules decide without a configuration, and what is not reported takes no position ¦ unconfigured
    > PreToolUse {tool_name:"Bash",tool_input:{command:"mkfs /dev/sda"}}
      deny Obrisk guard: Blocked command pattern: mkfs /dev/sda
  )");
}

TEST_F(Gates, EveryAnswerUnderEveryFailDefault) {
  const std::string local = "Potentially dangerous command: rm -rf build", failure = "403 {}";
  const std::pair<std::string, std::string> texts[] = {
      {"LOCAL", local},
      {"FAILED", "Policy check failed (controlplane unreachable); proceeding requires confirmation."},
      {"UNASKED",
       "Obrisk policy check failed and tenant default is deny — controlplane is unreachable. "
       "Configure [claude-code] policy_check_fail_default=allow to override."}};
  // The answer, the fail default, the command, the outcome, the decision and its violation.
  for (const auto& row : rows(R"(
    200 {action:"block",reason:"R"} ¦ allow ¦ ls           ¦ deny Obrisk policy blocked: R ¦ policy_block ¦ R
    200 {action:"BLOCK"} ¦ ask ¦ ls ¦ deny Obrisk policy blocked: Policy violation ¦ policy_block ¦ Policy violation
    200 {action:"block",reason:"R"} ¦ allow ¦ rm -rf build ¦ deny Obrisk policy blocked: R ¦ policy_block ¦ R
    200 {action:"Warn",reason:"R"}  ¦ allow ¦ ls           ¦ ask Obrisk: Policy warning: R ¦ policy_warn  ¦ R
    200 {action:"warn"} ¦ deny ¦ ls ¦ ask Obrisk: Policy warning: Policy warning ¦ policy_warn ¦ Policy warning
    200 {action:"warn",reason:"R"} ¦ allow ¦ rm -rf build ¦ ask Obrisk: LOCAL; Policy warning: R ¦ policy_warn ¦ R
    200 {action:"allow",reason:"x"} ¦ deny  ¦ ls
    200 {}                          ¦ deny  ¦ ls
    200 {action:"deny",reason:"x"}  ¦ deny  ¦ ls
    200 {action:"ask",reason:"x"}   ¦ deny  ¦ ls
    200 {action:"allow"}            ¦ allow ¦ rm -rf build ¦ ask Obrisk: LOCAL
    403 {}                          ¦ allow ¦ ls
    403 {}                          ¦ ask   ¦ ls           ¦ ask Obrisk: FAILED
    403 {}                          ¦ deny  ¦ ls           ¦ deny UNASKED
    403 {}                          ¦ ask   ¦ rm -rf build ¦ ask Obrisk: LOCAL; FAILED
    403 {}                          ¦ deny  ¦ rm -rf build ¦ deny UNASKED
  )")) {
    reset();
    command("daily " + row[1]);
    command("plane policy-check " + row[0]);
    std::string outcome = row[3];
    for (const auto& [name, text] : texts)
      if (const auto at = outcome.find(name); at != outcome.npos) outcome.replace(at, name.size(), text);
    std::vector<std::string> steps;
    if (row[2].starts_with("rm")) steps.push_back("ask by destructive_command of Bash: " + local);
    (steps.empty() ? outcome : steps[0]) += " policy-check {…}";
    if (!row[4].empty()) steps.push_back(row[4] + " by server-side of Bash: " + row[5]);
    std::string expected = seen(outcome, steps);
    if (row[0] == failure) expected += " log PreToolUse policy check failed; applying fail-default=" + row[1];
    EXPECT_EQ(seenOf(call("Bash", "command", row[2]), expected), expected) << row[0];
  }
}

TEST_F(Gates, TheBudgetDecidesOnACompaction) {
  playEach(R"(
    == %1 ¦ daily deny ¦ plane policy-check 200 %1
    > PreCompact {pre_tokens:1} ¦ %2 steps 0 pre_compact {pre_tokens:1} policy-check {…}
      steps 1 precompact_%3 by server-side of PreCompact: %4 record {span_count:2})",
           R"(
    {action:"Block",reason:"R"} ¦ deny Obrisk policy blocked compaction: R ¦ block ¦ R
    {action:"block"} ¦ deny Obrisk policy blocked compaction: budget threshold exceeded ¦ block ¦ Budget policy blocked compaction
    {action:"WARN",reason:"R"} ¦ ask Obrisk budget warning before compaction: R ¦ warn ¦ R
    {action:"warn"} ¦ ask Obrisk budget warning before compaction: approaching budget threshold ¦ warn ¦ Budget policy warning
  )");
  playEach(R"(
    == %1 ¦ daily deny ¦ plane policy-check %1
    > PreCompact {} ¦ steps 0 pre_compact {} policy-check {…} record {span_count:1})",
           R"(
    200 {action:"deny",reason:"x"}
    200 {}
    400 {}
  )");
}

// A session of the same directory has modified "src/a" and "/p/src/./a".
TEST_F(Gates, AskBeforeOneFileTooManyAndATeammatesFile) {
  SessionState peer = started();
  peer.session_id = "peer";
  peer.modified_files = {"src/a", "/p/src/./a"};
  ASSERT_FALSE(SessionStore::save(peer));
  // How many files are recorded, whether the session is one of a group, the call, the guard, the rules, the
  // message.
  for (const auto& row : rows(R"(
    19 ¦ alone ¦ Write     ¦ /p/new ¦ {} ¦ session_scope ¦ 20 files — approaching limit
    18 ¦ alone ¦ Write     ¦ /p/new ¦ {}
    19 ¦ alone ¦ Edit      ¦ /p/new ¦ {} ¦ session_scope ¦ 20 files — approaching limit
    20 ¦ alone ¦ Write     ¦ /p/new ¦ {}
    19 ¦ alone ¦ Write     ¦ /p/3   ¦ {}
    19 ¦ alone ¦ Write     ¦ ∅      ¦ {}
    19 ¦ alone ¦ MultiEdit ¦ /p/new ¦ {}
    49 ¦ alone ¦ Write     ¦ /p/new ¦ {}
    50 ¦ alone ¦ Write     ¦ /p/new ¦ {} ¦ session_scope ¦ 51 files (limit: 50)
    51 ¦ alone ¦ Write     ¦ /p/new ¦ {} ¦ session_scope ¦ 52 files (limit: 50)
    60 ¦ alone ¦ Write     ¦ /p/new ¦ {max_file_changes:0,warn_file_changes:0}
    19 ¦ alone ¦ Write     ¦ /p/new ¦ {max_file_changes:5}  ¦ session_scope ¦ 20 files (limit: 5)
    1  ¦ alone ¦ Write     ¦ /p/new ¦ {max_file_changes:1}  ¦ session_scope ¦ 2 files (limit: 1)
    0  ¦ alone ¦ Write     ¦ /p/new ¦ {warn_file_changes:1} ¦ session_scope ¦ 1 files — approaching limit
    19 ¦ alone ¦ Write     ¦ /p/new ¦ {max_file_changes:-1} ¦ session_scope ¦ 20 files — approaching limit
    19 ¦ group ¦ Write ¦ /p/src/../src/a ¦ {} ¦ cowork_conflict session_scope ¦ 20 files — approaching limit
    0  ¦ group ¦ Edit  ¦ /p/src/a        ¦ {} ¦ cowork_conflict
    0  ¦ group ¦ Write ¦ /p/src/b        ¦ {}
    0  ¦ group ¦ Write ¦ /q/src/a        ¦ {}
    0  ¦ group ¦ Write ¦ /p/src/a        ¦ {detect_file_conflicts:false}
    0  ¦ alone ¦ Write ¦ /p/src/a        ¦ {}
    0  ¦ group ¦ Read  ¦ /p/src/a        ¦ {}
  )")) {
    SessionState state = started();
    state.is_cowork = row[1] == "group";
    for (int file = 0; file < std::stoi(row[0]); ++file)
      state.modified_files.push_back("/p/" + std::to_string(file));
    ASSERT_FALSE(SessionStore::save(state));
    command("file @project/.obrisk/guard.json " + row[4]);
    std::string asked;
    std::vector<std::string> steps;
    for (const std::string& rule : words(row[5])) {
      const std::string message = rule == "session_scope"
                                      ? "Session has modified " + row[6]
                                      : "Cowork conflict: teammate already modified " + row[3];
      asked += (asked.empty() ? "ask Obrisk: " : "; ") + message;
      steps.push_back("ask by " + rule + " of " + row[2] + ": " + message);
    }
    EXPECT_EQ(seenOf(call(row[2], "file_path", row[3])), seen(asked, steps)) << row[3];
  }
}

TEST_F(Gates, RecordEveryOtherEventAsAStep) {
  playEach(R"(
    given {span_count:4}
    > %1 {transcript_path:"/t",config_type:1,content:1,cwd:1,error:1,event_type:1,file_path:1,message:1,new_cwd:1,notification_type:1,old_cwd:1,post_tokens:1,pre_tokens:1,prompt:1,reason:1,response:1,server_name:1,source:1,status:1,task_id:1,tool_input:1,tool_name:1,worktree_path:1} ¦ steps 4 %2 {%3} record {span_count:5})",
           R"(
    StopFailure        ¦ stop_failure             ¦ error:1
    PostCompact        ¦ post_compact             ¦ post_tokens:1,pre_tokens:1
    UserPromptSubmit   ¦ user_prompt              ¦ prompt:1
    Notification       ¦ notification             ¦ message:1,notification_type:1
    TaskCreated        ¦ task_created             ¦ content:1,status:1,task_id:1
    TaskCompleted      ¦ task_completed           ¦ content:1,status:1,task_id:1
    PermissionRequest  ¦ permission_request       ¦ reason:1,tool_input:1,tool_name:1
    PermissionDenied   ¦ permission_denied        ¦ reason:1,tool_input:1,tool_name:1
    InstructionsLoaded ¦ instructions_loaded kitu ¦ file_path:1,source:1
    CwdChanged         ¦ cwd_changed              ¦ cwd:1,new_cwd:1,old_cwd:1
    ConfigChange       ¦ config_change            ¦ config_type:1,file_path:1
    FileChanged        ¦ file_changed             ¦ event_type:1,file_path:1
    WorktreeCreate     ¦ worktree_create          ¦ worktree_path:1
    WorktreeRemove     ¦ worktree_remove          ¦ worktree_path:1
    Elicitation        ¦ elicitation              ¦ prompt:1,server_name:1
    ElicitationResult  ¦ elicitation_result       ¦ response:1,server_name:1
  )");
  play(R"(
    == members of any kind, unchanged, and over those that every step has ¦ own
    > UserPromptSubmit {prompt:"<p*10000>"} ¦ steps 0 user_prompt {prompt:"<p*10000>"} record {span_count:1}
    > stop {message:[1,null],kind:"mine",cwd:"/w",transcript_path:"/t"}
      steps 1 unknown:stop istu {cwd:"/w",kind:"mine",message:[1,null]} record {span_count:2}
    > nameless {hook_event_name:[],x:1} ¦ steps 2 unknown: {x:1} record {span_count:3}
  )");
}

TEST_F(Gates, ASessionIsLoadedOrStartedFromAnEventOnly) {
  const ObserveClient nobody = unconfigured(), client = own();
  const Json::Object any = event("Stop");
  EXPECT_FALSE(loadStateFresh("unknown", nullptr, client));
  EXPECT_FALSE(loadStateFresh("", &any, client));
  command("given {run_id:\"\",span_count:9}");
  EXPECT_EQ(loadStateFresh("s", &any, nobody)->state.span_count, 9) << "what the second reading holds counts";
  EXPECT_FALSE(loadStarted(any, nobody));
  Session session{SessionState(), client};
  session.emitStep("x", {});
  session.emitGuardDecision("x", {});
  TranscriptSummary costly;
  costly.totalCost = 1;
  reconcileStopCost(session, costly);
  EXPECT_TRUE(plane.requests().empty()) << "without a run";
}

TEST_F(Gates, SayInOneLineWhatAToolWasAskedAndWhatItAnswered) {
  for (const auto& row : rows(R"(
    Bash      ¦ {command:"<x*300>"}                           ¦ <x*200>
    Bash      ¦ {description:"x"}
    Bash      ¦ {command:1}
    Bash      ¦ {}
    Read      ¦ {file_path:"/a",x:1}                          ¦ /a
    Write     ¦ {file_path:"<x*300>"}                         ¦ <x*300>
    Edit      ¦ {file_path:"/a"}                              ¦ /a
    Grep      ¦ {pattern:"needle",path:"src"}                 ¦ needle in src
    Grep      ¦ {pattern:"needle"}                            ¦ needle
    Grep      ¦ {path:"src"}                                  ¦ ␠in src
    Glob      ¦ {pattern:"*.c"}                               ¦ *.c
    WebSearch ¦ {query:"q"}                                   ¦ q
    WebFetch  ¦ {url:"http://x"}                              ¦ http://x
    Task      ¦ {subagent_type:"explorer",description:"scan"} ¦ [explorer] scan
    Task      ¦ {description:"scan"}                          ¦ scan
    Task      ¦ {subagent_type:"explorer"}                    ¦ [explorer]␠
    bash      ¦ {command:"ls"}                                ¦ command=ls
    MCP:x     ¦ {b:1,a:"ä<x*300>"}                            ¦ a=ä<x*99>
    Other     ¦ {n:12}                                        ¦ n=12
    Other     ¦ {n:100000.0}                                  ¦ n=100000
    Other     ¦ {n:0.0000001}                                 ¦ n=0.0000001
    Other     ¦ {f:true}                                      ¦ f=true
    answer    ¦ {}
    answer    ¦ {content:"<c*250>",filePath:"/a"}             ¦ <c*200>
    answer    ¦ {content:"",filePath:"/a/b"}                  ¦ file:/a/b
    answer    ¦ {content:["x"],stdout:"y"}
  )")) {
    const Json::Object object = parsed(expanded(row[1]));
    EXPECT_EQ(
        abbreviated(row[0] == "answer" ? summarizeToolOutput(object) : summarizeToolInput(row[0], object)),
        row[2])
        << row[0] << row[1];
  }
  const Json::Array many(60, Json(std::string(3000, 'x')));
  EXPECT_EQ(truncateJSON(
                {{"list", many}, {"n", 1.5}, {"o", Json::Object{{"s", "👨‍👩‍👧‍👦ab"}}}}, 2),
            (Json::Object{{"list", Json::Array(50, Json("xx"))},
                          {"n", 1.5},
                          {"o", Json::Object{{"s", "👨‍👩‍👧‍👦a"}}}}));
}

}  // namespace
}  // namespace EventRouter
