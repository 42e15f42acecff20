#include "Platform/TimeBudget.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>

namespace {

using namespace std::chrono_literals;

TEST(TimeBudget, HandsOnTheChildsAnswer) {
  TimeBudget budget;
  EXPECT_EQ(budget.ask([] { return true; }), true);
  EXPECT_EQ(budget.ask([] { return false; }), false);
  EXPECT_EQ(budget.ask([] { return std::nullopt; }), std::nullopt);
}

TEST(TimeBudget, EndsAChildThatGivesNoAnswerInTime) {
  TimeBudget budget(50ms);
  const auto start = std::chrono::steady_clock::now();
  const auto forever = []() -> std::optional<bool> {
    for (;;)
      ::pause();
  };
  EXPECT_EQ(budget.ask(forever), std::nullopt);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_TRUE(budget.spent());
  EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "no child is left behind";
}

TEST(TimeBudget, SurvivesAChildThatDies) {
  TimeBudget budget;
  const auto die = []() -> std::optional<bool> {
    ::raise(SIGKILL);
    return true;
  };
  EXPECT_EQ(budget.ask(die), std::nullopt);
  EXPECT_FALSE(budget.spent());
}

}  // namespace
