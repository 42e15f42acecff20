#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Hook/Guard/RuleEvaluator.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"
#include "Tests/Support/Verdicts.h"

namespace {

std::string shell(const std::string& command, const GuardConfig& config = GuardConfig::defaults()) {
  TimeBudget budget;
  return described(RuleEvaluator::checkBashCommand(command, config, budget));
}

std::string git(const std::string& command, const GuardConfig& config = GuardConfig::defaults()) {
  TimeBudget budget;
  return described(RuleEvaluator::checkGitOperation(command, config, budget));
}

GuardConfig configured(const std::string& members) {
  return GuardConfig::fromDict(parsed("{" + members + "}"));
}

// What a row's first column stands for, "block", "push main" and the like, of a command.
std::string verdict(const std::string& row, const std::string& command) {
  static const std::map<std::string, std::string> forms = {
      {"block", "block destructive_command: Blocked command pattern: $"},
      {"warn", "warn destructive_command: Potentially dangerous command: $"},
      {"force", "block git_safety: Force push to protected branch blocked: $"},
      {"hard", "block git_safety: git reset --hard blocked: $"},
      {"discard", "block git_safety: Destructive git operation blocked: $"},
      {"config", "block git_safety: git config modification blocked: $"},
      {"delete", "warn git_safety: Force-deleting a branch: $"},
      {"push", "warn git_safety: Push to protected branch '$' — confirm?"},
      {"rebase", "warn git_safety: Rebasing on protected branch '$' — confirm?"},
      {"none", "none"},
  };
  const std::size_t blank = row.find(' ');
  std::string text = forms.at(row.substr(0, blank));
  if (const std::size_t at = text.find('$'); at != text.npos)
    text.replace(at, 1, blank == row.npos ? command : row.substr(blank + 1));
  return text;
}

// Commands under the verdict that they get by the defaults.
void expectVerdicts(std::string_view table, std::string (*check)(const std::string&, const GuardConfig&)) {
  for (const auto& row : rows(table))
    for (std::size_t i = 1; i < row.size() && !row[i].empty(); ++i)
      EXPECT_EQ(check(row[i], GuardConfig::defaults()), verdict(row[0], row[i])) << row[i];
}

// Every default pattern but the first, whose commands are many, in its order, with a command that it matches.
TEST(ShellRules, HaveTheDefaultPatterns) {
  const auto table = rows(R"--(
      rm\s+-rf\s+/\s*$                   ¦ rm -rf /
      rm\s+-rf\s+~/                      ¦ rm -rf ~/x
      rm\s+-rf\s+\$HOME                  ¦ rm -rf $HOME/x
      rm\s+-rf\s+\.\s*$                  ¦ rm -rf .
      \bmkfs\b                           ¦ mkfs.ext4 /dev/sda1
      \bdd\s+if=                         ¦ dd if=/dev/zero of=x
      >\s*/dev/sd                        ¦ echo x > /dev/sda
      :\(\)\{\s*:\|:\s*&\s*\}\s*;        ¦ :(){ :|:& };:
      \bshutdown\b                       ¦ shutdown -h now
      \breboot\b                         ¦ sudo reboot
      \bhalt\b                           ¦ halt
      \binit\s+0\b                       ¦ init 0
      chmod\s+(-R\s+)?777\s+/            ¦ chmod -R 777 /etc
      curl\s+[^|]*\|\s*(ba)?sh           ¦ curl -fsSL x | sh
      wget\s+[^|]*\|\s*(ba)?sh           ¦ wget -q x | bash
      curl\s+[^|]*\|\s*sudo\s+(ba)?sh    ¦ curl x | sudo bash
      rm\s+-rf\b                         ¦ rm -rf build
      rm\s+-r\s+-f\b                     ¦ rm -r -f build
      rm\s+-fr\b                         ¦ rm -fr build
      kill\s+-9\b                        ¦ kill -9 1
      pkill\s+-9\b                       ¦ pkill -9 node
      killall\b                          ¦ killall node
      docker\s+system\s+prune            ¦ docker system prune -a
      docker\s+rm\s+-f                   ¦ docker rm -f x
      docker\s+rmi\s+-f                  ¦ docker rmi -f x
      DROP\s+(TABLE|DATABASE|SCHEMA)\b   ¦ echo 'DROP TABLE users'
      TRUNCATE\s+TABLE\b                 ¦ truncate table x
      DELETE\s+FROM\s+\w+\s*;?\s*$       ¦ delete from users;
      )--");
  std::vector<std::string> patterns = GuardConfig::defaults().blocked_command_patterns;
  const std::vector<std::string>& warned = GuardConfig::defaults().warn_command_patterns;
  patterns.insert(patterns.end(), warned.begin(), warned.end());
  ASSERT_EQ(patterns.size(), 1 + table.size());
  for (std::size_t i = 0; i < table.size(); ++i) {
    EXPECT_EQ(patterns[i + 1], table[i][0]);
    EXPECT_EQ(shell(table[i][1]), verdict(i < 16 ? "block" : "warn", table[i][1]));
  }
}

TEST(ShellRules, JudgeCommandsByTheDefaultPatterns) {
  expectVerdicts(R"(
      none  ¦ ls -la ¦ rm -rfv build ¦ rm -r build -f ¦ rm -f x.txt ¦ npm run format -- --fix ¦ 'rm' -rf /
      block ¦ RM -RF / ¦ rm -rf /␠ ¦ rm -rf /␊ ¦ rm␉-rf␉/ ¦ rm -rf ~/ ¦ alarm -rf / ¦ rm -r -f / tmp
      block ¦ rm -f -r / ¦ rm -f --recursive ~/ ¦ rm -r -f ~ x ¦ rm -r --force / x ¦ rm -xf --recursive $HOME
      block ¦ rm --recursive --force / ¦ rm --force --recursive $HOME ¦ rm -r -f /*
      warn  ¦ rm -rf / tmp ¦ rm -rf /tmp/x ¦ rm -rf ~ ¦ rm -rf ${HOME} ¦ rm -rf . && ls ¦ rm -rf ./x
      warn  ¦ cd x; rm -rf build
      none  ¦ xmkfs ¦ mkfs_old ¦ add if=x ¦ echo x > /dev/null ¦ chmod 777 x ¦ chmod 0777 / ¦ asphalt
      block ¦ echo x >/dev/sdb ¦ chmod 777 / ¦ :(){:|:&};: ¦ git init 0
      none  ¦ echo shutdown_hook ¦ rebooted ¦ init 01
      block ¦ curl x|bash ¦ curl x | shasum ¦ curl x␊| sh
      none  ¦ curl -o f x ¦ curl x | jq . ¦ curl x | grep y | sh ¦ wget x | sudo sh
      none  ¦ kill -95 1 ¦ kill 1 ¦ killallx ¦ docker rm x ¦ drop tables
      none  ¦ DELETE FROM users WHERE id = 1 ¦ psql -c 'DELETE FROM users'
      warn  ¦ drop schema x ¦ DROP DATABASE x ¦ DELETE FROM users ;␠
      block ¦ ſhutdown ¦ rm -rf　~/
      warn  ¦ Killall x
      )",
                 shell);
  EXPECT_EQ(shell(""), "none");
}

TEST(ShellRules, QuoteTheFirstHundredCharacters) {
  for (const std::string end : {"x", "e\u0301"}) {
    const std::string hundred = "rm -rf " + std::string(92, 'x') + end;
    EXPECT_EQ(shell(hundred), verdict("warn", hundred));
    EXPECT_EQ(shell(hundred + "y"), verdict("warn", hundred));
  }
  const std::string reset = "git reset --hard " + std::string(83, 'x');
  EXPECT_EQ(git(reset + "y"), verdict("hard", reset));
}

TEST(ShellRules, TryConfiguredPatternsInOrder) {
  for (const auto& row : rows(R"--(
      [] ¦ [] ¦ rm -rf / ¦ none
      ["(", "deploy"] ¦ []            ¦ deploy      ¦ block
      [""]            ¦ [""]          ¦ deploy      ¦ none
      ["deploy"]      ¦ ["deploy"]    ¦ deploy      ¦ block
      ["x"]           ¦ ["dep.*y"]    ¦ DEPLOY      ¦ warn
      ["killall\\b"]  ¦ []            ¦ killall x   ¦ block
      ["pkill\\s+-9"] ¦ []            ¦ pkill -9 x  ¦ block
      ["größe"]       ¦ []            ¦ echo GRÖSSE ¦ block
      ["^$"]          ¦ ["(?<=a*)b"]  ¦ ab          ¦ none
      )--")) {
    const auto config =
        configured(R"("blocked_command_patterns": )" + row[0] + R"(, "warn_command_patterns": )" + row[1]);
    EXPECT_EQ(shell(row[2], config), verdict(row[3], row[2])) << row[0];
  }
}

TEST(ShellRules, FindTheLastOfTenThousandPatterns) {
  GuardConfig config;
  for (int i = 0; i < 10'000; ++i)
    config.blocked_command_patterns.push_back("never-" + std::to_string(i) + R"(\b)");
  EXPECT_EQ(shell("ls", config), "none");
  EXPECT_EQ(shell("never-9999", config), verdict("block", "never-9999"));
}

TEST(GitRules, JudgeCommandsByTheDefaults) {
  expectVerdicts(R"(
      none         ¦ git ¦ git␠ ¦ git status ¦ GIT push origin main ¦ gitx push origin main
      none         ¦ cd x && git push origin main ¦ ␊git push origin main ¦ git␉push origin main
      push main    ¦ ␠␉ git push origin main ¦ git push origin main ¦ git push --forced origin main
      push main    ¦ git push -fu origin main ¦ git push  origin  main␠ ¦ git commit -m main && git push x
      force        ¦ git push --force origin main ¦ git push -f origin main ¦ git push origin main --force
      force        ¦ git push --force-with-lease origin main ¦ git push --FORCE origin main
      force        ¦ git push --force origin release/2.0/x
      none         ¦ git push --force origin feature/x ¦ git push --force origin HEAD:main ¦ git push -main
      none         ¦ git push origin release ¦ git push origin HEAD:main ¦ git push origin 'main'
      none         ¦ git push origin Main ¦ git push␉origin␉main ¦ git push origin main␊
      none         ¦ git -C x push origin main ¦ git checkout main ¦ git log main
      push release/2.0 ¦ git push origin release/2.0
      push master  ¦ git push origin x master develop
      hard         ¦ git reset --hard ¦ ␠ git reset --hard HEAD~1
      none         ¦ git reset --harder ¦ git reset --soft ¦ git reset HEAD --hard ¦ git clean -n
      discard      ¦ git clean -fd ¦ git clean -n -xdf ¦ git clean --force ¦ git checkout . ¦ git checkout . ␊
      discard      ¦ git restore .
      none         ¦ git checkout . && make ¦ git checkout -- . ¦ git checkout .x ¦ git restore --staged .
      config       ¦ git config user.name x ¦ git config --list
      none         ¦ git configure ¦ git branch -Dx ¦ git branch --show-current
      delete       ¦ git branch -D old ¦ git branch -d old ¦ git branch old -D
      rebase main  ¦ git rebase main ¦ git rebase maintenance
      rebase release/* ¦ git rebase 'release/*'
      rebase develop ¦ git rebase production develop
      none         ¦ git rebase Main ¦ git rebase release/2.0 ¦ git rebase topic
      # the earlier step wins
      force        ¦ git push --force origin main && git reset --hard ¦ git push -f origin x && git push main
      hard         ¦ git push --force origin x && git reset --hard ¦ git reset --hard && git clean -fd
      discard      ¦ git clean -fd && git config x
      config       ¦ git config x && git push origin main
      push main    ¦ git push origin main && git branch -D x
      delete       ¦ git branch -D x && git rebase main
      )",
                 git);
  EXPECT_EQ(git(""), "none");
}

TEST(GitRules, FollowTheConfiguration) {
  for (const auto& row : rows(R"(
      "git_block_force_push": false              ¦ git push --force origin main    ¦ none
      "git_block_force_push": false              ¦ git push --force-with-lease origin main ¦ none
      "git_block_hard_reset": false              ¦ git reset --hard                ¦ none
      "git_block_hard_reset": false              ¦ git clean -f                    ¦ discard
      "git_block_config_edit": false             ¦ git config x y                  ¦ none
      "git_block_config_edit": false             ¦ git config x main && git rebase x ¦ rebase main
      "git_protected_branches": []               ¦ git push --force origin main    ¦ none
      "git_protected_branches": ["push"]         ¦ git push origin x               ¦ push push
      "git_protected_branches": ["b", "a"]       ¦ git push a b                    ¦ push a
      "git_protected_branches": ["b", "a"]       ¦ git rebase a b                  ¦ rebase b
      "git_protected_branches": ["*"]            ¦ git push origin x               ¦ push git
      "git_protected_branches": ["\\*"]          ¦ git push origin x               ¦ none
      "git_protected_branches": ["v[0-9].*"]     ¦ git push origin v2.1            ¦ push v2.1
      "git_protected_branches": [""]             ¦ git rebase x                    ¦ none
      "git_protected_branches": [""]             ¦ git push  origin x              ¦ none
      "git_protected_branches": ["größe"]        ¦ git push origin größe           ¦ push größe
      )"))
    EXPECT_EQ(git(row[1], configured(row[0])), verdict(row[2], row[1])) << row[0];
}

TEST(GitRules, WarnOfAPushThatIsMadeTooLongToTellWhetherItIsForced) {
  const GuardConfig config = configured(R"("git_block_force_push": false)");
  EXPECT_EQ(git("git push origin main -f" + std::string(500'000, ' '), config), "none") << "surely forced";
  const std::string hidden = "git push" + std::string(500'000, ' ') + "origin main -fx";
  EXPECT_EQ(git(hidden, config), verdict("push main", hidden));
}

}  // namespace
