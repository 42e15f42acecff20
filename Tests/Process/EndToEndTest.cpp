// The executable as an agent starts it: what it reads, answers and leaves, and whole sessions of one process
// for each event.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <regex>

#include "Hook/Handlers/Outcome.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Files.h"
#include "Platform/Process.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionScript.h"
#include "Tests/Support/Table.h"

namespace {

constexpr const char* open = R"({"continue":true})";
constexpr const char* malformed = "hook: malformed stdin JSON, falling open";

class EndToEnd : public SessionScript {
 protected:
  EndToEnd() {
    answer = [this](const Json::Object& event) {
      const auto result = sandbox.run({}, event);
      EXPECT_EQ(result.status, 0);
      return result.output;
    };
  }

  // What a shell in the project directory writes; `hook` is the executable there.
  std::string shell(const std::string& command) {
    const std::string begin = "cd '" + sandbox.project() + "'; hook='" QUIB_HOOK_EXECUTABLE "'; ";
    return Process::run("/bin/sh", {"-c", begin + command}).value_or("no shell");
  }

  std::size_t logged() { return jsonLines(sandbox.diagnostics()).size(); }
};

TEST(Outcome, RendersForClaudeCode) {
  EXPECT_EQ(renderJSON(Allow{}), open);
  EXPECT_EQ(renderJSON(Ask{"PreToolUse", "y"}),
            R"({"hookSpecificOutput":{"additionalContext":"y","hookEventName":"PreToolUse",)"
            R"("permissionDecision":"ask"}})");
  EXPECT_EQ(renderJSON(Deny{"PreToolUse", "a/\"x\"\n"}),
            R"({"hookSpecificOutput":{"hookEventName":"PreToolUse","permissionDecision":"deny",)"
            R"("permissionDecisionReason":"a\/\"x\"\n"}})");
}

