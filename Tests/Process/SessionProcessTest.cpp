// Whole sessions through the executable, one process for each event, against a control plane.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>

#include "Hook/State/SessionStore.h"
#include "Hook/Transcript/LLMCallDedupe.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Tests/Support/SessionFixture.h"

namespace {

using Lines = std::vector<std::string>;

constexpr const char* open = R"({"continue":true})";

class SessionProcess : public SessionFixture {
 protected:
  struct Turn {
    const char* name;
    Json::Object event;
    std::string requests;  // as `briefs` gives them
    std::string output = open;
  };

  // Plays the turns of the session whose run that is. Policies are checked in daily runs only.
  void play(const std::string& run, std::vector<Turn> turns) {
    for (Turn& turn : turns) {
      auto result = sandbox.run({}, turn.event);
      EXPECT_EQ(result.output, turn.output) << turn.name;
      EXPECT_EQ(result.status, 0) << turn.name;
      if (!run.starts_with("daily"))
        turn.requests = std::regex_replace(turn.requests, std::regex("policy-check [^;]*; "), "");
      EXPECT_EQ(briefs(run), turn.requests) << turn.name;
    }
  }

  // The requests since the last call, each followed by "; ".
  std::string briefs(const std::string& run) {
    std::string text;
    auto requests = plane.requests();
    for (; seen_ < requests.size(); ++seen_)
      text += brief(requests[seen_], run) + "; ";
    return text;
  }

  // The end of the path, behind the run when it is another one, then the steps with their positions, the
  // spans, the input tokens of the calls, or the workflow.
  static std::string brief(const FakeControlPlane::Request& request, const std::string& run) {
    static const std::regex base("^/api/v1/observe/(runs/)?|/$");
    std::string text = std::regex_replace(request.path(), base, "");
    if (text.starts_with(run + "/")) text.erase(0, run.size() + 1);
    for (const Json& step : request.json.list("steps"))
      text += " " + step.asObject()->text("step_name") + "@" +
              std::to_string(step.asObject()->integer("position"));
    for (const Json& span : request.json.list("spans"))
      text += " " + span.asObject()->text("name");
    for (const Json& call : request.json.list("calls"))
      text += " " + std::to_string(call.asObject()->integer("tokens_in"));
    return text + (text == "policy-check" ? " " + request.json.text("workflow_name") : "");
  }

  Json::Object bash(const char* name, const char* command) {
    return event(name, {{"tool_name", "Bash"},
                        {"tool_input", Json::Object{{"command", command}}},
                        {"cwd", sandbox.project()}});
  }

  Json::Object stopEvent() {
    return event("Stop", {{"transcript_path", sandbox.root() + "/transcript.jsonl"}});
  }

