// The time that a number of searches may take together. Whoever draws on it decides what a search means that
// could not be finished; the budget itself only measures, and stops what does not stop by itself.
#pragma once

#include <chrono>
#include <functional>
#include <optional>

class TimeBudget {
 public:
  using Clock = std::chrono::steady_clock;
  using Question = std::function<std::optional<bool>()>;

  explicit TimeBudget(std::chrono::milliseconds total = std::chrono::milliseconds(1500)) : total_(total) {}

  // The clock starts with the first call of any of these.
  void start() { end(); }
  bool spent() { return Clock::now() >= end(); }

  // The answer to a question that nothing bounds and that may even crash, asked in a child process that is
  // killed when the budget ends. Absent when there is no answer by then, when the question has none, or when
  // the child died over it. Where no child can be started, it is asked here.
  std::optional<bool> ask(const Question& question);

 private:
  Clock::time_point end();

  std::chrono::milliseconds total_;
  std::optional<Clock::time_point> end_;
};
