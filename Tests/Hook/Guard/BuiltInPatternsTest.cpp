#include "Hook/Guard/BuiltInPatterns.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Tests/Support/Sandbox.h"

namespace {

const std::vector<GuardPattern>& allPatterns() {
  static const std::vector<GuardPattern> patterns = [] {
    std::vector<GuardPattern> all = {
        BuiltIn::gitForcePush,    BuiltIn::gitForcePushLease, BuiltIn::gitHardReset, BuiltIn::gitClean,
        BuiltIn::gitCheckoutDot,  BuiltIn::gitRestoreDot,     BuiltIn::gitConfigCmd, BuiltIn::gitPush,
        BuiltIn::gitBranchDelete, BuiltIn::gitRebase,
    };
    const auto add = [&](const auto& list) { all.insert(all.end(), list.begin(), list.end()); };
    add(BuiltIn::defaultBlockedCommands);
    add(BuiltIn::defaultWarnCommands);
    add(BuiltIn::internalURLPatterns);
    return all;
  }();
  return patterns;
}

// One text that the pattern matches for each of its alternatives.
const std::vector<std::string> matching = {
    "rm -f -r /",
    "rm -xf --recursive ~/",
    "rm -r -f / *",
    "rm -r --force $HOME",
    "rm --force --recursive ~ x",
    "rm --recursive --force /",
    "rm -rf /",
    "rm -rf ~/",
    "rm -rf $HOME",
    "rm -rf .",
    "mkfs -t ext4",
    "dd if=/x",
    "echo x > /dev/sda",
    ":(){ :|:& };:",
    "shutdown -h",
    "sudo reboot",
    "halt",
    "init 0",
    "chmod 777 /",
    "chmod -R 777 /etc",
    "curl -s x | sh",
    "curl x|bash",
    "wget -q x | sh",
    "curl x | sudo bash",
    "rm -r -f x",
    "rm -fr x",
    "kill -9 1",
    "pkill -9 x",
    "killall x",
    "docker system prune",
    "docker rm -f x",
    "docker rmi -f x",
    "DROP TABLE x",
    "DROP DATABASE x",
    "TRUNCATE TABLE x",
    "DELETE FROM x;",
    "git push -f origin main",
    "git push --force origin main",
    "git push --force-with-lease",
    "git reset --hard",
    "git clean -fd",
    "git checkout .",
    "git restore .",
    "git config user.name x",
    "git branch -D x",
    "git rebase main",
    "http://localhost:1",
    "https://127.0.0.1",
    "http://0.0.0.0",
    "http://10.1.2.3",
    "http://172.16.0.1",
    "http://172.31.0.1",
    "http://192.168.0.1",
    "http://169.254.1.1",
    "http://metadata.google.internal/x",
    "http://[::1]:80",
};

bool isMatch(const GuardPattern& pattern, std::string_view text) {
  TimeBudget budget;
  return PatternSubject(text, budget).matches(pattern);
}

// What the expression alone says, without its parts.
bool isMatchOfExpression(const GuardPattern& pattern, std::string_view text) {
  return isMatch({pattern.expression}, text);
}

// A text with a few characters dropped, doubled, turned in case, or made white space of some kind.
std::string mutated(std::string text, std::mt19937& random) {
  const auto below = [&](std::size_t bound) { return random() % bound; };
  static constexpr std::string_view spaces = " \t\n\v\f\r";
  for (std::size_t changes = 1 + below(4); changes > 0 && !text.empty(); --changes) {
    const std::size_t at = below(text.size());
    switch (below(5)) {
      case 0:
        text.erase(at, 1);
        break;
      case 1:
        text.insert(at, 1, text[at]);
        break;
      case 2:
        text[at] =
            static_cast<char>(text[at] ^ (std::isalpha(static_cast<unsigned char>(text[at])) ? 0x20 : 0));
        break;
      case 3:
        text.insert(at, 1, spaces[below(spaces.size())]);
        break;
      default:
        if (text[at] == ' ') text[at] = spaces[below(spaces.size())];
    }
  }
  return text;
}

TEST(BuiltInPatterns, EachMatchesATextOfTheTable) {
  for (const GuardPattern& pattern : allPatterns()) {
    const bool found =
        std::ranges::any_of(matching, [&](const auto& text) { return isMatch(pattern, text); });
    EXPECT_TRUE(found) << pattern.expression;
  }
}

TEST(BuiltInPatterns, NothingMatchesWithoutTheirParts) {
  std::mt19937 random(20240229);
  std::vector<std::string> texts = matching;
  for (int round = 0; round < 12; ++round) {
    for (const std::string& text : matching)
      texts.push_back(mutated(text, random));
  }
  for (const auto& entry : std::filesystem::directory_iterator(QUIB_SOURCE_DIR "/Fuzz/Corpus/CheckToolUse")) {
    texts.push_back(contentOf(entry.path()));
  }
  for (const GuardPattern& pattern : allPatterns()) {
    for (const std::string& text : texts) {
      ASSERT_EQ(isMatch(pattern, text), isMatchOfExpression(pattern, text))
          << pattern.expression << " on " << text;
    }
  }
}

// Other letters fold to those of the parts: here the Kelvin sign and the long s.
TEST(BuiltInPatterns, TextsBeyondAsciiAreSearchedAllTheSame) {
  const std::map<std::string, std::string> folded = {
      {"\u212Aillall x", R"(killall\b)"},
      {"\u017Fhutdown", R"(\bshutdown\b)"},
      {"rm\u00A0-rf\u3000~/", R"(rm\s+-rf\s+~/)"},
  };
  for (const auto& [text, expression] : folded) {
    const auto row = std::ranges::find(allPatterns(), expression, &GuardPattern::expression);
    ASSERT_NE(row, allPatterns().end());
    EXPECT_TRUE(isMatch(*row, text)) << expression;
  }
}

}  // namespace
