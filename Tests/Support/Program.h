// A program that a test starts and ends: what it has said on both outputs up to the word it was to wait for,
// or up to its end.
#pragma once

#include <signal.h>

#include <string>
#include <vector>

class Program {
 public:
  Program(const std::string& path, const std::vector<std::string>& arguments, const std::string& until);
  ~Program() { end(SIGKILL); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  const std::string& said() const { return said_; }
  // The rest of the line in which `words` stand.
  std::string after(const std::string& words) const;

  // Sends the signal and waits: the exit status, or 128 + the signal that ended it; -1 when it has ended
  // before.
  int end(int signal);

 private:
  pid_t id_ = 0;
  std::string said_;
};
