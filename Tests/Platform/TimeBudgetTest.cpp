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
  const auto wait = []() -> std::optional<bool> {
    ::usleep(100'000);
    return true;
  };
  EXPECT_EQ(budget.ask(wait), true);
  EXPECT_FALSE(budget.spent());
  ::usleep(100'000);
  EXPECT_FALSE(budget.spent());
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
