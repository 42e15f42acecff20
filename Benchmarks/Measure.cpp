#include "Benchmarks/Measure.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "Platform/Files.h"

extern char** environ;

namespace Measure {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void giveUp(const std::string& what) {
  throw std::runtime_error(what);
}

// Runs it to its end, with descriptor 3 of the child being `report`, when there is one.
int runToEnd(const std::vector<std::string>& argv, const std::string& input, int report = -1) {
  std::vector<char*> arguments;
  for (const std::string& argument : argv)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  if (report >= 0) ::posix_spawn_file_actions_adddup2(&actions, report, 3);
  pid_t child = 0;
  const int failure = ::posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (failure != 0 || ::waitpid(child, &status, 0) != child) giveUp("cannot run " + argv[0]);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::vector<std::string> behind(std::vector<std::string> tool, const Command& command) {
  tool.insert(tool.end(), command.argv.begin(), command.argv.end());
  return tool;
}

// A directory for what a tool reports, gone at the end of the scope.
struct Reports {
  Reports() {
    std::string pattern = (fs::temp_directory_path() / "quib-measure-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) giveUp("no temporary directory");
    directory = pattern;
  }
  ~Reports() { fs::remove_all(directory); }

  // The words of all reports' lines in which the text occurs.
  std::vector<std::vector<std::string>> linesWith(std::string_view text) const {
    std::vector<std::vector<std::string>> lines;
    for (const auto& entry : fs::directory_iterator(directory)) {
      std::ifstream file(entry.path());
      for (std::string line; std::getline(file, line);) {
        if (line.find(text) == line.npos) continue;
        std::istringstream words(line);
        lines.emplace_back(std::istream_iterator<std::string>(words), std::istream_iterator<std::string>());
      }
    }
    return lines;
  }

  std::string directory;
};

}  // namespace

Run run(const Command& command) {
  Reports reports;
  const std::string report = reports.directory + "/run";
  const int descriptor = ::open(report.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const int failure = runToEnd(behind({QUIB_LAUNCHER}, command), command.input, descriptor);
  ::close(descriptor);
  long long wall = 0, cpu = 0;
  long peak = 0;
  int status = 0;
  const std::string text = Files::read(report).value_or("");
  const int count = sscanf(text.c_str(), "%lld %lld %ld %d", &wall, &cpu, &peak, &status);
  if (failure || count != 4 || status != 0) giveUp(command.argv[0] + " failed");
  return {static_cast<double>(wall) / 1e6, static_cast<double>(cpu) / 1e6,
          static_cast<double>(peak) * 1024 / 1e6};
}

std::optional<double> instructions(const Command& command) {
  const auto valgrind = find("valgrind");
  if (!valgrind) return std::nullopt;
  Reports reports;
  const std::vector<std::string> tool{*valgrind, "--tool=callgrind", "--callgrind-out-file=/dev/null",
                                      "--log-file=" + reports.directory + "/%p"};
  if (runToEnd(behind(tool, command), command.input) != 0) return std::nullopt;
  double total = 0;
  for (const auto& words : reports.linesWith("Collected :"))
    total += std::stod(words.at(3));
  return total > 0 ? std::optional(total) : std::nullopt;
}

std::optional<double> systemCalls(const Command& command) {
  const auto strace = find("strace");
  if (!strace) return std::nullopt;
  Reports reports;
  const std::vector<std::string> tool{*strace, "-f", "-c", "-o", reports.directory + "/calls"};
  if (runToEnd(behind(tool, command), command.input) != 0) return std::nullopt;
  const auto lines = reports.linesWith(" total");
  return lines.size() == 1 ? std::optional(std::stod(lines[0].at(3))) : std::nullopt;
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>((values.size() - 1) / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

std::optional<std::string> find(const std::string& program) {
  const std::string path = output("command -v " + program);
  return path.empty() ? std::nullopt : std::optional(path);
}

std::string output(const std::string& command) {
  std::string text;
  FILE* stream = ::popen((command + " 2>/dev/null").c_str(), "r");
  if (!stream) return text;
  char bytes[4096];
  while (const std::size_t count = ::fread(bytes, 1, sizeof bytes, stream))
    text.append(bytes, count);
  ::pclose(stream);
  while (text.ends_with('\n'))
    text.pop_back();
  return text;
}

}  // namespace Measure
