#include "Platform/TimeBudget.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "Platform/Descriptor.h"

namespace {

using std::chrono::microseconds;
using std::chrono::seconds;

// What the child writes.
constexpr char no = 'n';
constexpr char yes = 'y';
constexpr char unanswered = 'u';

microseconds computingTimeOf(int who) {
  rusage usage{};
  ::getrusage(who, &usage);
  return seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

microseconds computingTime() {
  return computingTimeOf(RUSAGE_SELF) + computingTimeOf(RUSAGE_CHILDREN);
}

// Ends this process by a signal once it has computed for so long.
void endAfter(microseconds time) {
  ::signal(SIGPROF, SIG_DFL);
  sigset_t profiling;
  ::sigemptyset(&profiling);
  ::sigaddset(&profiling, SIGPROF);
  ::sigprocmask(SIG_UNBLOCK, &profiling, nullptr);
  const auto whole = std::chrono::floor<seconds>(time);
  itimerval timer{};
  timer.it_value.tv_sec = static_cast<time_t>(whole.count());
  timer.it_value.tv_usec = static_cast<suseconds_t>((time - whole).count());
  ::setitimer(ITIMER_PROF, &timer, nullptr);
}

[[noreturn]] void answerIn(int pipeEnd, const TimeBudget::Question& question) {
  const std::optional<bool> answer = question();
  const char byte = !answer ? unanswered : *answer ? yes : no;
  ::_exit(::write(pipeEnd, &byte, 1) == 1 ? 0 : 1);
}

}  // namespace

TimeBudget::TimeBudget(std::chrono::milliseconds total)
    : earliestEnd_(Clock::now() + total), end_(computingTime() + total) {}

microseconds TimeBudget::left() const {
  return end_ - computingTime();
}

bool TimeBudget::spent() const {
  // Nothing here computes for longer than the time that passes, which is the cheaper question.
  return Clock::now() >= earliestEnd_ && left() <= microseconds::zero();
}

std::optional<bool> TimeBudget::ask(const Question& question) {
  int ends[2];
  if (::pipe(ends) != 0) return question();
  // Where the agent has us ignore its end, a dead child's number is free for another process to be killed by.
  ::signal(SIGCHLD, SIG_DFL);
  const auto most = std::max(left(), microseconds(1));  // zero would be no end
  const pid_t child = ::fork();
  if (child == 0) {
    endAfter(most);
    answerIn(ends[1], question);
  }
  ::close(ends[1]);
  if (child < 0) {
    ::close(ends[0]);
    return question();
  }
  char answer = unanswered;
  uninterrupted([&] { return ::read(ends[0], &answer, 1); });
  ::close(ends[0]);
  int status = 0;
  uninterrupted([&] { return ::waitpid(child, &status, 0); });
  // Its clock may be a little ahead of ours.
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGPROF) *this = TimeBudget(std::chrono::milliseconds(0));
  if (answer == unanswered) return std::nullopt;
  return answer == yes;
}