TEST_F(EndToEnd, FallsOpenOnWhatItCannotUnderstand) {
  for (const auto& row : rows(R"(
    {"hook_event_name":"Stop"}   ¦ an event
    {}                           ¦ an event
    {"hook_event_name":["Stop"]} ¦ an event
    ∅                            ¦ nothing
    ␠␊                           ¦ logged
    [{"hook_event_name":"Stop"}] ¦ logged
    "Stop"                       ¦ logged
    {"hook_event_name":"Stop"    ¦ logged
    {}{}                         ¦ logged
    {"a":"INVALID"}              ¦ logged
    {}␀                          ¦ logged
    DEEP                         ¦ logged
  )"))
    for (const char* app : {"claude", "cursor", "copilot"}) {
      if (row[1] == "an event" && app != std::string("claude"))
        continue;  // answered in its own dialect, below
      std::string input = std::regex_replace(row[0], std::regex("INVALID"), "\xff");
      if (row[0] == "DEEP") input.assign(100'000, '[');
      const std::size_t before = logged();
      const auto result = sandbox.run({"--app", app}, input);
      EXPECT_EQ(result.output + result.error, open) << row[0];
      EXPECT_EQ(result.status, 0) << row[0];
      ASSERT_EQ(logged() - before, row[1] == "logged") << row[0];
    }
  const Json::Object line = jsonLines(sandbox.diagnostics()).back();
  EXPECT_EQ(line.text("message"), malformed);
  EXPECT_EQ(line.text("level") + line.text("category") + line.text("subsystem"), "errorhookdev.obrisk.setup");
}

TEST_F(EndToEnd, ScansItsArguments) {
  const std::string cursor = R"({"permission":"allow"})", copilot = R"({"permissionDecision":"allow"})";
  for (const auto& row : rows(R"(
    ∅                                ¦ claude
    --app cursor                     ¦ cursor
    --app copilot                    ¦ copilot
    --app claude                     ¦ claude
    --app Cursor                     ¦ claude
    --app cursor --app claude        ¦ claude
    --app                            ¦ claude
    --unknown --app cursor rest      ¦ cursor
    --profile --app cursor           ¦ claude
    --profile x --app copilot --profile ¦ copilot
    --help --app cursor              ¦ cursor
  )")) {
    const auto result = sandbox.run(words(row[0]), std::string("{}"));
    EXPECT_EQ(result.output, row[1] == "cursor" ? cursor : row[1] == "copilot" ? copilot : open) << row[0];
    EXPECT_EQ(result.status, 0);
  }
  const std::string usage = sandbox.run({"--help"}, std::string("{}")).output;
  EXPECT_TRUE(
      usage.starts_with("Usage: quib-hook [--app claude|cursor|copilot] [--profile NAME] < event.json\n"))
      << usage;
  EXPECT_TRUE(sandbox.run({"--version"}, std::string("{}")).output.starts_with("quib-hook "));
}

// The path that is installed is the executable's, however it was started. The last installer wins, and
// standard input is not read.
TEST_F(EndToEnd, InstallsItsOwnPath) {
  const std::filesystem::path hook = QUIB_HOOK_EXECUTABLE;
  std::filesystem::create_directory(sandbox.project() + "/quib-hook");
  std::filesystem::create_symlink(hook, sandbox.project() + "/link");
  const std::string file = sandbox.home() + "/.copilot/hooks/obrisk.json";
  for (const std::string& start : {"PATH='" + hook.parent_path().string() + "'; quib-hook",
                                   std::string("./link"), std::string("\"$hook\"")}) {
    const std::string command =
        "echo unread >in; { " + start + " --install-cursor --install-copilot; /bin/cat; } <in";
    EXPECT_EQ(shell(command), "{\"installed\":true}unread\n") << start;
    EXPECT_FALSE(Files::exists(sandbox.home() + "/.cursor"));
    const std::string installed = std::regex_replace(contentOf(file), std::regex(R"(\\/)"), "/");
    EXPECT_NE(installed.find("\"'" + std::filesystem::canonical(hook).string() + "' --app copilot"),
              installed.npos)
        << start << ": " << installed;
    Files::remove(file);
  }
}

TEST_F(EndToEnd, SurvivesBrokenStandardStreams) {
  for (const auto& row : rows(R"(
    echo "$event" | "$hook" >/dev/full                                    ¦ =0
    echo "$event" | "$hook" >&-                                           ¦ =0
    mkfifo f; { read x <f; echo "$event" | "$hook"; echo $? >s; } | { exec <&-; echo >f; }; cat s ¦ 0=0
    "$hook" <&-                                                           ¦ {"continue":true}=0
    "$hook" </                                                            ¦ {"continue":true}=0
    "$hook" <&- >&- 2>&-                                                  ¦ =0
    echo x | "$hook" >&- 2>&-                                             ¦ =0
    echo "$event" | dd bs=1 2>&- | "$hook" --app cursor                   ¦ {"permission":"allow"}=0
  )")) {
    const std::string output = shell(R"(event='{"hook_event_name":"Stop"}'; )" + row[0] + "; echo \"=$?\"");
    EXPECT_EQ(std::regex_replace(output, std::regex("\n"), ""), row[1]) << row[0];
    for (const Json::Object& line : jsonLines(sandbox.diagnostics()))
      EXPECT_EQ(line.text("message"), malformed) << row[0];
  }
}

TEST_F(EndToEnd, ReadsAHugeEventInBoundedMemory) {
  const std::string in = sandbox.root() + "/in", out = sandbox.root() + "/out", err = sandbox.root() + "/err";
  sandbox.write(in, R"({"hook_event_name":"PostToolUse","tool_input":{"content":")" +
                        std::string(100'000'000, 'x') + "\"}}");
  const pid_t child = sandbox.start({}, in, out, err);
  int status = 0;
  rusage used{};
  ::wait4(child, &status, 0, &used);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(contentOf(out), open);
#ifndef __SANITIZE_ADDRESS__
  EXPECT_LT(used.ru_maxrss, 400'000) << "kilobytes";
#endif
}

TEST_F(EndToEnd, ASessionOfOneProcessForEachEvent) {
  const std::string life = R"(
    == a session of %1 ¦ %1 ¦ given none
    > SessionStart {cwd:"@project",model:"m"} ¦ runs/%2 {…} %3/steps 0 session_start kitu {…} record {…}
    > PostToolUse {tool_name:"Write",tool_input:{file_path:"/p/a"}}
      %3/spans {…} %3/steps 1 tool_use:Write kist {…} record {modified_files:["/p/a"],span_count:2}
    > PreToolUse {tool_name:"Bash",tool_input:{command:"rm -rf /"}}
      deny Obrisk guard: Blocked command pattern: rm -rf /
      %3/steps 2 deny by destructive_command of Bash: Blocked command pattern: rm -rf / record {span_count:3}
    > PreToolUse {tool_name:"Bash",tool_input:{command:"git push origin main"}}
      ask Obrisk: Push to protected branch 'main' — confirm?
      %3/steps 3 ask by git_safety of Bash: Push to protected branch 'main' — confirm?%4 record {span_count:4}
    > SubagentStart {agent_id:"a"} ¦ %3/steps 4 subagent_start {…} record {pending_subagent_spans:{…},
      span_count:5}
    > SubagentStop {agent_id:"a"} ¦ %3/spans {…} %3/steps 5 subagent_stop {…}
      record {pending_subagent_spans:{},span_count:7}
    file @root/t {type:"assistant",timestamp:"@now",message:{id:"m1",usage:{input_tokens:1}}}␊
    > Stop {transcript_path:"@root/t"} ¦ %3/llm-calls {…}%4 %3/steps 7 stop {…})";
  playEach(life + R"( record {…}
    > Stop {transcript_path:"@root/t"} ¦ %3/steps 8 stop {…} record {…}
    > SessionEnd {} ¦ %3/steps 9 stop {…} record {…})",
           "daily ¦ daily ¦ daily-1 ¦ ␠policy-check {…}");
  playEach(life + R"( %3/complete {…} record none
    > Stop {transcript_path:"@root/t"} ¦ runs/start {…} run-2/steps 0 session_start kitu {…}
      run-2/llm-calls {…} run-2/steps 1 stop {…} run-2/complete {…}
    > SessionEnd {})",
           "own ¦ start ¦ run-1 ¦ ∅");
  EXPECT_EQ(logged(), 0u);
}

TEST_F(EndToEnd, AllRequestsOfAnEventShareOneConnection) {
  sandbox.configure(plane.url(), "reviewer");
  sandbox.write(sandbox.root() + "/t", transcriptOf(1));
  sandbox.run({}, event("Stop", {{"transcript_path", sandbox.root() + "/t"}}));
  EXPECT_EQ(plane.requests().size(), 5u);
  EXPECT_EQ(plane.connections(), 1);
}

TEST_F(EndToEnd, ManyAtOnceAndKilledAtAnyInstantTearNoFile) {
  constexpr int atOnce = 32, kills = 150;  // quib-hook-soak kills two thousand
  sandbox.configure(plane.url());
  ASSERT_FALSE(SessionStore::save(started()));
  const std::string input = sandbox.root() + "/event", null = "/dev/null";
  sandbox.write(input, Json(event("PostToolUse", {{"tool_name", "Bash"}})).compact());
  std::mt19937 random(1);
  for (int round = 0; round < kills / atOnce + 1; ++round) {
    std::vector<pid_t> children;
    for (int child = 0; child < atOnce; ++child)
      children.push_back(sandbox.start({}, input, null, null));
    for (const pid_t child : children) {
      ::usleep(random() % 3000);
      if (round > 0) ::kill(child, SIGKILL);
      EXPECT_TRUE(SessionStore::load("s"));
    }
    for (const pid_t child : children)
      ::waitpid(child, nullptr, 0);
    ASSERT_TRUE(SessionStore::load("s")) << "round " << round;
  }
  EXPECT_FALSE(jsonLines(sandbox.activityLog()).empty()) << "and each of its lines is one object";
  for (const std::string& name : Sandbox::tree(sandbox.state()))
    EXPECT_TRUE(name == "s.json" || !name.ends_with(".json")) << name;
}

}  // namespace
