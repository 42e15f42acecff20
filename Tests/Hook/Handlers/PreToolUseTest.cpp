#include "Hook/Handlers/Handlers.h"

#include <gtest/gtest.h>

#include "Hook/State/SessionStore.h"
#include "Platform/Files.h"
#include "Tests/Support/SessionFixture.h"

namespace EventRouter {
namespace {

using Lines = std::vector<std::string>;

class PreToolUse : public SessionFixture {
 protected:
  PreToolUse() { EXPECT_FALSE(SessionStore::save(started())); }

  Outcome call(const ObserveClient& client, const std::string& tool, Json::Object input) {
    return handlePreToolUse(event("PreToolUse", {{"tool_name", tool}, {"tool_input", std::move(input)}}),
                            client);
  }

  // The decisions reported since the last call, each as position, action, rule and violation.
  Lines decisions() {
    Lines lines;
    auto requests = plane.requests("/api/v1/observe/runs/run-0/steps/");
    for (; seen_ < requests.size(); ++seen_) {
      const Json::Object& step = *requests[seen_].json.list("steps").at(0).asObject();
      const Json::Object& output = step.object("output");
      EXPECT_EQ(step.text("step_name"), "hook:guard_decision:" + output.text("action"));
      EXPECT_EQ(requests[seen_].json.list("steps").size(), 1u);
      lines.push_back(std::to_string(step.integer("position")) + " " + output.text("action") + " " +
                      output.text("rule") + ": " + *output.list("violations").at(0).asText());
    }
    return lines;
  }

  Ask ask(const std::string& context) { return {"PreToolUse", "Obrisk: " + context}; }
  Deny deny(const std::string& reason) { return {"PreToolUse", reason}; }

