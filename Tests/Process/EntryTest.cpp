// The executable as an agent starts it, without a control plane.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <filesystem>

#include "Hook/Handlers/Outcome.h"
#include "Platform/Files.h"
#include "Platform/Process.h"
#include "Tests/Support/Sandbox.h"

namespace {

constexpr const char* open = R"({"continue":true})";

TEST(Outcome, RendersForClaudeCode) {
  EXPECT_EQ(renderJSON(Allow{}), open);
  EXPECT_EQ(
      renderJSON(Ask{"PreToolUse", "y"}),
      R"({"hookSpecificOutput":{"additionalContext":"y","hookEventName":"PreToolUse","permissionDecision":"ask"}})");
  EXPECT_EQ(renderJSON(Deny{"PreToolUse", "a/\"x\"\n"}),
            R"({"hookSpecificOutput":{"hookEventName":"PreToolUse","permissionDecision":"deny",)"
            R"("permissionDecisionReason":"a\/\"x\"\n"}})");
}

TEST(Entry, FallsOpenOnWhatItCannotUnderstand) {
  struct Row {
    const char* name;
    std::string input;
    bool logged;
  };
  const Row rows[] = {
      {"nothing", "", false},
      {"an event", R"({"hook_event_name":"Stop"})", false},
      {"an event without a name", "{}", false},
      {"a name that is no string", R"({"hook_event_name":["Stop"]})", false},
      {"white space", " \n", true},
      {"an array", R"([{"hook_event_name":"Stop"}])", true},
      {"a fragment", "\"Stop\"", true},
      {"half an object", R"({"hook_event_name":"Stop")", true},
      {"two objects", "{}{}", true},
      {"bytes that are not UTF-8", "{\"a\":\"\xff\"}", true},
      {"a NUL", std::string("{}\0", 3), true},
      {"deep nesting", std::string(100'000, '['), true},
  };
  for (const char* app : {"claude", "cursor", "copilot"})
    for (const Row& row : rows) {
      if (!row.logged && !row.input.empty() && app != std::string("claude"))
        continue;  // answered in the agent's own dialect, below
      Sandbox sandbox;
      auto result = sandbox.run({"--app", app}, row.input);
      EXPECT_EQ(result.output, open) << row.name;
      EXPECT_EQ(result.error, "") << row.name;
      EXPECT_EQ(result.status, 0) << row.name;
      auto log = jsonLines(sandbox.diagnostics());
      ASSERT_EQ(log.size(), row.logged ? 1u : 0u) << row.name;
      if (row.logged) {
        EXPECT_EQ(log[0].text("message"), "hook: malformed stdin JSON, falling open");
        EXPECT_EQ(log[0].text("level") + log[0].text("category") + log[0].text("subsystem"),
                  "errorhookdev.obrisk.setup");
      }
    }
}

TEST(Entry, ReadsWhateverTheJSONLibraryIsTold) {
  Sandbox sandbox;
  sandbox.set("SIMDJSON_FORCE_IMPLEMENTATION", "none");
  EXPECT_EQ(sandbox.run({}, R"({"hook_event_name":"Stop"})").output, open);
  EXPECT_TRUE(jsonLines(sandbox.diagnostics()).empty());
}

TEST(Entry, ScansItsArguments) {
  using Arguments = std::vector<std::string>;
  const std::string claude = open, cursor = R"({"permission":"allow"})",
                    copilot = R"({"permissionDecision":"allow"})";
  const std::pair<Arguments, std::string> rows[] = {
      {{}, claude},
      {{"--app", "cursor"}, cursor},
      {{"--app", "copilot"}, copilot},
      {{"--app", "Cursor"}, claude},
      {{"--app", "cursor", "--app", "claude"}, claude},
      {{"--app"}, claude},
      {{"--unknown", "--app", "cursor", "rest"}, cursor},
      {{"--profile", "--app", "cursor"}, claude},
      {{"--profile", "x", "--app", "copilot", "--profile"}, copilot},
      {{"--help", "--app", "cursor"}, cursor},
  };
  for (const auto& [arguments, output] : rows) {
    Sandbox sandbox;
    auto result = sandbox.run(arguments, "{}");
    EXPECT_EQ(result.output, output) << testing::PrintToString(arguments);
    EXPECT_EQ(result.status, 0);
  }
}

TEST(Entry, TheLastInstallerWinsAndInputIsNotRead) {
  Sandbox sandbox;
  std::filesystem::create_directory(sandbox.project() + "/quib-hook");
  auto hook = Process::run(
      "/bin/sh",
      {"-c", "cd '" + sandbox.project() + "'; PATH='" +
                 std::string(QUIB_HOOK_EXECUTABLE).substr(0, std::string(QUIB_HOOK_EXECUTABLE).rfind('/')) +
                 "'; quib-hook --install-cursor --install-copilot"});
  EXPECT_EQ(hook, R"({"installed":true})");
  EXPECT_FALSE(Files::exists(sandbox.home() + "/.cursor"));
  EXPECT_NE(contentOf(sandbox.home() + "/.copilot/hooks/obrisk.json").find("\\/quib-hook' --app copilot"),
            std::string::npos);
  EXPECT_EQ(contentOf(sandbox.home() + "/.copilot/hooks/obrisk.json").find(sandbox.project()),
            std::string::npos)
      << "a directory of the executable's name is not the executable";
}

TEST(Entry, SaysWhatItIs) {
  Sandbox sandbox;
  EXPECT_TRUE(sandbox.run({"--help"}, "{}").output.starts_with("Usage: quib-hook"));
  EXPECT_TRUE(sandbox.run({"--version"}, "{}").output.starts_with("quib-hook "));
}

TEST(Entry, SurvivesBrokenStandardStreams) {
  const std::string hook = QUIB_HOOK_EXECUTABLE, event = R"(echo '{"hook_event_name":"Stop"}' | )";
  struct Row {
    const char* name;
    std::string command;
    std::string output;  // the answer, where there is one, and the status
  };
  const Row rows[] = {
      {"a full output", event + "'" + hook + "' >/dev/full", "=0\n"},
      {"a closed output", event + "'" + hook + "' >&-", "=0\n"},
      {"an output nobody reads", event + "{ sleep 0.2; '" + hook + "'; echo $? >status; } | true; cat status",
       "0\n=0\n"},
      {"a closed input", "'" + hook + "' <&-", std::string(open) + "=0\n"},
      {"a directory as input", "'" + hook + "' </", std::string(open) + "=0\n"},
      {"everything closed", "'" + hook + "' <&- >&- 2>&-", "=0\n"},
      {"malformed input with everything closed", "echo x | '" + hook + "' >&- 2>&-", "=0\n"},
  };
  for (const Row& row : rows) {
    Sandbox sandbox;
    auto output =
        Process::run("/bin/sh", {"-c", "cd '" + sandbox.project() + "'; " + row.command + "; echo \"=$?\""});
    EXPECT_EQ(output, row.output) << row.name;
    for (const Json::Object& line : jsonLines(sandbox.diagnostics()))
      EXPECT_EQ(line.text("message"), "hook: malformed stdin JSON, falling open") << row.name;
  }
}

TEST(Entry, ReadsAHugeEventInBoundedMemory) {
  Sandbox sandbox;
  std::string input = R"({"hook_event_name":"PostToolUse","tool_input":{"content":")" +
                      std::string(100'000'000, 'x') + "\"}}";
  sandbox.write(sandbox.root() + "/input", input);
  pid_t child =
      sandbox.start({}, sandbox.root() + "/input", sandbox.root() + "/out", sandbox.root() + "/err");
  int status = 0;
  rusage used{};
  ::wait4(child, &status, 0, &used);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(contentOf(sandbox.root() + "/out"), open);
#ifndef __SANITIZE_ADDRESS__
  EXPECT_LT(used.ru_maxrss, 400'000) << "kilobytes";
#endif
}

}  // namespace
