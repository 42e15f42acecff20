#include <gtest/gtest.h>

#include <functional>

#include "Hook/Handlers/Handlers.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Tests/Support/SessionFixture.h"

namespace EventRouter {
namespace {

using Lines = std::vector<std::string>;

class Recording : public SessionFixture {
 protected:
  Recording() { save(started()); }

  static void save(const SessionState& state) { EXPECT_FALSE(SessionStore::save(state)); }

  Outcome postToolUse(const std::string& tool, Json input, Json response = nullptr) {
    return handlePostToolUse(event("PostToolUse", {{"tool_name", tool},
                                                   {"tool_input", std::move(input)},
                                                   {"tool_response", std::move(response)}}),
                             own());
  }

  static std::string step(const std::string& output, int position, const std::string& name) {
    return R"(runs/run-0/steps/ {"hardware_uuid":"<uuid>","steps":[{"output":)" + output + R"(,"position":)" +
           std::to_string(position) + R"(,"step_name":")" + name + R"("}]})";
  }
};

TEST_F(Recording, AToolCallIsASpanAndAStep) {
  postToolUse("Bash", Json::Object{{"command", "ls"}, {"n", 1}}, Json::Object{{"content", "out"}});
  EXPECT_EQ(
      sent(),
      (Lines{
          R"(runs/run-0/spans/ {"spans":[{"attributes":{"tool.input_summary":"ls","tool.name":"Bash",)"
          R"("tool.output_summary":"out"},"end_time":"<now>","input_data":"ls","kind":"tool","name":"Bash",)"
          R"("output_data":"out","start_time":"<now>","status":"ok"}]})",
          step(R"({"kind":"tool_use","session_id":"s","source":"hook","timestamp":"<now>",)"
               R"("tool_input":{"command":"ls","n":1},"tool_name":"Bash","tool_response_summary":"out"})",
               0, "hook:tool_use:Bash")}));
  EXPECT_EQ(stored().span_count, 1);
}

TEST_F(Recording, AToolCallIsCutToABoundedSize) {
  postToolUse("Bash", Json::Object{{"command", std::string(5000, 'x')}}, "no object");
  auto step = plane.requests("*/steps/").at(0).json.list("steps").at(0);
  const Json::Object& output = step.asObject()->object("output");
  EXPECT_EQ(output.object("tool_input").text("command").size(), 2000u);
  EXPECT_EQ(output.text("tool_response_summary"), "");
  auto span = plane.requests("*/spans/").at(0).json.list("spans").at(0);
  EXPECT_EQ(span.asObject()->text("input_data").size(), 200u);
}

TEST_F(Recording, OnlyWriteAndEditModifyFiles) {
  struct Row {
    const char* tool;
    Json input;
    Lines files;  // recorded afterwards
  };
  const Row rows[] = {
      {"Write", Json::Object{{"file_path", "/p/a"}}, {"/p/a"}},
      {"Write", Json::Object{{"file_path", "/p/a"}}, {"/p/a"}},
      {"Edit", Json::Object{{"file_path", "/p/./a"}}, {"/p/a", "/p/./a"}},
      {"MultiEdit", Json::Object{{"file_path", "/p/c"}}, {"/p/a", "/p/./a"}},
      {"Read", Json::Object{{"file_path", "/p/d"}}, {"/p/a", "/p/./a"}},
      {"Write", Json::Object{{"file_path", ""}}, {"/p/a", "/p/./a"}},
      {"Write", Json::Object{{"file_path", 1}}, {"/p/a", "/p/./a"}},
      {"Write", "/p/e", {"/p/a", "/p/./a"}},
  };
  int calls = 0;
  for (const Row& row : rows) {
    postToolUse(row.tool, row.input);
    EXPECT_EQ(stored().modified_files, row.files) << row.tool << " " << row.input.compact();
    EXPECT_EQ(stored().span_count, ++calls);
  }
}

TEST_F(Recording, AFailureTakesTwoPositions) {
  SessionState state = started();
  state.span_count = 5;
  save(state);
  const std::string error = std::string(600, 'e'), cut = error.substr(0, 500);
  handlePostToolUseFailure(event("PostToolUseFailure", {{"tool_name", "Bash"}, {"error", error}}), own());
  EXPECT_EQ(
      sent(),
      (Lines{R"(runs/run-0/spans/ {"spans":[{"attributes":{"error.message":")" + cut +
                 R"(","tool.name":"Bash"},"end_time":"<now>","events":[{"message":")" + cut +
                 R"(","name":"error"}],"kind":"tool","name":"Bash","start_time":"<now>","status":"error"}]})",
             step(R"({"error":")" + cut +
                      R"(","hardware_uuid":"<uuid>","kind":"tool_failure","session_id":"s","source":"hook",)"
                      R"("timestamp":"<now>","tool_name":"Bash"})",
                  5, "hook:tool_failure")}));
  EXPECT_EQ(stored().span_count, 7);
  handlePostToolUseFailure(event("PostToolUseFailure"), own());
  EXPECT_EQ(sent().at(0), R"(runs/run-0/spans/ {"spans":[{"attributes":{"error.message":"","tool.name":""},)"
                          R"("end_time":"<now>","events":[],"kind":"tool","name":"","start_time":"<now>",)"
                          R"("status":"error"}]})");
}

