#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include "Platform/Regex.h"
#include "Tests/Support/Repeated.h"

namespace {

using namespace std::chrono_literals;
using Regex::Case;

std::optional<bool> search(std::string_view pattern, std::string_view text, Case letterCase = Case::ignored) {
  TimeBudget budget;
  return Regex::search(pattern, letterCase, RegexSubject(text), budget);
}

TEST(Regex, MindsCaseWhenAsked) {
  EXPECT_EQ(search("readme", "README", Case::significant), false);
  EXPECT_EQ(search("README", "README", Case::significant), true);
  EXPECT_EQ(search("stra\u00DFe", "STRASSE"), true);
}

TEST(Regex, ReadsEveryText) {
  EXPECT_EQ(search(R"(a\x00b)", std::string("a\0b", 3)), true);
  EXPECT_EQ(search("\uFFFD", "a\xFF"), true) << "an ill-formed byte";
  EXPECT_EQ(search("^$", ""), true);
  EXPECT_EQ(search("(", "("), false);
  EXPECT_EQ(search("", "a"), false);
}

TEST(Regex, GivesNoAnswerWhereNoneComesInTime) {
  const std::string longLine(1'000'000, 'a');
  const std::pair<std::string, std::string> searches[] = {
      {"(a+)+$", repeated("a", 40) + "!"},                          // exponential time
      {R"(curl\s+[^|]*\|\s*(ba)?sh)", repeated("curl ", 200'000)},  // square time
      {R"(git\s+push\s+.*?(--force|-f)\b)", repeated("git push ", 110'000)},
      {"(a|b)*c", longLine},           // exhausts the matcher's stack
      {"(?:(?=[^|]*)a)*b", longLine},  // few steps, each of them slow
      {R"((a*)(?:)" + repeated(R"((?=\1))", 60) + "a?)*b", longLine.substr(0, 30'000)},
      {repeated(R"([\W])", 20'000), "a"},  // takes long to compile
      {repeated("(a)*", 100'000) + "!", "a"},
  };
  for (const auto& [pattern, text] : searches) {
    TimeBudget budget(100ms);
    const std::clock_t before = std::clock();
    const RegexSubject subject(text);
    EXPECT_EQ(Regex::search(pattern, Case::ignored, subject, budget), std::nullopt) << pattern.substr(0, 20);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC) << pattern.substr(0, 20);
  }
}

TEST(Regex, AnswersForLongTextsWhatItAnswersForShortOnes) {
  const std::string padding = repeated("echo hello\n", 100'000);
  EXPECT_EQ(search(R"(\bmkfs\b)", padding), false);
  EXPECT_EQ(search(R"(\bmkfs\b)", padding + "mkfs /dev/sda"), true);
  EXPECT_EQ(search("(", padding), false);
}

TEST(Regex, TriesNothingOnceTheBudgetIsSpent) {
  TimeBudget budget(0ms);
  EXPECT_TRUE(budget.spent());
  EXPECT_EQ(Regex::search("a", Case::ignored, RegexSubject("b"), budget), std::nullopt);
}

TEST(TimeBudget, HandsOnTheChildsAnswer) {
  TimeBudget budget;
  EXPECT_EQ(budget.ask([] { return true; }), true);
  EXPECT_EQ(budget.ask([] { return false; }), false);
  EXPECT_EQ(budget.ask([] { return std::nullopt; }), std::nullopt);
  const auto die = []() -> std::optional<bool> { return ::raise(SIGKILL) == 0; };
  EXPECT_EQ(budget.ask(die), std::nullopt);
  EXPECT_FALSE(budget.spent());
}

TEST(TimeBudget, EndsAChildThatComputesWithoutEnd) {
  TimeBudget budget(50ms);
  const auto forever = []() -> std::optional<bool> {
    for (;;)
      static_cast<void>(::getppid());
  };
  EXPECT_EQ(budget.ask(forever), std::nullopt);
  EXPECT_TRUE(budget.spent());
  EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "no child is left behind";
}

TEST(TimeBudget, CountsNoWaiting) {
  TimeBudget budget(50ms);
  const auto wait = []() -> std::optional<bool> { return ::usleep(100'000) == 0; };
  EXPECT_EQ(budget.ask(wait), true);
  ::usleep(100'000);
  EXPECT_FALSE(budget.spent());
}

}  // namespace