  void appendCall(int tokensIn) {
    std::ofstream(sandbox.root() + "/transcript.jsonl", std::ios::app)
        << R"({"type":"system"})"
           "\n"
        << R"({"type":"assistant","timestamp":")" << Clock::dateTime() << R"(","message":{"id":"m)"
        << tokensIn << R"(","model":"sonnet","usage":{"input_tokens":)" << tokensIn << "}}}\n";
  }

  void playUpToTheStop(const std::string& run) {
    const auto subagent = [](const char* name, const char* id) {
      return event(name, {{"agent_id", id}, {"agent_type", "explorer"}});
    };
    const Json::Object write =
        event("PostToolUse", {{"tool_name", "Write"}, {"tool_input", Json::Object{{"file_path", "/p/a"}}}});
    const std::string denied =
        R"({"hookSpecificOutput":{"hookEventName":"PreToolUse","permissionDecision":"deny",)"
        R"("permissionDecisionReason":"Obrisk guard: Blocked command pattern: rm -rf \/"}})";
    const std::string asked =
        R"({"hookSpecificOutput":{"additionalContext":"Obrisk: Push to protected branch 'main' — confirm?",)"
        R"("hookEventName":"PreToolUse","permissionDecision":"ask"}})";
    const std::string started = run.substr(0, run.find('-')) == "daily" ? "daily; " : "start; ";
    play(run,
         {{"start", event("SessionStart", {{"cwd", sandbox.project()}, {"model", "m"}}),
           started + "steps hook:session_start@0; "},
          {"prompt", event("UserPromptSubmit", {{"prompt", "p"}}), "steps hook:user_prompt@1; "},
          {"an allowed command", bash("PreToolUse", "ls"), "policy-check tool:Bash; "},
          {"its result", bash("PostToolUse", "ls"), "spans Bash; steps hook:tool_use:Bash@2; "},
          {"a written file", write, "spans Write; steps hook:tool_use:Write@3; "},
          {"a denied command", bash("PreToolUse", "rm -rf /"), "steps hook:guard_decision:deny@4; ", denied},
          {"a push to a protected branch", bash("PreToolUse", "git push origin main"),
           "steps hook:guard_decision:ask@5; policy-check tool:Bash; ", asked},
          {"a failure", bash("PostToolUseFailure", ""), "spans Bash; steps hook:tool_failure@6; "},
          {"a subagent", subagent("SubagentStart", "a"), "steps hook:subagent_start@8; "},
          {"another", subagent("SubagentStart", "b"), "steps hook:subagent_start@9; "},
          {"the end of the second", subagent("SubagentStop", "b"),
           "spans subagent:explorer; steps hook:subagent_stop@10; "},
          {"the end of the first", subagent("SubagentStop", "a"),
           "spans subagent:explorer; steps hook:subagent_stop@12; "},
          {"compaction", event("PreCompact"),
           "steps hook:pre_compact@14; policy-check claude-code:precompact; "}});
  }

 private:
  std::size_t seen_ = 0;
};

TEST_F(SessionProcess, OfAnAgentWithoutASlug) {
  sandbox.configure(plane.url());
  playUpToTheStop("run-1");
  EXPECT_EQ(stored().modified_files, Lines{"/p/a"});
  EXPECT_TRUE(stored().pending_subagent_spans.empty());
  appendCall(10);
  appendCall(20);
  play("run-1", {{"the first stop", stopEvent(), "llm-calls 10 20; steps hook:stop@15; complete; "}});
  EXPECT_EQ(Sandbox::tree(sandbox.state()), Lines{}) << "the session is forgotten";
  appendCall(30);
  play("run-2", {{"the second stop is a run of its own", stopEvent(),
                  "start; steps hook:session_start@0; llm-calls 10 20 30; steps hook:stop@1; complete; "},
                 {"the end", event("SessionEnd"), ""}});
  EXPECT_EQ(Sandbox::tree(sandbox.home() + "/.obrisk/cc-dedupe"), (Lines{"run-1.json", "run-2.json"}));
  EXPECT_EQ(contentOf(LLMCallDedupe::path("run-2").value()), R"(["m10","m20","m30"])");
  EXPECT_FALSE(Files::exists(sandbox.diagnostics()));
}

TEST_F(SessionProcess, OfAnAgentWithADailyRun) {
  sandbox.configure(plane.url(), "reviewer");
  playUpToTheStop("daily-1");
  appendCall(10);
  play("daily-1", {{"the first stop", stopEvent(),
                    "llm-calls 10; policy-check claude-code:stop; steps hook:stop@15; "}});
  appendCall(20);
  play("daily-1", {{"the second stop reads on", stopEvent(),
                    "llm-calls 20; policy-check claude-code:stop; steps hook:stop@16; "},
                   {"the end is a stop", event("SessionEnd"), "steps hook:stop@17; "}});
  EXPECT_EQ(stored().transcript_offset, Files::size(sandbox.root() + "/transcript.jsonl"));
  EXPECT_FALSE(Files::exists(sandbox.diagnostics()));
}

TEST_F(SessionProcess, AllRequestsOfAnEventShareOneConnection) {
  sandbox.configure(plane.url(), "reviewer");
  appendCall(10);
  sandbox.run({}, stopEvent());
  EXPECT_EQ(plane.requests().size(), 5u);
  EXPECT_EQ(plane.connections(), 1);
}

