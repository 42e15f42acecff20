// The events that can be objected to, those that are recorded and no more, and what is recorded of a tool.
#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"
#include "Hook/Handlers/ToolSummaries.h"
#include "Hook/Transcript/Transcript.h"
#include "Tests/Support/SessionScript.h"
#include "Tests/Support/Table.h"

namespace EventRouter {
namespace {

class Gates : public SessionScript {};

TEST_F(Gates, AskThePolicyWhenNoLocalRuleBlocks) {
  play(R"(
    == a local block is reported, and the policy not asked ¦ daily
    > PreToolUse {tool_name:"Bash",tool_input:{command:"rm -rf /"}}
      deny Obrisk guard: Blocked command pattern: rm -rf /
      steps 0 deny by destructive_command of Bash: Blocked command pattern: rm -rf / record {span_count:1}
    == the policy is asked, but not without a slug ¦ daily
    > PreToolUse {tool_name:"Read",tool_input:{file_path:"/etc/passwd"}}
      policy-check {agent_id:"run-0",agent_name:"claude-code",workflow_name:"tool:Read"}
    > PreCompact {} ¦ steps 0 pre_compact {} policy-check {agent_id:"run-0",agent_name:"claude-code",
      workflow_name:"claude-code:precompact"} record {span_count:1}
    own
    > PreToolUse {tool_name:"Read",tool_input:{file_path:"/etc/passwd"}}
    > PreToolUse {tool_name:7,tool_input:"x"}
    > PreCompact {} ¦ steps 1 pre_compact {} record {span_count:2}
    == local rules decide without a configuration, and what is not reported takes no position ¦ unconfigured
    > PreToolUse {tool_name:"Bash",tool_input:{command:"mkfs /dev/sda"}}
      deny Obrisk guard: Blocked command pattern: mkfs /dev/sda
  )");
}

TEST_F(Gates, TakeThePolicysAnswer) {
  playEach(R"(
    == %1 ¦ daily deny ¦ plane policy-check 200 %1
    > PreToolUse {tool_name:"Bash",tool_input:{command:"ls"}} ¦ %2 policy-check {…}
      steps 0 policy_%3 by server-side of Bash: %4 record {span_count:1})",
           R"(
    {action:"block",reason:"R"} ¦ deny Obrisk policy blocked: R                ¦ block ¦ R
    {action:"BLOCK"}            ¦ deny Obrisk policy blocked: Policy violation ¦ block ¦ Policy violation
    {action:"Warn",reason:"R"}  ¦ ask Obrisk: Policy warning: R                ¦ warn  ¦ R
    {action:"warn"}             ¦ ask Obrisk: Policy warning: Policy warning   ¦ warn  ¦ Policy warning
  )");
  playEach(R"(
    == %1 ¦ daily deny ¦ plane policy-check 200 %1
    > PreCompact {pre_tokens:1} ¦ deny Obrisk policy blocked compaction: %2 steps 0 pre_compact {pre_tokens:1}
      policy-check {…} steps 1 precompact_block by server-side of PreCompact: %3 record {span_count:2})",
           R"(
    {action:"Block",reason:"R"} ¦ R                         ¦ R
    {action:"block"}            ¦ budget threshold exceeded ¦ Budget policy blocked compaction
  )");
  playEach(R"(
    == %1 ¦ daily deny ¦ plane policy-check 200 %1
    > PreCompact {pre_tokens:1} ¦ ask Obrisk budget warning before compaction: %2 steps 0 pre_compact
      {pre_tokens:1}
      policy-check {…} steps 1 precompact_warn by server-side of PreCompact: %3 record {span_count:2})",
           R"(
    {action:"WARN",reason:"R"} ¦ R                            ¦ R
    {action:"warn"}            ¦ approaching budget threshold ¦ Budget policy warning
  )");
  playEach(R"(
    == %1 ¦ daily deny ¦ plane policy-check 200 %1
    > PreToolUse {tool_name:"Bash",tool_input:{command:"ls"}} ¦ policy-check {…}
    > PreCompact {} ¦ steps 0 pre_compact {} policy-check {…} record {span_count:1})",
           R"(
    {}
    {action:"allow",reason:"x"}
    {action:"deny",reason:"x"}
    {action:"ask",reason:"x"}
  )");
}

