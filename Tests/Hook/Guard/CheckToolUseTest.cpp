#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "Hook/Guard/RuleEvaluator.h"
#include "Tests/Support/Repeated.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"
#include "Tests/Support/Verdicts.h"

namespace {

std::string check(const std::string& tool, const Json::Object& input,
                  const GuardConfig& config = GuardConfig::defaults(), const std::string& cwd = "/proj") {
  return described(RuleEvaluator::checkToolUse(tool, input, config, cwd));
}

double computedSeconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

TEST(CheckToolUse, RunsTheChecksOfTheTool) {
  for (const auto& row : rows(R"(
      Bash     ¦ "command": "rm -rf /"         ¦ block destructive_command: Blocked command pattern: rm -rf /
      Bash     ¦ "command": "git reset --hard" ¦ block git_safety: git reset --hard blocked: git reset --hard
      Bash     ¦ "command": "git push main; rm -rf x" ¦ warn destructive_command
      Bash     ¦                               ¦ allow :␠
      Bash     ¦ "command": ["rm -rf /"]       ¦ allow :␠
      Bash     ¦ "url": "http://localhost", "file_path": ".env" ¦ allow :␠
      Write    ¦ "file_path": ".env"           ¦ block file_protection: Write to protected file blocked: .env
      Edit     ¦ "file_path": ".env"           ¦ block file_protection: Write to protected file blocked: .env
      Write    ¦ "file_path": ".github/.env"   ¦ block file_protection
      Edit     ¦ "file_path": "Makefile"       ¦ warn infra_protection: Write to infrastructure file: Makefile
      Write    ¦ "file_path": "/x"             ¦ allow :␠
      Read     ¦ "file_path": "/x/.env"        ¦ allow :␠
      WebFetch ¦ "url": "http://localhost"     ¦ block network_access
      bash     ¦ "command": "rm -rf /"         ¦ allow :␠
      Glob     ¦ "command": "rm -rf /", "file_path": ".env" ¦ allow :␠
               ¦ "command": "rm -rf /"         ¦ allow :␠
      )")) {
    const std::string verdict = check(row[0], parsed("{" + row[1] + "}"));
    EXPECT_TRUE(verdict.starts_with(row[2])) << row[0] << " " << row[1] << " " << verdict;
  }
}

TEST(CheckToolUse, ChecksTheBoundaryLastAndOnlyWhereItIsEnabled) {
  GuardConfig config = GuardConfig::defaults();
  config.path_boundary_enabled = true;
  for (const auto& row : rows(R"(
      Write ¦ /x        ¦ /proj ¦ block path_boundary: Write outside project directory blocked: /x (cwd: /proj)
      Write ¦ /x.lock   ¦ /proj ¦ warn file_protection: Write to sensitive file: /x.lock (matched: *.lock)
      Write ¦ /Makefile ¦ /proj ¦ warn infra_protection: Write to infrastructure file: /Makefile (matched: Makefile)
      Write ¦ /proj/x   ¦ /proj ¦ allow :␠
      Write ¦ /x        ¦       ¦ allow :␠
      Read  ¦ /x        ¦ /proj ¦ allow :␠
      )"))
    EXPECT_EQ(check(row[0], {{"file_path", row[1]}}, config, row[2]), row[3]);
}

TEST(CheckToolUse, AnswersInBoundedTimeAndObjectsToWhatItCannotCheck) {
  struct Row {
    std::string tool, member, text, action;
    std::vector<std::string> GuardConfig::*list = nullptr;
    std::vector<std::string> entries = {};
  };
  const std::string word(100'000, 'a');
  const Row table[] = {
      {"Bash", "command", repeated("git push main ", 75'000) + "-fx", "block"},
      {"Bash", "command", repeated("a", 40) + "!", "warn", &GuardConfig::warn_command_patterns,
       std::vector<std::string>(10'000, "(a+)+$")},
      {"Bash", "command", "git push" + repeated(" aaaaaaaa", 100'000), "warn",
       &GuardConfig::git_protected_branches, std::vector<std::string>(10'000, "*a*b")},
      {"Write", "file_path", "/" + repeated("a/", 500'000), "block", &GuardConfig::protected_file_patterns,
       std::vector<std::string>(10'000, "**/*a*b")},
      {"Write",
       "file_path",
       "/" + repeated(word, 10),
       "block",
       &GuardConfig::protected_file_patterns,
       {"*" + word + "b"}},
      {"WebFetch", "url", "https://" + repeated(word, 10), "block", &GuardConfig::blocked_domains,
       std::vector<std::string>(20'000, std::string(300, 'a') + "b")},
      {"Write", "file_path", "/usr/share" + repeated("/../share", 100'000), "allow"},
  };
  for (const Row& row : table) {
    GuardConfig config = GuardConfig::defaults();
    if (row.list) config.*row.list = row.entries;
    const double before = computedSeconds();
    const std::string verdict = check(row.tool, {{row.member, row.text}}, config);
    const std::string sentence = row.tool + " " + row.text.substr(0, 20);
    EXPECT_TRUE(verdict.starts_with(row.action)) << sentence << verdict.substr(0, 20);
    EXPECT_EQ(verdict.ends_with(" (takes too long to check)"), row.action != "allow") << sentence;
    EXPECT_LT(computedSeconds() - before, 3) << sentence;
  }
}

TEST(CheckToolUse, LetsNoPathGrowBeyondBoundsByItsVariables) {
  Sandbox sandbox;
  sandbox.set("QUIB_LONG", std::string(10'000, 'q'));
  const std::string path = "/" + repeated("$QUIB_LONG", 100'000);
  const double before = computedSeconds();
  EXPECT_TRUE(RuleEvaluator::normalizePath(path, "/proj") == path);
  check("Write", {{"file_path", path}});
  EXPECT_LT(computedSeconds() - before, 2);
}

}  // namespace
