#include "Tests/Support/Program.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

Program::Program(const std::string& path, const std::vector<std::string>& arguments,
                 const std::string& until) {
  int output[2];
  if (::pipe2(output, O_CLOEXEC) != 0) return;
  std::vector<char*> values{const_cast<char*>(path.c_str())};
  for (const std::string& argument : arguments)
    values.push_back(const_cast<char*>(argument.c_str()));
  values.push_back(nullptr);
  id_ = ::fork();
  if (id_ == 0) {
    ::dup2(output[1], STDOUT_FILENO);
    ::dup2(output[1], STDERR_FILENO);
    ::execv(path.c_str(), values.data());
    ::_exit(127);
  }
  ::close(output[1]);
  for (char c; said_.find(until) == said_.npos && ::read(output[0], &c, 1) == 1;)
    said_ += c;
  ::close(output[0]);
}

std::string Program::after(const std::string& words) const {
  const std::size_t start = said_.find(words) + words.size();
  return said_.substr(start, said_.find('\n', start) - start);
}

int Program::end(int signal) {
  const pid_t id = std::exchange(id_, 0);
  int status = 0;
  if (id <= 0 || ::kill(id, signal) != 0 || ::waitpid(id, &status, 0) != id) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
