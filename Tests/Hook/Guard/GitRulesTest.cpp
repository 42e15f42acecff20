#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Hook/Guard/RuleEvaluator.h"
#include "Tests/Support/Verdicts.h"

namespace {

std::string check(const std::string& command, const GuardConfig& config = GuardConfig::defaults()) {
  TimeBudget budget;
  return described(RuleEvaluator::checkGitOperation(command, config, budget));
}

std::string force(const std::string& command) {
  return "block git_safety: Force push to protected branch blocked: " + command;
}
std::string hard(const std::string& command) {
  return "block git_safety: git reset --hard blocked: " + command;
}
std::string discard(const std::string& command) {
  return "block git_safety: Destructive git operation blocked: " + command;
}
std::string configEdit(const std::string& command) {
  return "block git_safety: git config modification blocked: " + command;
}
std::string push(const std::string& branch) {
  return "warn git_safety: Push to protected branch '" + branch + "' — confirm?";
}
std::string deletion(const std::string& command) {
  return "warn git_safety: Force-deleting a branch: " + command;
}
std::string rebase(const std::string& branch) {
  return "warn git_safety: Rebasing on protected branch '" + branch + "' — confirm?";
}

TEST(GitRules, JudgesCommandsByTheDefaults) {
  using Quote = std::string (*)(const std::string&);
  struct Row {
    std::string command;
    Quote verdict = nullptr;  // null: none
    std::string named = {};   // what the message names; the command when empty
  };
  const std::vector<Row> rows = {
      {""},
      {"git"},
      {"git "},
      {"git status"},
      {"GIT push origin main"},
      {"gitx push origin main"},
      {"cd x && git push origin main"},
      {"\ngit push origin main"},  // a line feed is not trimmed
      {"git\tpush origin main"},
      {" \t git push origin main", push, "main"},
      // pushes
      {"git push --force origin main", force},
      {"git push -f origin main", force},
      {"git push origin main --force", force},
      {"git push --force-with-lease origin main", force},
      {"git push --FORCE origin main", force},
      {"git push --force origin feature/x"},
      {"git push --force origin release/2.0/x", force},
      {"git push --force origin HEAD:main"},
      {"git push --forced origin main", push, "main"},
      {"git push -fu origin main", push, "main"},
      {"git push origin main", push, "main"},
      {"git push origin release/2.0", push, "release/2.0"},
      {"git push origin release"},
      {"git push origin HEAD:main"},
      {"git push origin 'main'"},
      {"git push origin Main"},
      {"git push origin x master develop", push, "master"},
      {"git push -main"},
      {"git push\torigin\tmain"},  // only blanks part words
      {"git push  origin  main ", push, "main"},
      {"git push origin main\n"},
      {"git -C x push origin main"},
      {"git commit -m main && git push origin x", push, "main"},
      {"git checkout main"},
      // work thrown away
      {"git reset --hard", hard},
      {"  git reset --hard HEAD~1", hard},
      {"git reset --harder"},
      {"git reset --soft"},
      {"git reset HEAD --hard"},
      {"git clean -fd", discard},
      {"git clean -n -xdf", discard},
      {"git clean -n"},
      {"git clean --force", discard},
      {"git checkout .", discard},
      {"git checkout . \n", discard},
      {"git checkout . && make"},
      {"git checkout -- ."},
      {"git checkout .x"},
      {"git restore .", discard},
      {"git restore --staged ."},
      // configuration
      {"git config user.name x", configEdit},
      {"git config --list", configEdit},
      {"git configure"},
      // branches
      {"git branch -D old", deletion},
      {"git branch -d old", deletion},
      {"git branch old -D", deletion},
      {"git branch -Dx"},
      {"git branch --show-current"},
      {"git rebase main", rebase, "main"},
      {"git rebase maintenance", rebase, "main"},
      {"git rebase Main"},
      {"git rebase release/2.0"},
      {"git rebase 'release/*'", rebase, "release/*"},
      {"git rebase production develop", rebase, "develop"},
      {"git rebase topic"},
      {"git log main"},
      // the earlier step wins
      {"git push --force origin main && git reset --hard", force},
      {"git push --force origin x && git reset --hard", hard},
      {"git reset --hard && git clean -fd", hard},
      {"git clean -fd && git config x", discard},
      {"git config x && git push origin main", configEdit},
      {"git push origin main && git branch -D x", push, "main"},
      {"git branch -D x && git rebase main", deletion},
      {"git push -f origin x && git push origin main", force},
  };
  for (const Row& row : rows) {
    const std::string& named = row.named.empty() ? row.command : row.named;
    EXPECT_EQ(check(row.command), row.verdict ? row.verdict(named) : "none") << row.command;
  }
}

TEST(GitRules, FollowsTheConfiguration) {
  struct Row {
    const char* sentence;
    std::function<void(GuardConfig&)> change;
    std::string command, expected;
  };
  const auto noForce = [](GuardConfig& c) { c.git_block_force_push = false; };
  const auto noReset = [](GuardConfig& c) { c.git_block_hard_reset = false; };
  const auto noConfig = [](GuardConfig& c) { c.git_block_config_edit = false; };
  const auto branches = [](std::vector<std::string> list) {
    return [list](GuardConfig& c) { c.git_protected_branches = list; };
  };
  const std::vector<Row> rows = {
      {"a force push that is not blocked is not warned of either", noForce, "git push --force origin main",
       "none"},
      {"but one with a lease has the force option, too", noForce, "git push --force-with-lease origin main",
       "none"},
      {"a hard reset may be let pass", noReset, "git reset --hard", "none"},
      {"cleaning is blocked whatever is configured", noReset, "git clean -f", discard("git clean -f")},
      {"the configuration may be let pass", noConfig, "git config x y", "none"},
      {"and the later steps still run", noConfig, "git config x main && git rebase x", rebase("main")},
      {"no branch is protected", branches({}), "git push --force origin main", "none"},
      {"every word is tested, the command's own included", branches({"push"}), "git push origin x",
       push("push")},
      {"words are tried before entries", branches({"b", "a"}), "git push a b", push("a")},
      {"entries are tried in order for a rebase", branches({"b", "a"}), "git rebase a b", rebase("b")},
      {"a star stands for all words", branches({"*"}), "git push origin x", push("git")},
      {"an escaped star does not", branches({"\\*"}), "git push origin x", "none"},
      {"a bracket expression is known", branches({"v[0-9].*"}), "git push origin v2.1", push("v2.1")},
      {"an empty entry protects nothing", branches({""}), "git rebase x", "none"},
      {"nor is it found in a push", branches({""}), "git push  origin x", "none"},
      {"a branch beyond ASCII", branches({"größe"}), "git push origin größe", push("größe")},
  };
  for (const Row& row : rows) {
    GuardConfig config = GuardConfig::defaults();
    row.change(config);
    EXPECT_EQ(check(row.command, config), row.expected) << row.sentence;
  }
}

TEST(GitRules, QuotesTheFirstHundredCharacters) {
  const std::string command = "git reset --hard " + std::string(90, 'x');
  EXPECT_EQ(check(command), hard(command.substr(0, 100)));
}

TEST(GitRules, WarnsOfAPushThatIsMadeTooLongToTellWhetherItIsForced) {
  GuardConfig config = GuardConfig::defaults();
  config.git_block_force_push = false;
  const std::string command = "git push origin main -f" + std::string(500'000, ' ');
  EXPECT_EQ(check(command, config), "none") << "surely forced";
  const std::string hidden = "git push" + std::string(500'000, ' ') + "origin main -fx";
  EXPECT_EQ(check(hidden, config), push("main"));
}

TEST(GitRules, WarnsOfAPushWhoseBranchesCannotBeComparedInTime) {
  using namespace std::chrono_literals;
  std::string command = "git push";
  for (int i = 0; i < 100'000; ++i)
    command += " aaaaaaaa";
  GuardConfig config;
  config.git_protected_branches.assign(10'000, "*a*b");
  TimeBudget budget(100ms);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_NE(RuleEvaluator::checkGitOperation(command, config, budget), std::nullopt);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

}  // namespace