TEST_F(SessionProcess, EveryEventOfTheTableBecomesItsStep) {
  const std::pair<const char*, const char*> rows[] = {
      {"StopFailure", "stop_failure error"},
      {"PostCompact", "post_compact pre_tokens post_tokens"},
      {"UserPromptSubmit", "user_prompt prompt"},
      {"Notification", "notification message notification_type"},
      {"TaskCreated", "task_created task_id content status"},
      {"TaskCompleted", "task_completed task_id content status"},
      {"PermissionRequest", "permission_request tool_name tool_input reason"},
      {"PermissionDenied", "permission_denied tool_name tool_input reason"},
      {"InstructionsLoaded", "instructions_loaded file_path source"},
      {"CwdChanged", "cwd_changed old_cwd new_cwd cwd"},
      {"ConfigChange", "config_change file_path config_type"},
      {"FileChanged", "file_changed file_path event_type"},
      {"WorktreeCreate", "worktree_create worktree_path"},
      {"WorktreeRemove", "worktree_remove worktree_path"},
      {"Elicitation", "elicitation server_name prompt"},
      {"ElicitationResult", "elicitation_result server_name response"},
      {"stop", "unknown:stop"},
      {"", "unknown:"},
  };
  sandbox.configure(plane.url());
  const auto set = [](Json::Object& object, const std::string& words) {
    std::istringstream stream(words.substr(std::min(words.find(' '), words.size())));
    for (std::string member; stream >> member;)
      object.set(member, 1);
  };
  Json::Object everything;
  for (const auto& [name, words] : rows)
    set(everything, words);
  for (const auto& [name, words] : rows) {
    const std::string kind = std::string(words).substr(0, std::string(words).find(' '));
    Json::Object expected = kind.starts_with("unknown:") ? everything : Json::Object{};
    set(expected, words);
    expected.set("kind", kind);
    if (!expected.find("source")) expected.set("source", "hook");
    ASSERT_FALSE(SessionStore::save(started()));
    EXPECT_EQ(sandbox.run({}, event(name, everything)).output, open);
    const Json::Object step = *plane.requests("*/steps/").back().json.list("steps").at(0).asObject();
    Json::Object output = step.object("output");
    for (const char* key : {"session_id", "timestamp", "hardware_uuid"})
      EXPECT_TRUE(output.take(key)) << key;
    EXPECT_EQ(Json(output).compact(), Json(expected).compact()) << name;
    EXPECT_EQ(step.text("step_name"), "hook:" + kind);
  }
}

TEST_F(SessionProcess, ManyAtOnceAndKilledAtAnyInstantTearNoFile) {
  constexpr int atOnce = 32, kills = 150;  // quib-hook-soak kills two thousand
  sandbox.configure(plane.url());
  ASSERT_FALSE(SessionStore::save(started()));
  std::string input = sandbox.root() + "/event", null = "/dev/null";
  sandbox.write(input, Json(bash("PostToolUse", "ls")).compact());
  std::mt19937 random(1);
  auto readable = [&] {
    auto content = Files::read(sandbox.stateFile("s"));
    return content && Json::parseObject(*content) && SessionState::fromJSON(*Json::parseObject(*content));
  };
  for (int round = 0; round < kills / atOnce + 1; ++round) {
    std::vector<pid_t> children;
    for (int child = 0; child < atOnce; ++child)
      children.push_back(sandbox.start({}, input, null, null));
    for (pid_t child : children) {
      ::usleep(random() % 3000);
      if (round > 0) ::kill(child, SIGKILL);
      EXPECT_TRUE(readable());
    }
    for (pid_t child : children)
      ::waitpid(child, nullptr, 0);
    ASSERT_TRUE(readable()) << "round " << round;
  }
  EXPECT_FALSE(jsonLines(sandbox.activityLog()).empty()) << "and each of its lines is one object";
  for (const std::string& name : Sandbox::tree(sandbox.state()))
    EXPECT_TRUE(name == "s.json" || !name.ends_with(".json")) << name;
}

}  // namespace
