#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Hook/Guard/RuleEvaluator.h"
#include "Tests/Support/Repeated.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Verdicts.h"

namespace {

std::string check(const std::string& tool, const Json::Object& input,
                  const GuardConfig& config = GuardConfig::defaults(), const std::string& cwd = "/proj") {
  return described(RuleEvaluator::checkToolUse(tool, input, config, cwd));
}

const std::string allowed = "allow : ";

TEST(CheckToolUse, RunsTheChecksOfTheTool) {
  struct Row {
    const char* sentence;
    std::string tool, input, expected;
  };
  const std::vector<Row> rows = {
      {"a shell command", "Bash", R"({"command": "rm -rf /"})",
       "block destructive_command: Blocked command pattern: rm -rf /"},
      {"a git command", "Bash", R"({"command": "git reset --hard"})",
       "block git_safety: git reset --hard blocked: git reset --hard"},
      {"a shell warning hides a git verdict", "Bash",
       R"({"command": "git push origin main && rm -rf build"})",
       "warn destructive_command: Potentially dangerous command: git push origin main && rm -rf build"},
      {"no command", "Bash", "{}", allowed},
      {"a command that is no string", "Bash", R"({"command": ["rm -rf /"]})", allowed},
      {"a member of another tool", "Bash", R"({"url": "http://localhost", "file_path": ".env"})", allowed},
      {"a written file", "Write", R"({"file_path": ".env"})",
       "block file_protection: Write to protected file blocked: .env (matched: .env)"},
      {"an edited file", "Edit", R"({"file_path": ".env"})",
       "block file_protection: Write to protected file blocked: .env (matched: .env)"},
      {"a protected file that is infrastructure, too", "Write", R"({"file_path": ".github/.env"})",
       "block file_protection: Write to protected file blocked: .github/.env (matched: .env)"},
      {"an infrastructure file", "Edit", R"({"file_path": "Makefile"})",
       "warn infra_protection: Write to infrastructure file: Makefile (matched: Makefile)"},
      {"a file outside of the project", "Write", R"({"file_path": "/x"})", allowed},
      {"a read file", "Read", R"({"file_path": "/x/.env"})", allowed},
      {"an address", "WebFetch", R"({"url": "http://localhost"})",
       "block network_access: Access to internal/private URL blocked: http://localhost"},
      {"a tool of another case", "bash", R"({"command": "rm -rf /"})", allowed},
      {"a tool that has no checks", "Glob", R"({"command": "rm -rf /", "file_path": ".env"})", allowed},
      {"a tool without a name", "", R"({"command": "rm -rf /"})", allowed},
  };
  for (const Row& row : rows)
    EXPECT_EQ(check(row.tool, parsed(row.input)), row.expected) << row.sentence;
}

TEST(CheckToolUse, ChecksTheBoundaryLastAndOnlyWhereItIsEnabled) {
  GuardConfig config = GuardConfig::defaults();
  config.path_boundary_enabled = true;
  const auto write = [&](const char* path, const std::string& cwd = "/proj") {
    return check("Write", {{"file_path", path}}, config, cwd);
  };
  EXPECT_EQ(write("/x"), "block path_boundary: Write outside project directory blocked: /x (cwd: /proj)");
  EXPECT_EQ(write("/x.lock"), "warn file_protection: Write to sensitive file: /x.lock (matched: *.lock)");
  EXPECT_EQ(write("/Makefile"),
            "warn infra_protection: Write to infrastructure file: /Makefile (matched: Makefile)");
  EXPECT_EQ(write("/proj/x"), allowed);
  EXPECT_EQ(write("/x", ""), allowed);
  EXPECT_EQ(check("Read", {{"file_path", "/x"}}, config), allowed);
}

TEST(CheckToolUse, AnswersInBoundedTimeAndObjectsToWhatItCannotCheck) {
  struct Row {
    const char* sentence;
    std::string tool, member, text;
    std::function<void(GuardConfig&)> change;
    std::string action;
  };
  const auto asItIs = [](GuardConfig&) {};
  const std::vector<Row> rows = {
      {"a command of as many pushes", "Bash", "command", repeated("git push main ", 75'000) + "-fx", asItIs,
       "block"},
      {"thousands of slow patterns", "Bash", "command", repeated("a", 40) + "!",
       [](GuardConfig& c) { c.warn_command_patterns.assign(10'000, "(a+)+$"); }, "warn"},
      {"thousands of globs on a long path", "Write", "file_path", "/" + repeated("a/", 500'000),
       [](GuardConfig& c) { c.protected_file_patterns.assign(10'000, "**/*a*b"); }, "block"},
      {"a path of parents", "Write", "file_path", "/usr/share" + repeated("/../share", 100'000), asItIs,
       "allow"},
  };
  for (const Row& row : rows) {
    GuardConfig config = GuardConfig::defaults();
    row.change(config);
    const auto start = std::chrono::steady_clock::now();
    const std::string verdict = check(row.tool, {{row.member, row.text}}, config);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(verdict.substr(0, verdict.find(' ')), row.action) << row.sentence;
    EXPECT_EQ(verdict.ends_with(" (takes too long to check)"), row.action != "allow") << row.sentence;
    EXPECT_LT(taken.count(), 10.0) << row.sentence;
  }
}

TEST(CheckToolUse, LetsNoPathGrowBeyondBoundsByItsVariables) {
  Sandbox sandbox;
  sandbox.set("QUIB_LONG", std::string(10'000, 'q'));
  const std::string path = "/" + repeated("$QUIB_LONG", 100'000);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(RuleEvaluator::normalizePath(path, "/proj") == path);
  check("Write", {{"file_path", path}});
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  EXPECT_LT(taken.count(), 2.0);
}

}  // namespace
