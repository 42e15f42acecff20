#include "Platform/TimeBudget.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

using std::chrono::milliseconds;

// The child outlives a parent that is killed meanwhile by no more than this many seconds.
constexpr unsigned orphanLifetime = 3;

// What the child writes.
constexpr char no = 'n';
constexpr char yes = 'y';
constexpr char unanswered = 'u';

[[noreturn]] void answerIn(int pipeEnd, const TimeBudget::Question& question) {
  ::signal(SIGALRM, SIG_DFL);
  sigset_t alarms;
  ::sigemptyset(&alarms);
  ::sigaddset(&alarms, SIGALRM);
  ::sigprocmask(SIG_UNBLOCK, &alarms, nullptr);
  ::alarm(orphanLifetime);
  const std::optional<bool> answer = question();
  const char byte = !answer ? unanswered : *answer ? yes : no;
  ::_exit(::write(pipeEnd, &byte, 1) == 1 ? 0 : 1);
}

// One byte of the pipe, waited for until `end`.
std::optional<char> readByte(int pipeEnd, TimeBudget::Clock::time_point end) {
  pollfd waiting{pipeEnd, POLLIN, 0};
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(end - TimeBudget::Clock::now()).count();
    const int ready = ::poll(&waiting, 1, static_cast<int>(std::max<std::int64_t>(left, 0)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return std::nullopt;
    char byte = 0;
    const ssize_t count = ::read(pipeEnd, &byte, 1);
    if (count < 0 && errno == EINTR) continue;
    return count == 1 ? std::optional(byte) : std::nullopt;
  }
}

}  // namespace

TimeBudget::Clock::time_point TimeBudget::end() {
  if (!end_) end_ = Clock::now() + total_;
  return *end_;
}

std::optional<bool> TimeBudget::ask(const Question& question) {
  const auto until = end();
  int ends[2];
  if (::pipe(ends) != 0) return question();
  // Where the agent has us ignore its end, a dead child's number is free for another process to be killed by.
  ::signal(SIGCHLD, SIG_DFL);
  const pid_t child = ::fork();
  if (child == 0) answerIn(ends[1], question);
  ::close(ends[1]);
  if (child < 0) {
    ::close(ends[0]);
    return question();
  }
  const std::optional<char> answer = readByte(ends[0], until);
  ::close(ends[0]);
  ::kill(child, SIGKILL);
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  if (!answer || *answer == unanswered) return std::nullopt;
  return *answer == yes;
}
