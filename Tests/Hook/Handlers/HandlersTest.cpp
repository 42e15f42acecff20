// The events of a session's life, each with all that it brings about.
#include "Tests/Support/SessionScript.h"

namespace {

class Handlers : public SessionScript {};

TEST_F(Handlers, StartASessionOnce) {
  play(R"(
    == a run of its own ¦ own ¦ given none
    > SessionStart {source:"resume",cwd:"/w",model:"m",permission_mode:"plan"}
      runs/start {agent_name:"claude-code",inputs:{cwd:"/w",source:"resume"},
      metadata:{model:"m",permission_mode:"plan",source:"claude_code"},session_id:"s",
      workflow_name:"session:resume"}
      run-1/steps 0 session_start kitu {cwd:"/w",is_cowork:false,model:"m",source:"resume"}
      record {cwd:"/w",model:"m",run_id:"run-1",session_id:"s",span_count:1,started_at:now,workflow_id:"wf"}
    > SessionStart {cwd:"/elsewhere"}
    == the daily run of an agent with a slug ¦ daily ¦ given none
    > SessionStart {cwd:"/w",source:7} ¦ runs/daily {agent_slug:"reviewer",agent_type:"claude-code"}
      daily-1/steps 0 session_start kitu {cwd:"/w",is_cowork:false,model:"",
      source:"startup"} record {cwd:"/w",
      is_daily_session:true,run_id:"daily-1",session_id:"s",span_count:1,started_at:now,workflow_id:"wf"}
    == no daily run to have ¦ daily ¦ given none ¦ plane runs/daily 403 {}
    > SessionStart {} ¦ runs/daily {…} runs/start {agent_name:"claude-code",agent_slug:"reviewer",
      inputs:{cwd:"",source:"startup"},metadata:{…},session_id:"s",workflow_name:"session:startup"}
      run-1/steps 0 session_start kitu {…} record {run_id:"run-1",session_id:"s",span_count:1,started_at:now,
      workflow_id:"wf"}
    given none ¦ plane runs/daily 200 {run_id:""}
    > SessionStart {} ¦ runs/daily {…} runs/start {…} run-2/steps 0 session_start kitu {…} record {…}
    == no run at all ¦ own ¦ given none ¦ plane runs/start 200 {run_id:7,workflow_id:"w"}
    > SessionStart {cwd:"/w"} ¦ runs/start {…}
    plane runs/start 403 {}
    > PreToolUse {tool_name:"Bash",tool_input:{command:"rm -rf /"}} ¦ runs/start {…}
    unconfigured
    > SessionStart {cwd:"/w"}
    == an event without an identifier ¦ own
    > SessionStart {session_id:""}
    > Notification {session_id:7}
    == any event starts a session that is unknown, has no run, or whose record is damaged ¦ own ¦ given none
    > Notification {cwd:"/w",message:"m"} ¦ runs/start {…} run-1/steps 0 session_start kitu {…}
      run-1/steps 1 notification {message:"m"} record {cwd:"/w",run_id:"run-1",session_id:"s",span_count:2,
      started_at:now,workflow_id:"wf"}
    given {run_id:"",span_count:9}
    > Notification {} ¦ runs/start {…} run-2/steps 0 session_start kitu {…} run-2/steps 1 notification {}
      record {cwd:"",run_id:"run-2",span_count:2,started_at:now,workflow_id:"wf"}
    file @root/state/s.json {session_id:"s"}
    > Notification {} ¦ runs/start {…} run-3/steps 0 session_start kitu {…} run-3/steps 1 notification {}
      record {…}
  )");
}

TEST_F(Handlers, MakeOneGroupOfTheSessionsInADirectory) {
  play(R"(
    == three sessions and one without a directory ¦ own ¦ given none
    > SessionStart {session_id:"a",cwd:"/w"} ¦ runs/start {…} run-1/steps 0 session_start ktu {…} record {…}
    > SessionStart {session_id:"b",cwd:"/w"} ¦ runs/start {agent_name:"claude-code",inputs:{…},
      metadata:{cowork_parent_run_id:"run-1",cowork_session_id:"a",is_cowork:true,model:"",permission_mode:"",
      source:"claude_code"},session_id:"b",workflow_name:"session:startup"}
      run-2/steps 0 session_start ktu {cwd:"/w",is_cowork:true,model:"",session_id:"b",source:"startup"}
      record {cowork_session_id:"a",cwd:"/w",is_cowork:true,run_id:"run-2",session_id:"b",span_count:1,
      started_at:now,workflow_id:"wf"}
    > SessionStart {session_id:"c",cwd:"/w"} ¦ runs/start {…} run-3/steps 0 session_start ktu {…}
      record {cowork_session_id:"a",cwd:"/w",is_cowork:true,run_id:"run-3",session_id:"c",span_count:1,
      started_at:now,workflow_id:"wf"}
    > SessionStart {session_id:"d",cwd:""} ¦ runs/start {…} run-4/steps 0 session_start ktu {…}
      record {run_id:"run-4",session_id:"d",span_count:1,started_at:now,workflow_id:"wf"}
    > TeammateIdle {session_id:"a"} ¦ run-1/spans {spans:[{attributes:{cowork.event:"teammate_idle",
      cowork.session_id:"a"},end_time:now,kind:"custom",name:"teammate_idle",start_time:now,status:"ok"}]}
      run-1/steps 1 teammate_idle kstu {cowork_session_id:"a",session_id:"a"} record {span_count:2}
    == a peer is marked even without a configuration ¦ unconfigured
    > SessionStart {session_id:"b",cwd:"@project"}
    > TeammateIdle {}
  )");
}

TEST_F(Handlers, MoveASessionOfYesterdayToTodaysRun) {
  play(R"(
    == the control plane has a new daily run ¦ daily ¦ plane runs/daily 200 {run_id:"new"}
    given {started_at:"2026-01-30T23:59:59.000Z",workflow_id:"old",span_count:4}
    > Notification {message:"m"} ¦ runs/daily {agent_slug:"reviewer",agent_type:"claude-code"}
      steps 4 daily_run_rollover kis {new_run_id:"new",old_run_id:"run-0",
      old_started_at:"2026-01-30T23:59:59.000Z",
      rolled_at:now}
      new/steps 4 notification {message:"m"} record {run_id:"new",span_count:5,started_at:now,workflow_id:""}
    == without a slug, without an answer, or with the same run it stays ¦ own
    given {started_at:"2026-01-30T23:59:59.000Z"}
    > Notification {} ¦ steps 0 notification {} record {span_count:1}
    daily ¦ plane runs/daily 403 {}
    > Notification {} ¦ runs/daily {…} runs/daily {…} steps 1 notification {} record {span_count:2}
    plane runs/daily 200 {run_id:""}
    > Notification {} ¦ runs/daily {…} runs/daily {…} steps 2 notification {} record {span_count:3}
    plane runs/daily 200 {run_id:"run-0"}
    > Notification {} ¦ runs/daily {…} runs/daily {…} steps 3 notification {} record {span_count:4}
    == a record that does not say when it started is of no day ¦ daily ¦ given {started_at:""}
    > Notification {} ¦ runs/daily {…} steps 0 daily_run_rollover kis {…} daily-1/steps 0 notification {}
      record {run_id:"daily-1",span_count:1,started_at:now,workflow_id:"wf"}
  )");
}

TEST_F(Handlers, RecordToolCalls) {
  play(R"(
    == a call is a span and a step ¦ own
    > PostToolUse {tool_name:"Bash",tool_input:{command:"ls",n:1},tool_response:{content:"out"}}
      spans {spans:[{attributes:{tool.input_summary:"ls",tool.name:"Bash",tool.output_summary:"out"},
      end_time:now,input_data:"ls",kind:"tool",name:"Bash",output_data:"out",start_time:now,status:"ok"}]}
      steps 0 tool_use:Bash kist {tool_input:{command:"ls",n:1},tool_name:"Bash",tool_response_summary:"out"}
      record {span_count:1}
    > PostToolUse {tool_name:"Bash",tool_input:{command:"<x*5000>"},tool_response:"none"}
      spans {spans:[{attributes:{…},end_time:now,input_data:"<x*200>",kind:"tool",name:"Bash",output_data:"",
      start_time:now,status:"ok"}]} steps 1 tool_use:Bash kist {tool_input:{command:"<x*2000>"},
      tool_name:"Bash",
      tool_response_summary:""} record {span_count:2}
    == only Write and Edit modify files ¦ own
    > PostToolUse {tool_name:"Write",tool_input:{file_path:"/p/a"}}
      spans {…} steps 0 tool_use:Write kist {…} record {modified_files:["/p/a"],span_count:1}
    > PostToolUse {tool_name:"Write",tool_input:{file_path:"/p/a"}}
      spans {…} steps 1 tool_use:Write kist {…} record {span_count:2}
    > PostToolUse {tool_name:"Edit",tool_input:{file_path:"/p/./a"}}
      spans {…} steps 2 tool_use:Edit kist {…} record {modified_files:["/p/a","/p/./a"],span_count:3}
    > PostToolUse {tool_name:"MultiEdit",tool_input:{file_path:"/p/c"}}
      spans {…} steps 3 tool_use:MultiEdit kist {…} record {span_count:4}
    > PostToolUse {tool_name:"Write",tool_input:{file_path:""}}
      spans {…} steps 4 tool_use:Write kist {…} record {span_count:5}
    == a failure takes two positions ¦ own ¦ given {span_count:5}
    > PostToolUseFailure {tool_name:"Bash",error:"<e*600>"}
      spans {spans:[{attributes:{error.message:"<e*500>",tool.name:"Bash"},end_time:now,
      events:[{message:"<e*500>",name:"error"}],kind:"tool",name:"Bash",start_time:now,status:"error"}]}
      steps 5 tool_failure {error:"<e*500>",tool_name:"Bash"} record {span_count:7}
    > PostToolUseFailure {} ¦ spans {spans:[{attributes:{error.message:"",tool.name:""},end_time:now,
      events:[],
      kind:"tool",name:"",start_time:now,status:"error"}]} steps 7 tool_failure {…} record {span_count:9}
    == nothing is sent and nothing changes without a configuration ¦ unconfigured
    > PostToolUse {tool_name:"Write",tool_input:{file_path:"/p/a"}}
    > PostToolUseFailure {tool_name:"Write"}
    > PreCompact {}
    > Notification {}
  )");
}

TEST_F(Handlers, RecordSubagentsAndTeammates) {
  play(R"(
    == one span from start to stop ¦ own
    > SubagentStart {agent_id:"a1",agent_type:"explorer"} ¦ steps 0 subagent_start {agent_id:"a1",
      agent_type:"explorer"} record {pending_subagent_spans:{a1:{agent_type:"explorer",start_time:now}},
      span_count:1}
    > SubagentStart {agent_id:"",agent_type:"nameless"}
      steps 1 subagent_start {…} record {pending_subagent_spans:{"":{…},a1:{…}},span_count:2}
    > SubagentStop {agent_id:"none",agent_type:"reviewer"} ¦ spans {spans:[{attributes:{agent.id:"none",
      agent.type:"reviewer"},end_time:now,kind:"agent",name:"subagent:reviewer",start_time:now,status:"ok"}]}
      steps 2 subagent_stop {agent_id:"none",agent_type:"reviewer"} record {span_count:4}
    given {pending_subagent_spans:{a:{agent_type:"x",start_time:"2026-01-31T10:00:00.000Z"},b:"",
      c:{start_time:1}}}
    > SubagentStop {agent_id:"a"} ¦ spans {spans:[{attributes:{agent.id:"a",agent.type:"x"},end_time:now,
      kind:"agent",name:"subagent:unknown",start_time:"2026-01-31T10:00:00.000Z",status:"ok"}]}
      steps 0 subagent_stop {…} record {pending_subagent_spans:{b:"",c:{…}},span_count:2}
    > SubagentStop {agent_id:"b"} ¦ spans {spans:[{attributes:{agent.id:"b",agent.type:""},end_time:now,
      kind:"agent",name:"subagent:unknown",start_time:now,status:"ok"}]}
      steps 2 subagent_stop {…} record {pending_subagent_spans:{c:{…}},span_count:4}
    > SubagentStop {agent_id:"c",agent_type:"y"} ¦ spans {spans:[{attributes:{…},end_time:now,kind:"agent",
      name:"subagent:y",start_time:now,status:"ok"}]} steps 4 subagent_stop {…}
      record {pending_subagent_spans:{},span_count:6}
    == what runs is known without a configuration too ¦ unconfigured
    > SubagentStart {agent_id:"a",agent_type:"x"}
      record {pending_subagent_spans:{a:{agent_type:"x",start_time:now}}}
    > SubagentStop {agent_id:"a"} ¦ record {pending_subagent_spans:{}}
    == an idle teammate makes a cowork session ¦ unconfigured
    > TeammateIdle {} ¦ record {cowork_session_id:"s",is_cowork:true}
    own ¦ given {cowork_session_id:"root"}
    > TeammateIdle {} ¦ spans {spans:[{attributes:{cowork.event:"teammate_idle",cowork.session_id:"s"},
      end_time:now,
      kind:"custom",name:"teammate_idle",start_time:now,status:"ok"}]}
      steps 0 teammate_idle {cowork_session_id:"s"} record {is_cowork:true,span_count:1}
    > TeammateIdle {} ¦ spans {…} steps 1 teammate_idle {cowork_session_id:"root"} record {span_count:2}
  )");
}

TEST_F(Handlers, EndATurn) {
  play(R"(
    == a run of its own is completed, with the calls of today that have an identifier ¦ own
    given {span_count:7}
    file @root/t {type:"user",message:{content:"ask"}}␊
      {type:"assistant",timestamp:"@now",message:{id:"m1",model:"opus",usage:{input_tokens:1000,
      output_tokens:10},
      content:[{type:"text",text:"answer"}]}}␊
      {type:"assistant",timestamp:"@now",message:{id:"m1",usage:{input_tokens:1,output_tokens:1}}}␊
      {type:"assistant",timestamp:"2020-01-01T00:00:00.000Z",message:{id:"old",usage:{input_tokens:1}}}␊
      {type:"assistant",timestamp:"@now",message:{usage:{input_tokens:5,output_tokens:5}}}␊
      {type:"tool_use"}␊
    > Stop {transcript_path:"@root/t"}
      llm-calls {calls:[{cost:0.01575,model:"opus",prompt_preview:"ask",response_preview:"answer",
      task:"claude_code_turn",timestamp:now,tokens_in:1000,tokens_out:10},{…}],hardware_uuid:uuid}
      steps 7 stop {models_used:["opus"],tool_uses:8,total_cost:0.015861,total_tokens_in:1007,
      total_tokens_out:16,
      total_turns:4} complete {error:"",result:{models_used:["opus"],tool_uses:8,total_cost:0.015861,
      total_tokens_in:1007,total_tokens_out:16,total_turns:4},status:"success",steps:[]} record none
    == a daily run goes on, its transcript where it was left, and what was refused is not sent again ¦ daily
    given {is_daily_session:true} ¦ plane run-0/llm-calls 400 {}
    file @root/t {type:"assistant",timestamp:"@now",message:{id:"m2",usage:{input_tokens:1}}}␊
    > Stop {transcript_path:"@root/t"} ¦ llm-calls {calls:[{…}],hardware_uuid:uuid}
      policy-check {agent_id:"run-0",agent_name:"claude-code",workflow_name:"claude-code:stop"}
      steps 0 stop {…} record {span_count:1,transcript_offset:109}
    file @root/t {type:"assistant",timestamp:"@now",message:{id:"m2",usage:{input_tokens:1}}}␊
      {type:"assistant",timestamp:"@now",message:{id:"lost",usage:{input_tokens:1}}}␊
      {type:"assistant",timestamp:"@now",message:{id:"m2",usage:{input_tokens:1}}}␊
      {type:"assistant",timestamp:"@now",message:{id:"m3",usage:{input_tokens:1}}}␊
    > Stop {transcript_path:"@root/t"} ¦ llm-calls {calls:[{…}],hardware_uuid:uuid} policy-check {…}
      steps 1 stop {…} record {span_count:2,transcript_offset:438}
    == without a transcript ¦ daily
    given {is_daily_session:true,is_cowork:true,cowork_session_id:"root",transcript_offset:5}
    > Stop {transcript_path:1} ¦ steps 0 stop {cowork_session_id:"root",is_cowork:true} record {span_count:1}
    > Stop {transcript_path:"@root/none"} ¦ steps 1 stop {cowork_session_id:"root",is_cowork:true,
      models_used:[],
      tool_uses:1,total_cost:0,total_tokens_in:0,total_tokens_out:0,total_turns:0} record {span_count:2}
      log transcript not found: @root/none
    == counts no further than its range ¦ own ¦ given {span_count:9223372036854775807}
    file @root/t {type:"tool_use"}␊{type:"tool"}
    > Stop {transcript_path:"@root/t"} ¦ steps 9223372036854775807 stop {models_used:[],
      tool_uses:9223372036854775807,total_cost:0,total_tokens_in:0,total_tokens_out:0,total_turns:0}
      complete {…} record none
    == the end of a session is a stop of one that is recorded ¦ own
    > SessionEnd {session_id:"unknown"}
    > SessionEnd {session_id:""}
    > SessionEnd {} ¦ steps 0 stop {} complete {error:"",result:{},status:"success",steps:[]} record none
    given {run_id:""}
    > SessionEnd {}
    == a session is forgotten without a configuration ¦ unconfigured
    > Stop {transcript_path:"@root/t"} ¦ record none
  )");
}

TEST_F(Handlers, ReportACostAboveTheCapOnce) {
  const std::string given = R"(
    == a cap of %1 ¦ daily ¦ given {is_daily_session:true} ¦ plane policy-check 200 {metadata:{cost_cap:%1}}
    file @root/t {type:"assistant",message:{model:"opus",usage:{input_tokens:1000000,output_tokens:10000}}})";
  playEach(given + R"(
    > Stop {transcript_path:"@root/t"} ¦ policy-check {…} steps 0 post_run_overage by server-side of Stop:
      Reconciled cost $15.7500 exceeds cap $%2 (overage $%3) steps 1 stop {…}
      record {cost_overage_emitted:true,span_count:2,transcript_offset:102}
    given {is_daily_session:true,cost_overage_emitted:true}
    > Stop {transcript_path:"@root/t"} ¦ steps 0 stop {…} record {span_count:1,transcript_offset:102})",
           R"(
    2.0       ¦ 2.0000  ¦ 13.7500
    2         ¦ 2.0000  ¦ 13.7500
    "2.0"     ¦ 2.0000  ¦ 13.7500
    "+20e-1"  ¦ 2.0000  ¦ 13.7500
    15.7499   ¦ 15.7499 ¦ 0.0001
    0.1234567 ¦ 0.1235  ¦ 15.6265
  )");
  playEach(given + R"(
    > Stop {transcript_path:"@root/t"} ¦ policy-check {…} steps 0 stop {…}
      record {span_count:1,transcript_offset:102})",
           R"(
    15.75
    16
    0
    -1
    " 2.0"
    "2.0 USD"
    ""
    "nan"
    "+-2"
    true
    null
  )");
}

}  // namespace
