// Sessions of Cursor and Copilot through the executable: what each agent is answered and what is recorded of
// it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "Platform/Clock.h"
#include "Platform/Process.h"
#include "Tests/Support/SessionFixture.h"

namespace {

namespace fs = std::filesystem;

class AdapterProcess : public SessionFixture {
 protected:
  AdapterProcess() {
    const std::string profile =
        "]\napi_url = " + plane.url() + "\napi_key = test-key\nagent_slug = reviewer\n";
    sandbox.write(sandbox.home() + "/.obrisk/config", "[cursor" + profile + "[copilot" + profile);
    plane.on("*/policy-check/", [](const FakeControlPlane::Request& request) {
      const std::string workflow = parsed(request.body).text("workflow_name");
      if (workflow == "tool:MCP:search")
        return FakeControlPlane::json({{"action", "warn"}, {"reason", "costly"}});
      if (workflow == "tool:deploy")
        return FakeControlPlane::json({{"action", "block"}, {"reason", "freeze"}});
      return FakeControlPlane::json({{"action", "allow"}});
    });
  }

  // One event from the agent's side: `members` with its name.
  void expectAnswer(const std::string& app, const std::string& event, Json::Object members,
                    const std::string& answer) {
    members.set("hook_event_name", event);
    const auto result = sandbox.run({"--app", app, "--profile", app}, members);
    EXPECT_EQ(result.output, answer) << event;
    EXPECT_EQ(result.error, "") << event;
    EXPECT_EQ(result.status, 0) << event;
  }

  // The workflows asked about, and the names of the steps recorded, each in order.
  std::vector<std::string> checkedWorkflows() const {
    std::vector<std::string> names;
    for (const auto& request : plane.requests("*/policy-check/"))
      names.push_back(request.json.text("workflow_name"));
    return names;
  }
  std::vector<std::string> recordedSteps() const {
    std::vector<std::string> names;
    for (const auto& request : plane.requests("*/steps/"))
      for (const Json& step : request.json.list("steps"))
        names.push_back(step.asObject()->text("step_name"));
    return names;
  }
};

using Names = std::vector<std::string>;

TEST_F(AdapterProcess, GuardsASessionOfCursor) {
  const auto answered = [&](const char* event, Json::Object members, const char* answer) {
    members.set("conversation_id", "c");
    members.set("workspace_roots", Json::Array{sandbox.project()});
    expectAnswer("cursor", event, std::move(members), answer);
  };
  constexpr const char* allowed = R"({"permission":"allow"})";
  answered("sessionStart", {}, allowed);
  answered("beforeSubmitPrompt", {{"prompt", "clean up"}}, R"({"continue":true})");
  answered("beforeShellExecution", {{"command", "rm -rf /"}},
           R"({"agent_message":"Obrisk guard: Blocked command pattern: rm -rf \/","permission":"deny",)"
           R"("user_message":"Obrisk guard: Blocked command pattern: rm -rf \/"})");
  answered("beforeShellExecution", {{"command", "ls"}}, allowed);
  answered("beforeMCPExecution", {{"tool_name", "search"}, {"tool_input", "{\"q\":1}"}},
           R"({"permission":"ask","user_message":"Obrisk: Policy warning: costly"})");
  answered("preToolUse", {{"tool_name", "deploy"}, {"tool_input", Json::Object{}}},
           R"({"agent_message":"Obrisk policy blocked: freeze","permission":"deny",)"
           R"("user_message":"Obrisk policy blocked: freeze"})");
  answered("afterShellExecution", {{"command", "ls"}}, allowed);
  answered("stop", {}, allowed);
  answered("sessionEnd", {}, allowed);

  EXPECT_EQ(checkedWorkflows(), (Names{"tool:Bash", "tool:MCP:search", "tool:deploy"}))
      << "the local guard's refusal is final";
  const Names steps = recordedSteps();
  for (const char* step : {"hook:user_prompt", "hook:guard_decision:deny", "hook:guard_decision:policy_warn",
                           "hook:guard_decision:policy_block", "hook:notification"})
    EXPECT_EQ(std::ranges::count(steps, step), step == std::string("hook:notification") ? 2 : 1) << step;
  EXPECT_EQ(plane.requests("*/runs/daily/").size(), 1u) << "the session goes on from event to event";
  EXPECT_TRUE(plane.requests("*/complete/").empty()) << "the end of a turn is not the end of the run";
}

TEST_F(AdapterProcess, GuardsASessionOfCopilotAndRecordsItsCalls) {
  const std::string transcript = sandbox.root() + "/transcript.jsonl";
  sandbox.write(transcript, R"({"type":"assistant","timestamp":")" + Clock::date() +
                                R"(T00:00:00.000Z","message":{"id":"m1","model":"opus",)"
                                R"("usage":{"input_tokens":1000,"output_tokens":10},)"
                                R"("content":[{"type":"text","text":"done"}]}})"
                                "\n");
  const auto answered = [&](const char* event, Json::Object members, const char* answer) {
    members.set("sessionId", "s");
    members.set("cwd", sandbox.project());
    members.set("transcriptPath", transcript);
    expectAnswer("copilot", event, std::move(members), answer);
  };
  constexpr const char* allowed = R"({"permissionDecision":"allow"})";
  answered("sessionStart", {}, allowed);
  answered("preToolUse", {{"toolName", "Bash"}, {"toolArgs", Json::Object{{"command", "rm -rf /"}}}},
           R"({"permissionDecision":"deny",)"
           R"("permissionDecisionReason":"Obrisk guard: Blocked command pattern: rm -rf \/"})");
  answered("permissionRequest", {{"toolName", "deploy"}},
           R"({"permissionDecision":"deny","permissionDecisionReason":"Obrisk policy blocked: freeze"})");
  answered("postToolUseFailure", {{"toolName", "Bash"}, {"error", "exit 1"}}, allowed);
  answered("agentStop", {}, R"({"decision":"allow"})");