TEST_F(Recording, ASubagentIsOneSpanFromStartToStop) {
  auto subagent = [](const char* name, const char* id, const char* type) {
    return event(name, {{"agent_id", id}, {"agent_type", type}});
  };
  handleSubagentStart(subagent("SubagentStart", "a1", "explorer"), own());
  handleSubagentStart(subagent("SubagentStart", "", "nameless"), own());
  EXPECT_EQ(stored().pending_subagent_spans.size(), 2u);
  EXPECT_EQ(sent().at(0),
            step(R"({"agent_id":"a1","agent_type":"explorer","hardware_uuid":"<uuid>",)"
                 R"("kind":"subagent_start","session_id":"s","source":"hook","timestamp":"<now>"})",
                 0, "hook:subagent_start"));

  SessionState state = stored();
  state.pending_subagent_spans.set(
      "a1", Json::Object{{"agent_type", "explorer"}, {"start_time", "2026-01-31T10:00:00.000Z"}});
  save(state);
  handleSubagentStop(subagent("SubagentStop", "a1", ""), own());
  EXPECT_EQ(sent(),
            (Lines{R"(runs/run-0/spans/ {"spans":[{"attributes":{"agent.id":"a1","agent.type":"explorer"},)"
                   R"("end_time":"<now>","kind":"agent","name":"subagent:unknown",)"
                   R"("start_time":"2026-01-31T10:00:00.000Z","status":"ok"}]})",
                   step(R"({"agent_id":"a1","agent_type":"","hardware_uuid":"<uuid>","kind":"subagent_stop",)"
                        R"("session_id":"s","source":"hook","timestamp":"<now>"})",
                        2, "hook:subagent_stop")}));
  EXPECT_EQ(stored().span_count, 4);
  EXPECT_EQ(stored().pending_subagent_spans.size(), 1u);

  handleSubagentStop(subagent("SubagentStop", "none", "reviewer"), own());
  EXPECT_EQ(sent().at(0),
            R"(runs/run-0/spans/ {"spans":[{"attributes":{"agent.id":"none","agent.type":"reviewer"},)"
            R"("end_time":"<now>","kind":"agent","name":"subagent:reviewer","start_time":"<now>",)"
            R"("status":"ok"}]})");
  handleSubagentStart(subagent("SubagentStart", "a2", "x"), unconfigured());
  EXPECT_EQ(stored().pending_subagent_spans.size(), 2u);
  handleSubagentStop(subagent("SubagentStop", "a2", "x"), unconfigured());
  EXPECT_EQ(stored().pending_subagent_spans.size(), 1u);
  EXPECT_EQ(stored().span_count, 6);
  EXPECT_EQ(sent(), Lines{});
}

TEST_F(Recording, APendingEntryOfAnyShapeIsTaken) {
  for (const Json& entry :
       {Json("text"), Json(nullptr), Json(Json::Object{{"start_time", 1}, {"agent_type", 2}})}) {
    SessionState state = started();
    state.pending_subagent_spans.set("a", entry);
    save(state);
    handleSubagentStop(event("SubagentStop", {{"agent_id", "a"}}), own());
    EXPECT_EQ(sent().at(0),
              R"(runs/run-0/spans/ {"spans":[{"attributes":{"agent.id":"a","agent.type":""},)"
              R"("end_time":"<now>","kind":"agent","name":"subagent:unknown","start_time":"<now>",)"
              R"("status":"ok"}]})");
    EXPECT_TRUE(stored().pending_subagent_spans.empty());
  }
}

TEST_F(Recording, AnIdleTeammateMakesACoworkSession) {
  auto idle = [](const std::string& id) {
    return R"(runs/run-0/spans/ {"spans":[{"attributes":{"cowork.event":"teammate_idle","cowork.session_id":")" +
           id +
           R"("},"end_time":"<now>","kind":"custom","name":"teammate_idle","start_time":"<now>","status":"ok"}]})";
  };
  handleTeammateIdle(event("TeammateIdle"), unconfigured());
  EXPECT_TRUE(stored().is_cowork);
  EXPECT_EQ(stored().cowork_session_id, "s");
  EXPECT_EQ(sent(), Lines{});

  SessionState state = started();
  state.cowork_session_id = "root";
  save(state);
  handleTeammateIdle(event("TeammateIdle"), own());
  EXPECT_EQ(sent().at(0), idle("s")) << "the event's own identifier when it was no cowork session";
  EXPECT_EQ(stored().cowork_session_id, "root");
  handleTeammateIdle(event("TeammateIdle"), own());
  EXPECT_EQ(sent(), (Lines{idle("root"), step(R"({"cowork_session_id":"root","hardware_uuid":"<uuid>",)"
                                              R"("kind":"teammate_idle","session_id":"s","source":"hook",)"
                                              R"("timestamp":"<now>"})",
                                              1, "hook:teammate_idle")}));
}

