// This process: its environment, its user's home, its executable, its children. Nothing here fails.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Process {

// The value of an environment variable; absent when it is not set (an empty value is not absence).
std::optional<std::string> environment(const char* name);

// All variables of the environment as name and value.
std::vector<std::pair<std::string, std::string>> environment();

// The current user's home directory: HOME when it is set and not empty, else the user database's; empty when
// neither tells. The database is /etc/passwd, without the plug-ins of the system (macOS: its own database).
std::string home();

// The home directory of the user of that name; absent when there is none.
std::optional<std::string> homeOf(const std::string& user);

int id();

// The effective user.
unsigned user();

// The path of the running executable with symbolic links resolved; empty when the system does not tell.
std::string executable();

// To be called first of all: opens those of the three standard descriptors that were handed over closed on
// nothing, so that no file of ours ever takes their place, makes writing to a closed pipe, and beyond a limit
// on the size of files, an error instead of a signal, and keeps the process's memory, which holds keys and
// prompts, out of core dumps.
void prepare();

// All bytes of standard input up to its end, or up to the first error.
std::string readInput();

bool inputIsTerminal();

// Writes all bytes to standard output (or error); gives up silently on an error.
void writeOutput(std::string_view bytes);
void writeError(std::string_view bytes);

// Ends the process at once: no destructors, no exit handlers, no waiting for threads.
[[noreturn]] void exit(int status);

// Runs `path` with `arguments`, the file `input` as its standard input and its standard error empty, and
// waits for its end. Returns all that it wrote to standard output; absent when it cannot be started. It
// inherits no descriptor of ours.
std::optional<std::string> run(const std::string& path, const std::vector<std::string>& arguments,
                               const std::string& input = "/dev/null");

}  // namespace Process