TEST_F(Gates, FallBackOnTheDefaultAndKeepALocalWarning) {
  play(R"(
    == the control plane cannot be asked ¦ daily ¦ plane policy-check 403 {}
    > PreToolUse {tool_name:"Bash",tool_input:{command:"ls"}}
      policy-check {…} log PreToolUse policy check failed; applying fail-default=allow
    > PreCompact {} ¦ steps 0 pre_compact {} policy-check {…} record {span_count:1}
    daily ask
    > PreToolUse {tool_name:"Bash",tool_input:{command:"ls"}}
      ask Obrisk: Policy check failed (controlplane unreachable); proceeding requires confirmation.
      policy-check {…} log PreToolUse policy check failed; applying fail-default=ask
    daily deny
    > PreToolUse {tool_name:"Bash",tool_input:{command:"ls"}}
      deny Obrisk policy check failed and tenant default is deny — controlplane is unreachable. Configure
      [claude-code] policy_check_fail_default=allow to override.
      policy-check {…} log PreToolUse policy check failed; applying fail-default=deny
    == and a local rule warns ¦ daily ask ¦ plane policy-check 403 {}
    > PreToolUse {tool_name:"Bash",tool_input:{command:"rm -rf build"}}
      ask Obrisk: Potentially dangerous command: rm -rf build; Policy check failed (controlplane unreachable);
      proceeding requires confirmation.
      steps 0 ask by destructive_command of Bash: Potentially dangerous command: rm -rf build policy-check {…}
      record {span_count:1} log PreToolUse policy check failed; applying fail-default=ask
    plane policy-check 200 {action:"warn",reason:"R"}
    > PreToolUse {tool_name:"Bash",tool_input:{command:"rm -rf build"}}
      ask Obrisk: Potentially dangerous command: rm -rf build; Policy warning: R
      steps 1 ask by destructive_command of Bash: Potentially dangerous command: rm -rf build policy-check {…}
      steps 2 policy_warn by server-side of Bash: R record {span_count:3}
    plane policy-check 200 {action:"block",reason:"R"}
    > PreToolUse {tool_name:"Bash",tool_input:{command:"rm -rf build"}} ¦ deny Obrisk policy blocked: R
      steps 3 ask by destructive_command of Bash: Potentially dangerous command: rm -rf build policy-check {…}
      steps 4 policy_block by server-side of Bash: R record {span_count:5}
    plane policy-check 200 {}
    > PreToolUse {tool_name:"Bash",tool_input:{command:"rm -rf build"}}
      ask Obrisk: Potentially dangerous command: rm -rf build
      steps 5 ask by destructive_command of Bash: Potentially dangerous command: rm -rf build policy-check {…}
      record {span_count:6}
  )");
}

TEST_F(Gates, AskBeforeOneFileTooMany) {
  playEach(R"(
    == after %1 and one more ¦ own ¦ given {modified_files:[<"/p",*%1>"/p"]}
    file @project/.obrisk/guard.json %3
    > PreToolUse {tool_name:"%2",tool_input:{file_path:"/new"}} ¦ ask Obrisk: Session has modified %4
      steps 0 ask by session_scope of %2: Session has modified %4 record {span_count:1})",
           R"(
    18 ¦ Write ¦ {}                      ¦ 20 files — approaching limit
    18 ¦ Edit  ¦ {}                      ¦ 20 files — approaching limit
    18 ¦ Write ¦ {max_file_changes:-1}   ¦ 20 files — approaching limit
    0  ¦ Write ¦ {warn_file_changes:2}   ¦ 2 files — approaching limit
    49 ¦ Write ¦ {}                      ¦ 51 files (limit: 50)
    50 ¦ Write ¦ {}                      ¦ 52 files (limit: 50)
    18 ¦ Write ¦ {max_file_changes:5}    ¦ 20 files (limit: 5)
    0  ¦ Write ¦ {max_file_changes:1}    ¦ 2 files (limit: 1)
  )");
  playEach(R"(
    == after %1 and one more ¦ own ¦ given {modified_files:[<"/p",*%1>"/p"]}
    file @project/.obrisk/guard.json %4
    > PreToolUse {tool_name:"%2",tool_input:{file_path:"%3"}})",
           R"(
    17 ¦ Write     ¦ /new ¦ {}
    19 ¦ Write     ¦ /new ¦ {}
    18 ¦ Write     ¦ /p   ¦ {}
    18 ¦ Write     ¦      ¦ {}
    18 ¦ MultiEdit ¦ /new ¦ {}
    48 ¦ Write     ¦ /new ¦ {}
    59 ¦ Write     ¦ /new ¦ {max_file_changes:0,warn_file_changes:0}
  )");
  play(R"(
    == after none ¦ own ¦ file @project/.obrisk/guard.json {warn_file_changes:1}
    > PreToolUse {tool_name:"Write",tool_input:{file_path:"/new"}}
      ask Obrisk: Session has modified 1 files — approaching limit
      steps 0 ask by session_scope of Write: Session has modified 1 files — approaching limit record
      {span_count:1}
    > PreToolUse {tool_name:"Write",tool_input:{file_path:"yarn.lock"}}
      ask Obrisk: Write to sensitive file: yarn.lock (matched: *.lock)
      steps 1 ask by file_protection of Write: Write to sensitive file: yarn.lock (matched: *.lock)
      record {span_count:2}
  )");
}