TEST_F(Recording, AnyOtherEventIsOneStep) {
  const std::string_view keys[] = {"message", "source"};
  const std::string prompt(10'000, 'p');
  handleGeneric(event("X", {{"message", prompt}, {"source", Json::Array{1, nullptr}}, {"other", 1}}), "kind",
                keys, own());
  handleGeneric(event("Foo", {{"cwd", "/w"}, {"x", 1}, {"transcript_path", "/t"}}), "unknown:Foo", {}, own());
  EXPECT_EQ(sent(),
            (Lines{step(R"({"hardware_uuid":"<uuid>","kind":"kind","message":")" + prompt +
                            R"(","session_id":"s","source":[1,null],"timestamp":"<now>"})",
                        0, "hook:kind"),
                   step(R"({"cwd":"/w","hardware_uuid":"<uuid>","kind":"unknown:Foo","session_id":"s",)"
                        R"("source":"hook","timestamp":"<now>","x":1})",
                        1, "hook:unknown:Foo")}));
}

TEST_F(Recording, WithoutAConfigurationNothingIsSentAndNothingChanges) {
  const std::string before = contentOf(sandbox.stateFile("s"));
  Json::Object data = event("X", {{"tool_name", "Write"}, {"tool_input", Json::Object{{"file_path", "/a"}}}});
  for (auto handler : {handlePostToolUse, handlePostToolUseFailure, handlePreCompact})
    EXPECT_EQ(handler(data, unconfigured()), Outcome(Allow{}));
  handleGeneric(data, "x", {}, unconfigured());
  EXPECT_EQ(contentOf(sandbox.stateFile("s")), before);
  EXPECT_EQ(sent(), Lines{});
}

TEST_F(Recording, TheBudgetDecidesOnACompaction) {
  auto answer = [](const char* action, const char* reason) {
    return FakeControlPlane::json({{"action", action}, {"reason", reason}});
  };
  const std::string blocked = "Obrisk policy blocked compaction: ";
  const std::string warned = "Obrisk budget warning before compaction: ";
  struct Row {
    FakeControlPlane::Reply reply;
    Outcome outcome;
    std::string decision;  // action and violation; empty: none
  };
  const Row rows[] = {
      {answer("Block", "Monthly"), Deny{"PreCompact", blocked + "Monthly"}, "precompact_block Monthly"},
      {answer("block", ""), Deny{"PreCompact", blocked + "budget threshold exceeded"},
       "precompact_block Budget policy blocked compaction"},
      {answer("WARN", "Soon"), Ask{"PreCompact", warned + "Soon"}, "precompact_warn Soon"},
      {answer("warn", ""), Ask{"PreCompact", warned + "approaching budget threshold"},
       "precompact_warn Budget policy warning"},
      {answer("deny", "x"), Allow{}, ""},
      {answer("allow", ""), Allow{}, ""},
      {FakeControlPlane::status(400), Allow{}, ""},
      {FakeControlPlane::status(503), Allow{}, ""},
  };
  for (const Row& row : rows) {
    save(started());
    sent();
    plane.on("/api/v1/observe/policy-check/", row.reply);
    ObserveClient client = daily("deny");
    client.maxAttempts = 1;
    EXPECT_EQ(handlePreCompact(event("PreCompact", {{"pre_tokens", 150'000}}), client), row.outcome);
    auto lines = sent();
    ASSERT_EQ(lines.size(), row.decision.empty() ? 2u : 3u);
    EXPECT_EQ(lines[0],
              step(R"({"hardware_uuid":"<uuid>","kind":"pre_compact","pre_tokens":150000,"session_id":"s",)"
                   R"("source":"hook","timestamp":"<now>"})",
                   0, "hook:pre_compact"));
    EXPECT_EQ(
        lines[1],
        R"(policy-check/ {"agent_id":"run-0","agent_name":"claude-code","workflow_name":"claude-code:precompact"})");
    if (row.decision.empty()) continue;
    std::string action = row.decision.substr(0, row.decision.find(' '));
    EXPECT_EQ(lines[2],
              step(R"({"action":")" + action +
                       R"(","kind":"guard_decision","rule":"server-side",)"
                       R"("session_id":"s","source":"hook","timestamp":"<now>","tool_name":"PreCompact",)"
                       R"("violations":[")" +
                       row.decision.substr(action.size() + 1) + R"("]})",
                   1, "hook:guard_decision:" + action));
  }
  handlePreCompact(event("PreCompact"), own());
  EXPECT_EQ(sent().size(), 1u) << "without a slug the step, but no policy check";
}

}  // namespace
}  // namespace EventRouter