 private:
  std::size_t seen_ = 0;
};

TEST_F(PreToolUse, ALocalBlockIsReportedAndThePolicyNotAsked) {
  EXPECT_EQ(call(daily(), "Bash", {{"command", "rm -rf /"}}),
            Outcome(deny("Obrisk guard: Blocked command pattern: rm -rf /")));
  EXPECT_EQ(sent(),
            (Lines{R"(runs/run-0/steps/ {"hardware_uuid":"<uuid>","steps":[{"output":{"action":"deny",)"
                   R"("kind":"guard_decision","rule":"destructive_command","session_id":"s","source":"hook",)"
                   R"("timestamp":"<now>","tool_name":"Bash",)"
                   R"("violations":["Blocked command pattern: rm -rf /"]},"position":0,)"
                   R"("step_name":"hook:guard_decision:deny"}]})"}));
  EXPECT_EQ(stored().span_count, 1);
}

TEST_F(PreToolUse, ThePolicyIsAskedByTheToolsName) {
  EXPECT_EQ(call(daily(), "Read", {{"file_path", "/etc/passwd"}}), Outcome(Allow{}));
  EXPECT_EQ(sent(), (Lines{R"(policy-check/ {"agent_id":"run-0","agent_name":"claude-code",)"
                           R"("workflow_name":"tool:Read"})"}));
  EXPECT_EQ(stored().span_count, 0);
  EXPECT_EQ(call(own(), "Read", {{"file_path", "/etc/passwd"}}), Outcome(Allow{}));
  EXPECT_EQ(sent(), Lines{}) << "without a slug it is not asked";
}

TEST_F(PreToolUse, EveryAnswerUnderEveryFailDefault) {
  const std::string failed =
      "Policy check failed (controlplane unreachable); proceeding requires confirmation.";
  const std::string unreachable =
      "Obrisk policy check failed and tenant default is deny — controlplane is unreachable. Configure [claude-code] "
      "policy_check_fail_default=allow to override.";
  const std::string local = "Potentially dangerous command: rm -rf build";
  const std::string localStep = "0 ask destructive_command: " + local;
  auto answer = [](const char* action, const char* reason) {
    return FakeControlPlane::json({{"action", action}, {"reason", reason}});
  };
  struct Row {
    const char* name;
    FakeControlPlane::Reply reply;
    const char* failDefault;
    bool warned;  // by a local rule before
    Outcome outcome;
    Lines decisions;
  };
  const auto closed = FakeControlPlane::failing(FakeControlPlane::Fault::closeBeforeHead);
  const Row rows[] = {
      {"allowed", answer("allow", "x"), "deny", false, Allow{}, {}},
      {"no action", FakeControlPlane::status(204, ""), "deny", false, Allow{}, {}},
      {"an action of another name", answer("deny", "x"), "deny", false, Allow{}, {}},
      {"asked for by another name", answer("ask", "x"), "deny", false, Allow{}, {}},
      {"allowed after a local warning", answer("allow", ""), "allow", true, ask(local), {localStep}},
      {"blocked",
       answer("block", "R"),
       "allow",
       false,
       deny("Obrisk policy blocked: R"),
       {"0 policy_block server-side: R"}},
      {"blocked in capitals without a reason",
       answer("BLOCK", ""),
       "allow",
       false,
       deny("Obrisk policy blocked: Policy violation"),
       {"0 policy_block server-side: Policy violation"}},
      {"blocked after a local warning",
       answer("block", "R"),
       "allow",
       true,
       deny("Obrisk policy blocked: R"),
       {localStep, "1 policy_block server-side: R"}},
      {"warned",
       answer("Warn", "R"),
       "allow",
       false,
       ask("Policy warning: R"),
       {"0 policy_warn server-side: R"}},
      {"warned without a reason",
       answer("warn", ""),
       "allow",
       false,
       ask("Policy warning: Policy warning"),
       {"0 policy_warn server-side: Policy warning"}},
      {"warned after a local warning",
       answer("warn", "R"),
       "allow",
       true,
       ask(local + "; Policy warning: R"),
       {localStep, "1 policy_warn server-side: R"}},
      {"refused, default allow", FakeControlPlane::status(403), "allow", false, Allow{}, {}},
      {"refused, default ask", FakeControlPlane::status(403), "ask", false, ask(failed), {}},
      {"refused, default deny", FakeControlPlane::status(403), "deny", false, deny(unreachable), {}},
      {"failing, default allow", FakeControlPlane::status(500), "allow", false, Allow{}, {}},
      {"failing, default ask", FakeControlPlane::status(500), "ask", false, ask(failed), {}},
      {"failing, default deny", FakeControlPlane::status(500), "deny", false, deny(unreachable), {}},
      {"absent, default allow", closed, "allow", false, Allow{}, {}},
      {"absent, default ask", closed, "ask", false, ask(failed), {}},
      {"absent, default deny", closed, "deny", false, deny(unreachable), {}},
      {"absent, default ask, after a local warning",
       closed,
       "ask",
       true,
       ask(local + "; " + failed),
       {localStep}},
      {"absent, default deny, after a local warning", closed, "deny", true, deny(unreachable), {localStep}},
  };
  for (const Row& row : rows) {
    ASSERT_FALSE(SessionStore::save(started()));
    Files::remove(sandbox.diagnostics());
    plane.on("/api/v1/observe/policy-check/", row.reply);
    EXPECT_EQ(call(daily(row.failDefault), "Bash", {{"command", row.warned ? "rm -rf build" : "ls"}}),
              row.outcome)
        << row.name;
    EXPECT_EQ(decisions(), row.decisions) << row.name;
    auto log = jsonLines(sandbox.diagnostics());
    bool answered = row.reply.status < 400 && row.reply.fault == FakeControlPlane::Fault::none;
    ASSERT_EQ(log.size(), answered ? 0u : 1u) << row.name;
    if (answered) continue;
    EXPECT_EQ(log[0].text("message"),
              std::string("PreToolUse policy check failed; applying fail-default=") + row.failDefault);
  }
}

TEST_F(PreToolUse, CountsTheFilesThatASessionModifies) {
  struct Row {
    const char* name;
    int recorded;
    const char* tool;
    Json::Object input;
    const char* guard;
    std::string message;  // empty: none
  };
  const Json::Object next{{"file_path", "/p/new"}};
  const std::string near = "Session has modified 20 files — approaching limit";
  const Row rows[] = {
      {"the 19th", 18, "Write", next, "{}", ""},
      {"the 20th", 19, "Write", next, "{}", near},
      {"the 20th by an edit", 19, "Edit", next, "{}", near},
      {"the 21st", 20, "Write", next, "{}", ""},
      {"one that is recorded", 19, "Write", {{"file_path", "/p/3"}}, "{}", ""},
      {"no file", 19, "Write", {{"file_path", ""}}, "{}", ""},
      {"another tool", 19, "MultiEdit", next, "{}", ""},
      {"the 50th", 49, "Write", next, "{}", ""},
      {"the 51st", 50, "Write", next, "{}", "Session has modified 51 files (limit: 50)"},
      {"the 52nd", 51, "Write", next, "{}", "Session has modified 52 files (limit: 50)"},
      {"no limits", 60, "Write", next, R"({"max_file_changes":0,"warn_file_changes":0})", ""},
      {"a limit below the warning", 19, "Write", next, R"({"max_file_changes":5})",
       "Session has modified 20 files (limit: 5)"},
      {"a negative limit is none", 19, "Write", next, R"({"max_file_changes":-1})", near},
  };
  for (const Row& row : rows) {
    SessionState state = started();
    for (int file = 0; file < row.recorded; ++file)
      state.modified_files.push_back("/p/" + std::to_string(file));
    ASSERT_FALSE(SessionStore::save(state));
    sandbox.write(sandbox.project() + "/.obrisk/guard.json", row.guard);
    Outcome expected = row.message.empty() ? Outcome(Allow{}) : Outcome(ask(row.message));
    EXPECT_EQ(call(own(), row.tool, row.input), expected) << row.name;
    EXPECT_EQ(decisions(), row.message.empty() ? Lines{} : Lines{"0 ask session_scope: " + row.message})
        << row.name;
    EXPECT_EQ(stored().modified_files, state.modified_files) << row.name;
  }
}

TEST_F(PreToolUse, AsksBeforeATeammatesFileIsWritten) {
  SessionState peer = started();
  peer.session_id = "peer";
  peer.modified_files = {"src/a.txt", "/p/src/./a.txt"};
  ASSERT_FALSE(SessionStore::save(peer));
  SessionState mine = started();
  mine.is_cowork = true;
  mine.modified_files.assign(19, "/p/other");
  struct Row {
    const char* name;
    const char* tool;
    const char* file;
    const char* guard;
    bool cowork;
    bool conflict;
  };
  const Row rows[] = {
      {"in another spelling", "Write", "/p/src/../src/a.txt", "{}", true, true},
      {"by an edit", "Edit", "/p/src/a.txt", "{}", true, true},
      {"another file", "Write", "/p/src/b.txt", "{}", true, false},
      {"a relative one is none of the project's", "Write", "/q/src/a.txt", "{}", true, false},
      {"detection off", "Write", "/p/src/a.txt", R"({"detect_file_conflicts":false})", true, false},
      {"no group", "Write", "/p/src/a.txt", "{}", false, false},
      {"another tool", "Read", "/p/src/a.txt", "{}", true, false},
  };
  for (const Row& row : rows) {
    mine.is_cowork = row.cowork;
    ASSERT_FALSE(SessionStore::save(mine));
    sandbox.write(sandbox.project() + "/.obrisk/guard.json", row.guard);
    std::string conflict = std::string("Cowork conflict: teammate already modified ") + row.file;
    std::string scope = "Session has modified 20 files — approaching limit";
    std::string expected = row.conflict                      ? conflict + "; " + scope
                           : row.tool == std::string("Read") ? ""
                                                             : scope;
    EXPECT_EQ(call(own(), row.tool, {{"file_path", row.file}}),
              expected.empty() ? Outcome(Allow{}) : ask(expected))
        << row.name;
    Lines steps;
    if (row.conflict) steps.push_back("0 ask cowork_conflict: " + conflict);
    if (!expected.empty()) steps.push_back(std::to_string(steps.size()) + " ask session_scope: " + scope);
    EXPECT_EQ(decisions(), steps) << row.name;
  }
}

TEST_F(PreToolUse, AWarningHidesTheFileChecks) {
  SessionState state = started();
  for (int file = 0; file < 50; ++file)
    state.modified_files.push_back(std::to_string(file));
  ASSERT_FALSE(SessionStore::save(state));
  EXPECT_EQ(call(own(), "Write", {{"file_path", "/p/yarn.lock"}}),
            Outcome(ask("Write to sensitive file: /p/yarn.lock (matched: *.lock)")));
}

TEST_F(PreToolUse, NoRuleIsEvaluatedWithoutARun) {
  SessionStore::remove("s");
  plane.on("/api/v1/observe/runs/start/", FakeControlPlane::status(404));
  EXPECT_EQ(call(own(), "Bash", {{"command", "rm -rf /"}}), Outcome(Allow{}));
  EXPECT_EQ(call(unconfigured(), "Bash", {{"command", "rm -rf /"}}), Outcome(Allow{}));
}

TEST_F(PreToolUse, ALocalRuleDecidesWithoutAConfiguration) {
  EXPECT_EQ(call(unconfigured(), "Bash", {{"command", "mkfs /dev/sda"}}),
            Outcome(deny("Obrisk guard: Blocked command pattern: mkfs /dev/sda")));
  EXPECT_EQ(stored().span_count, 0) << "what is not reported takes no position";
  EXPECT_EQ(handlePreToolUse(event("PreToolUse", {{"tool_name", 7}, {"tool_input", "x"}}), own()),
            Outcome(Allow{}));
}

}  // namespace
}  // namespace EventRouter
