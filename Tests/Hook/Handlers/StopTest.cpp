#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"

#include <gtest/gtest.h>

#include <limits>

#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"
#include "Hook/State/SessionStore.h"
#include "Hook/Transcript/LLMCallDedupe.h"
#include "Hook/Transcript/Transcript.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Tests/Support/SessionFixture.h"

namespace EventRouter {
namespace {

using Lines = std::vector<std::string>;

class Stop : public SessionFixture {
 protected:
  Stop() { save(started()); }

  static void save(const SessionState& state) { EXPECT_FALSE(SessionStore::save(state)); }

  std::string transcript() const { return sandbox.root() + "/transcript.jsonl"; }

  // One assistant line of today, unless another day is given.
  static std::string line(const std::string& id, int tokensIn, int tokensOut,
                          const std::string& day = Clock::date()) {
    return R"({"type":"assistant","timestamp":")" + day + R"(T00:00:00.000Z","message":{"id":")" + id +
           R"(","model":"opus","usage":{"input_tokens":)" + std::to_string(tokensIn) +
           R"(,"output_tokens":)" + std::to_string(tokensOut) +
           R"(},"content":[{"type":"text","text":"answer"}]}})" + "\n";
  }

  Outcome stop(const ObserveClient& client) {
    return handleStop(event("Stop", {{"transcript_path", transcript()}}), client);
  }

