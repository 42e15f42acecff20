#include "Hook/Handlers/Handlers.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "Hook/Handlers/Session.h"
#include "Hook/Handlers/ToolSummaries.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Tests/Support/SessionFixture.h"

namespace EventRouter {
namespace {

using Lines = std::vector<std::string>;

class SessionStart : public SessionFixture {
 protected:
  Json::Object startEvent(const std::string& sessionID, const std::string& cwd) {
    return {{"session_id", sessionID},
            {"source", "resume"},
            {"cwd", cwd},
            {"model", "m"},
            {"permission_mode", "plan"}};
  }
};

constexpr const char* firstStep =
    R"( {"hardware_uuid":"<uuid>","steps":[{"output":{"cwd":"/w","hardware_uuid":"<uuid>","is_cowork":false,)"
    R"("kind":"session_start","model":"m","session_id":"a","source":"resume","timestamp":"<now>"},"position":0,)"
    R"("step_name":"hook:session_start"}]})";

TEST_F(SessionStart, OpensARunOfItsOwnOnce) {
  EXPECT_EQ(handleSessionStart(startEvent("a", "/w"), own()), Outcome(Allow{}));
  EXPECT_EQ(sent(),
            (Lines{R"(runs/start/ {"agent_name":"claude-code","inputs":{"cwd":"/w","source":"resume"},)"
                   R"("metadata":{"model":"m","permission_mode":"plan","source":"claude_code"},)"
                   R"("session_id":"a","workflow_name":"session:resume"})",
                   std::string("runs/run-1/steps/") + firstStep}));
  SessionState state = stored("a");
  EXPECT_EQ(state.started_at.substr(0, 10), Clock::date());
  state.started_at.clear();
  SessionState expected;
  expected.session_id = "a";
  expected.run_id = "run-1";
  expected.workflow_id = "wf";
  expected.cwd = "/w";
  expected.model = "m";
  expected.span_count = 1;
  EXPECT_EQ(state, expected);

  handleSessionStart(startEvent("a", "/elsewhere"), own());
  EXPECT_EQ(sent(), Lines{});
  EXPECT_EQ(stored("a").cwd, "/w");
}

TEST_F(SessionStart, JoinsTheDailyRunOfAnAgentWithASlug) {
  handleSessionStart(startEvent("a", "/w"), daily());
  EXPECT_EQ(sent(), (Lines{R"(runs/daily/ {"agent_slug":"reviewer","agent_type":"claude-code"})",
                           std::string("runs/daily-1/steps/") + firstStep}));
  EXPECT_TRUE(stored("a").is_daily_session);
}

TEST_F(SessionStart, FallsBackToARunOfItsOwn) {
  for (const auto& reply : {FakeControlPlane::status(403), FakeControlPlane::json({{"run_id", ""}})}) {
    plane.on("/api/v1/observe/runs/daily/", reply);
    SessionStore::remove("a");
    handleSessionStart(startEvent("a", "/w"), daily());
    auto lines = sent();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[1].find(R"("agent_slug":"reviewer")"), std::string::npos) << lines[1];
    EXPECT_FALSE(stored("a").is_daily_session);
  }
}

TEST_F(SessionStart, StoresNothingWithoutARun) {
  plane.on("/api/v1/observe/runs/start/", FakeControlPlane::json({{"run_id", 7}}));
  handleSessionStart(startEvent("a", "/w"), own());
  EXPECT_EQ(sent().size(), 1u);
  handleSessionStart(startEvent("a", "/w"), unconfigured());
  handleSessionStart({{"source", "startup"}}, own());
  EXPECT_EQ(sent(), Lines{});
  EXPECT_FALSE(Files::exists(sandbox.state()));
}

TEST_F(SessionStart, CleansUpStaleRecordsEvenOfItself) {
  ASSERT_FALSE(SessionStore::save(started()));
  namespace fs = std::filesystem;
  fs::last_write_time(sandbox.stateFile("s"), fs::file_time_type::clock::now() - std::chrono::hours(25));
  handleSessionStart(startEvent("", ""), own());
  EXPECT_TRUE(Files::exists(sandbox.stateFile("s"))) << "an event without an identifier does nothing";
  handleSessionStart(startEvent("s", ""), own());
  EXPECT_EQ(stored().run_id, "run-1");
}

TEST_F(SessionStart, SessionsInOneDirectoryAreOneGroupWithRunsOfTheirOwn) {
  for (const char* each : {"a", "b", "c"})
    handleSessionStart(startEvent(each, "/w"), own());
  handleSessionStart(startEvent("d", ""), own());
  auto starts = plane.requests("/api/v1/observe/runs/start/");
  ASSERT_EQ(starts.size(), 4u);
  EXPECT_EQ(Json(starts[1].json.object("metadata")).compact(),
            R"({"cowork_parent_run_id":"run-1","cowork_session_id":"a","is_cowork":true,"model":"m",)"
            R"("permission_mode":"plan","source":"claude_code"})");
  for (const char* each : {"a", "b", "c"}) {
    EXPECT_TRUE(stored(each).is_cowork) << each;
    EXPECT_EQ(stored(each).cowork_session_id, "a") << each;
  }
  EXPECT_EQ(stored("a").run_id, "run-1");
  EXPECT_EQ(stored("c").run_id, "run-3");
  EXPECT_FALSE(stored("d").is_cowork);
}

TEST_F(SessionStart, APeerIsMarkedEvenWithoutAConfiguration) {
  handleSessionStart(startEvent("a", "/w"), own());
  handleSessionStart(startEvent("b", "/w"), unconfigured());
  EXPECT_TRUE(stored("a").is_cowork);
  EXPECT_EQ(stored("a").cowork_session_id, "a");
  EXPECT_FALSE(SessionStore::load("b"));
}

TEST_F(SessionStart, AnUnknownSessionStartsAtAnyEvent) {
  Json::Object any = event("Notification", {{"cwd", "/w"}});
  EXPECT_FALSE(loadStateFresh("s", nullptr, own()));
  EXPECT_FALSE(loadStateFresh("", &any, own()));
  EXPECT_EQ(sent(), Lines{});
  auto session = loadStateFresh("s", &any, own());
  ASSERT_TRUE(session);
  EXPECT_EQ(session->state.span_count, 1);
  EXPECT_EQ(sent().front().substr(0, 95),
            R"(runs/start/ {"agent_name":"claude-code","inputs":{"cwd":"/w","source":"startup"},"metadata":{)"
            "\"m");
}

TEST_F(SessionStart, ARecordWithoutARunIsStartedOverAndADamagedOneToo) {
  SessionState empty = started();
  empty.run_id.clear();
  empty.span_count = 9;
  Json::Object any = event("Stop");
  ASSERT_FALSE(SessionStore::save(empty));
  EXPECT_EQ(loadStateFresh("s", &any, own())->state.run_id, "run-1");
  sandbox.write(sandbox.stateFile("s"), "{\"session_id\":\"s\"");
  EXPECT_EQ(loadStateFresh("s", &any, own())->state.run_id, "run-2");
  ASSERT_FALSE(SessionStore::save(empty));
  EXPECT_EQ(loadStateFresh("s", &any, unconfigured())->state, empty)
      << "what the second reading holds counts";
  EXPECT_FALSE(loadStarted(any, unconfigured()));
}

TEST_F(SessionStart, ASessionOfYesterdayRollsOver) {
  SessionState old = started();
  old.started_at = "2026-01-30T23:59:59.000Z";
  old.workflow_id = "old";
  old.span_count = 4;
  ASSERT_FALSE(SessionStore::save(old));
  Json::Object any = event("Notification");

  EXPECT_EQ(loadStateFresh("s", &any, own())->state, old) << "without a slug there is no daily run";
  plane.on("/api/v1/observe/runs/daily/", FakeControlPlane::json({{"run_id", "run-0"}}));
  EXPECT_EQ(loadStateFresh("s", &any, daily())->state, old) << "the same run changes nothing";
  plane.on("/api/v1/observe/runs/daily/", FakeControlPlane::status(404));
  EXPECT_EQ(loadStateFresh("s", &any, daily())->state, old) << "no answer changes nothing";
  EXPECT_EQ(sent().size(), 2u);

  plane.on("/api/v1/observe/runs/daily/", FakeControlPlane::json({{"run_id", "new"}}));
  SessionState rolled = loadStateFresh("s", &any, daily())->state;
  EXPECT_EQ(
      sent(),
      (Lines{R"(runs/daily/ {"agent_slug":"reviewer","agent_type":"claude-code"})",
             R"(runs/run-0/steps/ {"hardware_uuid":"<uuid>","steps":[{"output":{"kind":"daily_run_rollover",)"
             R"("new_run_id":"new","old_run_id":"run-0","old_started_at":"2026-01-30T23:59:59.000Z",)"
             R"("rolled_at":"<now>","session_id":"s","source":"hook"},"position":4,)"
             R"("step_name":"hook:daily_run_rollover"}]})"}));
  EXPECT_EQ(stored(), rolled);
  EXPECT_EQ(rolled.started_at.substr(0, 10), Clock::date());
  rolled.started_at = old.started_at;
  rolled.run_id = old.run_id;
  EXPECT_EQ(rolled.workflow_id, "");
  rolled.workflow_id = old.workflow_id;
  EXPECT_EQ(rolled, old) << "nothing else changes";
}

TEST_F(SessionStart, AStepAfterMidnightGoesToTheNewRun) {
  SessionState state = started();
  state.started_at = "";
  const ObserveClient client = daily();
  Session{state, client}.emitStep("notification", {{"message", "m"}, {"kind", "mine"}, {"source", "x"}});
  auto lines = sent();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[2],
            R"(runs/daily-1/steps/ {"hardware_uuid":"<uuid>","steps":[{"output":{"hardware_uuid":"<uuid>",)"
            R"("kind":"mine","message":"m","session_id":"s","source":"x","timestamp":"<now>"},)"
            R"("position":0,"step_name":"hook:notification"}]})");
  EXPECT_EQ(stored().span_count, 1);
}

