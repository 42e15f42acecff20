#include "Platform/Process.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "Platform/Descriptor.h"
#include "Platform/Files.h"
#include "Platform/Text.h"

#ifdef __APPLE__
#include <mach-o/dyld.h>
#include <pwd.h>
#else
#include <sys/prctl.h>
#endif

extern char** environ;

namespace Process {

namespace {

#ifdef __APPLE__
// The home directory in the user database, looked up by `find(entry, buffer, size, result)`.
template <typename Find>
std::optional<std::string> homeInDatabase(Find&& find) {
  std::array<char, 16384> buffer;
  passwd entry{};
  passwd* found = nullptr;
  if (find(&entry, buffer.data(), buffer.size(), &found) != 0 || !found || !found->pw_dir)
    return std::nullopt;
  return found->pw_dir;
}

std::optional<std::string> homeByName(const std::string& user) {
  return homeInDatabase([&](auto... arguments) { return ::getpwnam_r(user.c_str(), arguments...); });
}

std::optional<std::string> homeByID(uid_t user) {
  return homeInDatabase([&](auto... arguments) { return ::getpwuid_r(user, arguments...); });
}
#else
// The home directory in the first line of passwd(5) whose field of that index is `value`.
std::optional<std::string> homeInDatabase(std::size_t field, std::string_view value) {
  constexpr std::size_t home = 5;
  const std::string users = Files::read("/etc/passwd").value_or("");
  for (std::string_view rest = users; !value.empty() && !rest.empty();) {
    auto line = Text::takePart(rest, "\n");
    std::array<std::string_view, home + 1> fields;
    for (auto& each : fields)
      each = Text::takePart(line, ":");
    if (fields[field] == value) return std::string(fields[home]);
  }
  return std::nullopt;
}

std::optional<std::string> homeByName(const std::string& user) {
  return homeInDatabase(0, user);
}

std::optional<std::string> homeByID(uid_t user) {
  return homeInDatabase(2, std::to_string(user));
}
#endif

std::string readToEnd(int descriptor) {
  std::string input;
  std::size_t filled = 0;
  for (;;) {
    if (filled == input.size()) input.resize(std::max<std::size_t>(2 * filled, 16384));
    const ssize_t count =
        uninterrupted([&] { return ::read(descriptor, input.data() + filled, input.size() - filled); });
    if (count > 0) {
      filled += static_cast<std::size_t>(count);
    } else if (count < 0 && errno == EAGAIN) {
      pollfd waiting{descriptor, POLLIN, 0};
      ::poll(&waiting, 1, -1);
    } else {
      input.resize(filled);
      return input;
    }
  }
}

// Both ends closed on exec.
bool makePipe(int (&ends)[2]) {
#ifdef __APPLE__
  return ::pipe(ends) == 0 && ::fcntl(ends[0], F_SETFD, FD_CLOEXEC) == 0 &&
         ::fcntl(ends[1], F_SETFD, FD_CLOEXEC) == 0;
#else
  return ::pipe2(ends, O_CLOEXEC) == 0;
#endif
}

}  // namespace

std::optional<std::string> environment(const char* name) {
  const char* value = ::getenv(name);
  return value ? std::optional<std::string>(value) : std::nullopt;
}

std::vector<std::pair<std::string, std::string>> environment() {
  std::vector<std::pair<std::string, std::string>> variables;
  for (char** at = environ; at && *at; ++at) {
    const std::string_view variable = *at;
    if (const std::size_t equals = variable.find('='); equals != variable.npos)
      variables.emplace_back(variable.substr(0, equals), variable.substr(equals + 1));
  }
  return variables;
}

std::string home() {
  if (auto value = environment("HOME"); value && !value->empty()) return *value;
  return homeByID(::getuid()).value_or("");
}

std::optional<std::string> homeOf(const std::string& user) {
  return homeByName(user);
}

unsigned user() {
  return ::geteuid();
}

int id() {
  return ::getpid();
}

std::string executable() {
  std::array<char, PATH_MAX> path;
#ifdef __APPLE__
  std::array<char, PATH_MAX> unresolved;
  std::uint32_t size = unresolved.size();
  if (::_NSGetExecutablePath(unresolved.data(), &size) != 0) return "";
  return ::realpath(unresolved.data(), path.data()) ? path.data() : "";
#else
  return ::realpath("/proc/self/exe", path.data()) ? path.data() : "";
#endif
}

void prepare() {
  for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor)
    if (::fcntl(descriptor, F_GETFD) < 0 && errno == EBADF)
      ::open("/dev/null", descriptor == STDIN_FILENO ? O_RDONLY : O_WRONLY);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
#ifndef __APPLE__
  // A core pattern that is a pipe disregards the limit.
  ::prctl(PR_SET_DUMPABLE, 0);
#endif
}

std::string readInput() {
  return readToEnd(STDIN_FILENO);
}

bool inputIsTerminal() {
  return ::isatty(STDIN_FILENO) == 1;
}

void writeOutput(std::string_view bytes) {
  writeAll(STDOUT_FILENO, bytes);
}

void writeError(std::string_view bytes) {
  writeAll(STDERR_FILENO, bytes);
}

void exit(int status) {
  ::_exit(status);
}

std::optional<std::string> run(const std::string& path, const std::vector<std::string>& arguments,
                               const std::string& input) {
  int ends[2];
  if (!makePipe(ends)) return std::nullopt;
  std::vector<char*> argv{const_cast<char*>(path.c_str())};
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int failure = ::posix_spawn(&child, path.c_str(), &actions, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);

  std::optional<std::string> output;
  if (failure == 0) {
    output = readToEnd(ends[0]);
    uninterrupted([&] { return ::waitpid(child, nullptr, 0); });
  }
  ::close(ends[0]);
  return output;
}

}  // namespace Process
