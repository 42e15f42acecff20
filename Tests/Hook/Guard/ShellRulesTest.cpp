#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Hook/Guard/RuleEvaluator.h"
#include "Tests/Support/Verdicts.h"

namespace {

std::string check(const std::string& command, const GuardConfig& config = GuardConfig::defaults()) {
  TimeBudget budget;
  return described(RuleEvaluator::checkBashCommand(command, config, budget));
}

std::string blocked(const std::string& quoted) {
  return "block destructive_command: Blocked command pattern: " + quoted;
}
std::string warned(const std::string& quoted) {
  return "warn destructive_command: Potentially dangerous command: " + quoted;
}

TEST(ShellRules, JudgesCommandsByTheDefaultLists) {
  struct Row {
    std::string command;
    enum { pass, warn, block } verdict;
  };
  const std::vector<Row> rows = {
      {"", Row::pass},
      {"ls -la", Row::pass},
      // deleting from the root, the home directory or the working directory
      {"rm -rf /", Row::block},
      {"RM -RF /", Row::block},
      {"rm -rf / ", Row::block},
      {"rm -rf /\n", Row::block},
      {"rm -rf / tmp", Row::warn},
      {"rm -r -f / tmp", Row::block},
      {"rm\t-rf\t/", Row::block},
      {"rm -rf /tmp/x", Row::warn},
      {"rm -rf ~/", Row::block},
      {"rm -rf ~/x", Row::block},
      {"rm -rf ~", Row::warn},
      {"rm -r -f ~ x", Row::block},
      {"rm -rf $HOME/x", Row::block},
      {"rm -rf ${HOME}", Row::warn},
      {"rm -rf .", Row::block},
      {"rm -rf . && ls", Row::warn},
      {"rm -rf ./x", Row::warn},
      {"rm -rf build", Row::warn},
      {"rm -rfv build", Row::pass},
      {"rm -r -f /*", Row::block},
      {"rm --recursive --force /", Row::block},
      {"rm --force --recursive $HOME", Row::block},
      {"rm -f --recursive ~/", Row::block},
      {"rm -r --force / x", Row::block},
      {"rm -r build -f", Row::pass},
      {"rm -r -f build", Row::warn},
      {"rm -fr build", Row::warn},
      {"rm -f x.txt", Row::pass},
      {"npm run format -- --fix", Row::pass},
      {"alarm -rf /", Row::block},  // the word need not begin there
      {"cd x; rm -rf build", Row::warn},
      {"'rm' -rf /", Row::pass},  // quotes are not taken apart
      // disks and devices
      {"mkfs.ext4 /dev/sda1", Row::block},
      {"xmkfs", Row::pass},
      {"mkfs_old", Row::pass},
      {"dd if=/dev/zero of=x", Row::block},
      {"add if=x", Row::pass},
      {"echo x > /dev/sda", Row::block},
      {"echo x >/dev/sdb", Row::block},
      {"echo x > /dev/null", Row::pass},
      {"chmod 777 /", Row::block},
      {"chmod -R 777 /etc", Row::block},
      {"chmod 777 x", Row::pass},
      {"chmod 0777 /", Row::pass},
      // the machine
      {":(){ :|:& };:", Row::block},
      {":(){:|:&};:", Row::block},
      {"shutdown -h now", Row::block},
      {"echo shutdown_hook", Row::pass},
      {"sudo reboot", Row::block},
      {"rebooted", Row::pass},
      {"halt", Row::block},
      {"asphalt", Row::pass},
      {"init 0", Row::block},
      {"init 01", Row::pass},
      {"git init 0", Row::block},
      // scripts from the network
      {"curl -fsSL x | sh", Row::block},
      {"curl x|bash", Row::block},
      {"curl -o f x", Row::pass},
      {"curl x | jq .", Row::pass},
      {"curl x | grep y | sh", Row::pass},  // only the first pipe counts
      {"curl x | sudo bash", Row::block},
      {"curl x | shasum", Row::block},
      {"wget -q x | sh", Row::block},
      {"wget x | sudo sh", Row::pass},
      {"curl x\n| sh", Row::block},
      // processes, containers, tables
      {"kill -9 1", Row::warn},
      {"kill -95 1", Row::pass},
      {"kill 1", Row::pass},
      {"pkill -9 node", Row::warn},
      {"killall node", Row::warn},
      {"killallx", Row::pass},
      {"docker system prune -a", Row::warn},
      {"docker rm -f x", Row::warn},
      {"docker rmi -f x", Row::warn},
      {"docker rm x", Row::pass},
      {"echo 'DROP TABLE users'", Row::warn},
      {"drop schema x", Row::warn},
      {"drop tables", Row::pass},
      {"truncate table x", Row::warn},
      {"delete from users;", Row::warn},
      {"DELETE FROM users ; ", Row::warn},
      {"DELETE FROM users WHERE id = 1", Row::pass},
      {"psql -c 'DELETE FROM users'", Row::pass},  // the quote stands between the name and the end
  };
  for (const Row& row : rows) {
    const std::string expected = row.verdict == Row::pass    ? "none"
                                 : row.verdict == Row::block ? blocked(row.command)
                                                             : warned(row.command);
    EXPECT_EQ(check(row.command), expected);
  }
}

TEST(ShellRules, QuotesTheFirstHundredCharacters) {
  const std::string hundred = "rm -rf " + std::string(93, 'x');
  EXPECT_EQ(check(hundred), warned(hundred));
  EXPECT_EQ(check(hundred + "y"), warned(hundred));
  const std::string accents = "rm -rf " + std::string(92, 'x') + "e\u0301";
  EXPECT_EQ(check(accents), warned(accents));
  EXPECT_EQ(check(accents + "z"), warned(accents));
}

TEST(ShellRules, TriesConfiguredPatternsInOrder) {
  struct Row {
    const char* sentence;
    std::vector<std::string> blockedPatterns, warnPatterns;
    std::string command, expected;
  };
  const std::vector<Row> rows = {
      {"empty lists object to nothing", {}, {}, "rm -rf /", "none"},
      {"an invalid pattern is skipped", {"(", "deploy"}, {}, "deploy", blocked("deploy")},
      {"an empty pattern is skipped", {""}, {""}, "deploy", "none"},
      {"a blocked pattern goes before a warned one", {"deploy"}, {"deploy"}, "deploy", blocked("deploy")},
      {"a warned pattern alone warns", {"x"}, {"dep.*y"}, "DEPLOY", warned("DEPLOY")},
      {"a built-in text blocks from another list", {R"(killall\b)"}, {}, "killall x", blocked("killall x")},
      {"a pattern of other letters than ASCII", {"größe"}, {}, "echo GRÖSSE", blocked("echo GRÖSSE")},
      {"a pattern that matches nothing at all", {"^$"}, {}, "x", "none"},
  };
  for (const Row& row : rows) {
    GuardConfig config;
    config.blocked_command_patterns = row.blockedPatterns;
    config.warn_command_patterns = row.warnPatterns;
    EXPECT_EQ(check(row.command, config), row.expected) << row.sentence;
  }
}

TEST(ShellRules, FindsTheLastOfTenThousandPatterns) {
  GuardConfig config;
  for (int i = 0; i < 10'000; ++i) {
    config.blocked_command_patterns.push_back("never-" + std::to_string(i) + R"(\b)");
  }
  EXPECT_EQ(check("ls", config), "none");
  EXPECT_EQ(check("never-9999", config), blocked("never-9999"));
}

}  // namespace