TEST_F(SessionStart, NoStepWithoutARunOrAConfiguration) {
  SessionState state = started();
  const ObserveClient nobody = unconfigured(), client = own();
  Session session{state, nobody};
  session.emitStep("x", {});
  EXPECT_EQ(session.state.span_count, 0);
  state.run_id.clear();
  Session{state, client}.emitStep("x", {});
  EXPECT_EQ(sent(), Lines{});
  EXPECT_FALSE(Files::exists(sandbox.state()));
}

TEST(Summaries, SayInOneLineWhatAToolWasAsked) {
  struct Row {
    const char* tool;
    Json::Object input;
    std::string summary;
  };
  const std::string accents(300, 'x');
  const Row rows[] = {
      {"Bash", {{"command", accents}}, accents.substr(0, 200)},
      {"Bash", {{"description", "x"}}, ""},
      {"Bash", {{"command", 1}}, ""},
      {"Bash", {}, ""},
      {"Read", {{"file_path", "/a"}, {"x", 1}}, "/a"},
      {"Write", {{"file_path", accents}}, accents},
      {"Edit", {{"file_path", "/a"}}, "/a"},
      {"Grep", {{"pattern", "needle"}, {"path", "src"}}, "needle in src"},
      {"Grep", {{"pattern", "needle"}}, "needle"},
      {"Grep", {{"path", "src"}}, " in src"},
      {"Glob", {{"pattern", "*.c"}}, "*.c"},
      {"WebSearch", {{"query", "q"}}, "q"},
      {"WebFetch", {{"url", "http://x"}}, "http://x"},
      {"Task", {{"subagent_type", "explorer"}, {"description", "scan"}}, "[explorer] scan"},
      {"Task", {{"description", "scan"}}, "scan"},
      {"Task", {{"subagent_type", "explorer"}}, "[explorer] "},
      {"bash", {{"command", "ls"}}, "command=ls"},
      {"MCP:x", {{"b", 1}, {"a", accents}}, "a=" + accents.substr(0, 100)},
      {"Other", {{"n", 12}}, "n=12"},
      {"Other", {{"n", 100000.0}}, "n=100000"},
      {"Other", {{"n", 0.0000001}}, "n=0.0000001"},
      {"Other", {{"f", true}}, "f=true"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(summarizeToolInput(row.tool, row.input), row.summary) << row.tool;
}

TEST(Summaries, SayInOneLineWhatAToolAnswered) {
  EXPECT_EQ(summarizeToolOutput({}), "");
  EXPECT_EQ(summarizeToolOutput({{"content", std::string(250, 'c')}, {"filePath", "/a"}}),
            std::string(200, 'c'));
  EXPECT_EQ(summarizeToolOutput({{"content", ""}, {"filePath", "/a/b"}}), "file:/a/b");
  EXPECT_EQ(summarizeToolOutput({{"content", Json::Array{"x"}}, {"stdout", "y"}}), "");
}

TEST(Summaries, TruncationReachesEveryStringAndList) {
  Json::Array many(60, Json(std::string(3000, 'x')));
  Json cut = truncateJSON(
      Json::Object{{"list", many}, {"n", 1.5}, {"o", Json::Object{{"s", "👨‍👩‍👧‍👦ab"}}}}, 2);
  const Json::Object& object = *cut.asObject();
  EXPECT_EQ(object.list("list").size(), 50u);
  EXPECT_EQ(object.list("list")[49], Json("xx"));
  EXPECT_EQ(*object.find("n"), Json(1.5));
  EXPECT_EQ(object.object("o").text("s"), "👨‍👩‍👧‍👦a");
}

}  // namespace
}  // namespace EventRouter