  EXPECT_EQ(checkedWorkflows(), (Names{"tool:deploy", "claude-code:stop"}));
  const auto calls = plane.requests("*/runs/daily-1/llm-calls/");
  ASSERT_EQ(calls.size(), 1u);
  ASSERT_EQ(calls[0].json.list("calls").size(), 1u);
  EXPECT_EQ(calls[0].json.list("calls")[0].asObject()->integer("tokens_in"), 1000);
  EXPECT_EQ(recordedSteps().back(), "hook:stop");
}

TEST_F(AdapterProcess, AnswersFromTheCommandLineThatItInstalled) {
  const std::string directory = sandbox.root() + "/my tools ($HOME)", binary = directory + "/quib-hook";
  fs::create_directory(directory);
  fs::copy_file(QUIB_HOOK_EXECUTABLE, binary);
  const auto shell = [](const std::string& command) {
    return Process::run("/bin/sh", {"-c", command}).value_or("");
  };
  const struct {
    std::string option;
    std::string place;
    std::string event;
    std::string answer;
  } rows[] = {
      {"--install-cursor", "/.cursor/hooks.json", "stop", R"({"permission":"allow"})"},
      {"--install-copilot", "/.copilot/hooks/obrisk.json", "agentStop", R"({"decision":"allow"})"},
      {"--install-claude", "/.claude/settings.json", "Stop", R"({"continue":true})"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(shell("cd '" + directory + "' && ./quib-hook " + row.option + " && echo \" $?\""),
              "{\"installed\":true} 0\n");
    const Json::Object hooks = parsed(contentOf(sandbox.home() + row.place)).object("hooks");
    ASSERT_EQ(hooks.list(row.event).size(), 1u) << row.option;
    const Json::Object& entry = *hooks.list(row.event)[0].asObject();
    const Json::Array& commands = entry.list("hooks");
    const std::string command = (commands.empty() ? entry : *commands[0].asObject()).text("command");
    EXPECT_EQ(shell("echo '{\"hook_event_name\":\"" + row.event + "\"}' | " + command), row.answer)
        << command;
  }
  EXPECT_EQ(shell("HOME=/dev/null '" + binary + "' --install-cursor; echo \" $?\""),
            "{\"installed\":false} 1\n");
}

}  // namespace