  static std::string call(int tokensIn, int tokensOut, const std::string& cost) {
    return R"({"cost":)" + cost + R"(,"model":"opus","prompt_preview":"ask","response_preview":"answer",)" +
           R"("task":"claude_code_turn","timestamp":"<now>","tokens_in":)" + std::to_string(tokensIn) +
           R"(,"tokens_out":)" + std::to_string(tokensOut) + "}";
  }
};

constexpr const char* userLine = R"({"type":"user","message":{"content":"ask"}})"
                                 "\n";

TEST_F(Stop, SendsWhatIsNewThenCompletesAnOwnRun) {
  SessionState state = started();
  state.span_count = 7;
  save(state);
  sandbox.write(transcript(), userLine + line("m1", 1000, 10) + line("m1", 1000, 10) +
                                  line("old", 1, 1, "2020-01-01") + line("", 5, 5) +
                                  R"({"type":"tool_use"})"
                                  "\n");
  EXPECT_EQ(stop(own()), Outcome(Allow{}));
  EXPECT_EQ(
      sent(),
      (Lines{
          R"(runs/run-0/llm-calls/ {"calls":[)" + call(1000, 10, "0.01575") + "," +
              call(1000, 10, "0.01575") + R"(],"hardware_uuid":"<uuid>"})",
          R"(runs/run-0/steps/ {"hardware_uuid":"<uuid>","steps":[{"output":{"hardware_uuid":"<uuid>",)"
          R"("kind":"stop","models_used":["opus"],"session_id":"s","source":"hook","timestamp":"<now>",)"
          R"("tool_uses":8,"total_cost":0.03204,"total_tokens_in":2006,"total_tokens_out":26,"total_turns":4},)"
          R"("position":7,"step_name":"hook:stop"}]})",
          R"(runs/run-0/complete/ {"error":"","result":{"models_used":["opus"],"tool_uses":8,)"
          R"("total_cost":0.03204,"total_tokens_in":2006,"total_tokens_out":26,"total_turns":4},)"
          R"("status":"success","steps":[]})"}));
  EXPECT_FALSE(Files::exists(sandbox.stateFile("s")));
  EXPECT_EQ(LLMCallDedupe::load("run-0"), std::set<std::string>{"m1"});
}

TEST_F(Stop, KeepsADailyRunAndReadsOnWhereItStopped) {
  SessionState state = started();
  state.is_daily_session = true;
  save(state);
  plane.on("*/llm-calls/", FakeControlPlane::status(400));
  std::string content = userLine + line("m1", 10, 0);
  sandbox.write(transcript(), content);
  stop(own());
  EXPECT_EQ(sent().size(), 2u);
  EXPECT_EQ(stored().transcript_offset, static_cast<std::int64_t>(content.size()));
  EXPECT_EQ(stored().span_count, 1);
  EXPECT_EQ(LLMCallDedupe::load("run-0"), std::set<std::string>{"m1"})
      << "sent at most once, even when refused";

  // The first line behind an offset is taken for the rest of one that was read.
  content += line("lost", 10, 0) + line("m2", 10, 0) + line("m1", 10, 0);
  sandbox.write(transcript(), content);
  stop(own());
  auto lines = sent();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(plane.requests("*/llm-calls/").back().json.list("calls").size(), 1u);
  EXPECT_EQ(LLMCallDedupe::load("run-0"), (std::set<std::string>{"m1", "m2"}));
  EXPECT_EQ(stored().transcript_offset, static_cast<std::int64_t>(content.size()));
}

TEST_F(Stop, WithoutATranscriptOnlyTheStepIsSent) {
  SessionState state = started();
  state.is_daily_session = true;
  state.is_cowork = true;
  state.cowork_session_id = "root";
  state.transcript_offset = 5;
  save(state);
  handleStop(event("Stop", {{"transcript_path", 1}}), daily());
  EXPECT_EQ(sent(),
            (Lines{R"(runs/run-0/steps/ {"hardware_uuid":"<uuid>","steps":[{"output":{)"
                   R"("cowork_session_id":"root","hardware_uuid":"<uuid>","is_cowork":true,"kind":"stop",)"
                   R"("session_id":"s","source":"hook","timestamp":"<now>"},"position":0,)"
                   R"("step_name":"hook:stop"}]})"}));
  EXPECT_EQ(stored().transcript_offset, 5);

  stop(daily());
  EXPECT_EQ(stored().transcript_offset, 5) << "a transcript that is not there";
  EXPECT_EQ(sent().size(), 1u);
  EXPECT_EQ(jsonLines(sandbox.diagnostics()).back().text("message"), "transcript not found: " + transcript());
}

TEST_F(Stop, ReportsACostAboveTheCapOnce) {
  const std::string reported = "Reconciled cost $15.7500 exceeds cap $2.0000 (overage $13.7500)";
  struct Row {
    const char* name;
    Json cap;
    std::string message;  // empty: none
  };
  const Row rows[] = {
      {"a number", 2.0, reported},
      {"an integer", 2, reported},
      {"a string", "2.0", reported},
      {"a string with an exponent", "+20e-1", reported},
      {"the cost itself", 15.75, ""},
      {"just below", 15.7499, "Reconciled cost $15.7500 exceeds cap $15.7499 (overage $0.0001)"},
      {"above", 16, ""},
      {"none", 0, ""},
      {"below none", -1, ""},
      {"a leading blank", " 2.0", ""},
      {"trailing text", "2.0 USD", ""},
      {"an empty string", "", ""},
      {"no number", "nan", ""},
      {"two signs", "+-2", ""},
      {"a Boolean", true, ""},
      {"null", nullptr, ""},
  };
  sandbox.write(transcript(), line("m", 1'000'000, 10'000));
  for (const Row& row : rows) {
    SessionState state = started();
    state.is_daily_session = true;
    save(state);
    sent();
    plane.on("/api/v1/observe/policy-check/",
             FakeControlPlane::json({{"metadata", Json::Object{{"cost_cap", row.cap}}}}));
    stop(daily());
    std::string all;
    for (const std::string& each : sent())
      all += each + "\n";
    EXPECT_EQ(all.find("hook:guard_decision:post_run_overage") != all.npos, !row.message.empty()) << row.name;
    EXPECT_NE(all.find(row.message), all.npos) << row.name << ": " << all;
    EXPECT_NE(all.find(R"("workflow_name":"claude-code:stop")"), all.npos) << row.name;
    EXPECT_EQ(stored().cost_overage_emitted, !row.message.empty()) << row.name;
    EXPECT_EQ(stored().span_count, row.message.empty() ? 1 : 2) << row.name;
  }
  SessionState state = started();
  state.is_daily_session = true;
  state.cost_overage_emitted = true;
  save(state);
  sent();
  stop(daily());
  for (const std::string& each : sent())
    EXPECT_EQ(each.find("policy-check"), each.npos) << each;
}

TEST_F(Stop, RoundsMoneyToTheMillionth) {
  SessionState state = started();
  state.cost_overage_emitted = false;
  TranscriptSummary summary;
  summary.totalCost = 3.14159265;
  plane.on("/api/v1/observe/policy-check/",
           FakeControlPlane::json({{"metadata", Json::Object{{"cost_cap", 2.0}}}}));
  const ObserveClient client = daily();
  Session session{state, client};
  reconcileStopCost(session, summary);
  EXPECT_NE(sent().at(1).find("Reconciled cost $3.1416 exceeds cap $2.0000 (overage $1.1416)"),
            std::string::npos);
  reconcileStopCost(session, summary);
  reconcileStopCost(session, std::nullopt);
  EXPECT_EQ(sent(), Lines{});
}

TEST_F(Stop, TheEndOfASessionIsAStopOfARecordedOne) {
  EXPECT_EQ(handleSessionEnd({{"session_id", "unknown"}}, own()), Outcome(Allow{}));
  EXPECT_EQ(handleSessionEnd({}, own()), Outcome(Allow{}));
  EXPECT_EQ(sent(), Lines{});
  handleSessionEnd(event("SessionEnd"), own());
  EXPECT_EQ(sent().size(), 2u);
  EXPECT_FALSE(Files::exists(sandbox.stateFile("s")));
}

TEST_F(Stop, CountsToTheEndOfItsRangeAndNoFurther) {
  SessionState state = started();
  state.span_count = std::numeric_limits<std::int64_t>::max();
  save(state);
  sandbox.write(transcript(), R"({"type":"tool_use"})"
                              "\n"
                              R"({"type":"tool"})");
  stop(own());
  EXPECT_NE(sent().at(0).find(R"("tool_uses":9223372036854775807)"), std::string::npos);
}

TEST_F(Stop, WithoutAConfigurationTheSessionIsForgotten) {
  stop(unconfigured());
  EXPECT_FALSE(Files::exists(sandbox.stateFile("s")));
  EXPECT_EQ(sent(), Lines{});
}

}  // namespace
}  // namespace EventRouter