TEST_F(Gates, AskBeforeATeammatesFileIsWritten) {
  play(R"(
    == one joins and modifies two files ¦ own
    > PostToolUse {session_id:"a",cwd:"@project",tool_name:"Write",
      tool_input:{file_path:"src/a"}} ¦ runs/start {…}
      run-1/steps 0 session_start ktu {…} run-1/spans {…} run-1/steps 1 tool_use:Write kst {…} record {…}
    > PostToolUse {session_id:"a",tool_name:"Edit",tool_input:{file_path:"/p/src/./a"}}
      run-1/spans {…} run-1/steps 2 tool_use:Edit kst {…} record {…}
    > PreToolUse {tool_name:"Write",tool_input:{file_path:"/p/src/../src/a"}}
      ask Obrisk: Cowork conflict: teammate already modified /p/src/../src/a
      steps 0 ask by cowork_conflict of Write: Cowork conflict: teammate already modified /p/src/../src/a
      record {span_count:1}
    > PreToolUse {tool_name:"Write",tool_input:{file_path:"/p/src/b"}}
    > PreToolUse {tool_name:"Write",tool_input:{file_path:"/q/src/a"}}
    > PreToolUse {tool_name:"Read",tool_input:{file_path:"/p/src/a"}}
    file @project/.obrisk/guard.json {warn_file_changes:1}
    > PreToolUse {tool_name:"Edit",tool_input:{file_path:"/p/src/a"}} ¦ ask Obrisk: Cowork conflict: teammate
      already modified /p/src/a; Session has modified 1 files — approaching limit
      steps 1 ask by cowork_conflict of Edit: Cowork conflict: teammate already modified /p/src/a
      steps 2 ask by session_scope of Edit: Session has modified 1 files — approaching limit record
      {span_count:3}
    file @project/.obrisk/guard.json {detect_file_conflicts:false}
    > PreToolUse {tool_name:"Edit",tool_input:{file_path:"/p/src/a"}}
    file @project/.obrisk/guard.json {}
    given {}
    > PreToolUse {tool_name:"Edit",tool_input:{file_path:"/p/src/a"}}
  )");
}

TEST_F(Gates, RecordEveryOtherEventAsAStep) {
  command("own");
  playEach(R"(
    given {span_count:4}
    > %1 {transcript_path:"/t",config_type:1,content:1,cwd:1,error:1,event_type:1,file_path:1,message:1,
      new_cwd:1,
      notification_type:1,old_cwd:1,post_tokens:1,pre_tokens:1,prompt:1,reason:1,response:1,server_name:1,
      source:1,
      status:1,task_id:1,tool_input:1,tool_name:1,worktree_path:1} ¦ steps 4 %2 {%3} record {span_count:5})",
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
  command("given {run_id:\"\",span_count:9}");
  const ObserveClient nobody = unconfigured(), client = own();
  const Json::Object any = event("Stop");
  EXPECT_FALSE(loadStateFresh("unknown", nullptr, client));
  EXPECT_FALSE(loadStateFresh("", &any, client));
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
