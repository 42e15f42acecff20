// What one run of a command takes. Costs that depend on nothing but the program are counted once, by
// valgrind and strace where those are installed; times are for the caller to take again and again.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace Measure {

struct Command {
  std::vector<std::string> argv;  // the executable's path first
  std::string input;              // path of the file that is its standard input
};

struct Run {
  double wall = 0;  // milliseconds
  double cpu = 0;   // milliseconds, user and system
  double peak = 0;  // MB
};

// Runs the command, its output thrown away. Throws when it cannot be run or fails: a figure of something else
// is worse than none.
Run run(const Command& command);

// User-space instructions; absent without valgrind.
std::optional<double> instructions(const Command& command);

// Absent without strace.
std::optional<double> systemCalls(const Command& command);

// The middle one; of an even number the lower of both.
double median(std::vector<double> values);

// Where the shell finds a program; absent when it does not.
std::optional<std::string> find(const std::string& program);

// What the shell command prints, without the last line feed.
std::string output(const std::string& command);

}  // namespace Measure
