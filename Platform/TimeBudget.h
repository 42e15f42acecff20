// The computing time that a number of searches may take together: this process's own and its children's. Time
// in which they wait (for a disk, or for their turn on a busy machine) does not count. Whoever draws on the
// budget decides what a search means that could not be finished; the budget only measures, and stops what
// does not stop by itself.
#pragma once

#include <chrono>
#include <functional>
#include <optional>

class TimeBudget {
 public:
  using Clock = std::chrono::steady_clock;
  using Question = std::function<std::optional<bool>()>;

  explicit TimeBudget(std::chrono::milliseconds total = std::chrono::milliseconds(1500));

  bool spent() const;

  // The answer to a question that only computes, that nothing bounds and that may even crash, asked in a
  // child process that ends with the budget. Absent when there is no answer by then, when the question has
  // none, or when the child died over it. Where no child can be started, it is asked here.
  std::optional<bool> ask(const Question& question);

 private:
  std::chrono::microseconds left() const;

  Clock::time_point earliestEnd_;
  std::chrono::microseconds end_;  // as computing time of the process
};
