// The files in which agents list their hooks, as the installers read, back up and replace them. Replacing is
// one step: a kill leaves the old file or the new one. What prevents it is logged, and the old file stays.
// Only regular files are replaced, and links that lead to one or to nothing.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Json/Json.h"
#include "Platform/Log.h"

namespace HookFile {

struct File {
  std::string_view place;    // below the home directory
  std::string_view agent;    // the agent's name in messages
  std::string_view options;  // for the hook that the agent is to start
  Log::Category logger;      // of the agent's namespace
};

// The command line for the file: the executable in single quotes and the options. Absent, and logged, when
// no command line can name the executable or there is no home directory.
std::optional<std::string> command(const File& file, const std::string& binaryPath);

// `hooks` with the entry at the end of the list of each of these events, which blanks separate.
Json::Object registered(Json::Object hooks, std::string_view events, const Json& entry);

bool exists(const File& file);

// The whole content; absent when the file cannot be read.
std::optional<std::string> read(const File& file);

// Copies `text`, the file's content, to a new file beside it, named after it with ".bak" (".bak.2" if that is
// taken, and so on); a file whose content cannot be read is itself renamed so. False, and logged, when that
// failed.
bool backUp(const File& file, const std::optional<std::string>& text);

// Replaces the file (or what it links to) by one with this content and the mode of the old one, which its
// user can read in any case, or 0600 when there was none. Directories are created as needed. Logs the
// success, or the failure and returns false.
bool replace(const File& file, std::string_view text);

// Logs `why` the file was not written. Returns false.
bool refuse(const File& file, std::string_view why);

// Whether the entry's "command" starts this hook, wherever its executable is and whatever its options: it
// contains the executable's name, or is `command` itself.
bool isOwn(const Json& entry, std::string_view command);

}  // namespace HookFile
