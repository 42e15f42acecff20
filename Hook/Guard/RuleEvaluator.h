// The local guard: whether a tool call that the agent announces is destructive, touches what is protected, or
// leaves the project or the public network. It decides from the call, the configuration and the project
// directory alone; it sends nothing, writes nothing and never fails.
//
// Commands, paths, URLs and configured patterns may all be hostile. An invalid pattern is skipped. All
// matching of one call shares one budget of time, and a test that runs out of it counts as a match: what
// cannot be checked in time is objected to.
//
// An absent verdict means that the check has no objection.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Hook/Guard/GuardConfig.h"
#include "Platform/Json/Json.h"
#include "Platform/Regex.h"
#include "Platform/TimeBudget.h"

namespace RuleEvaluator {

// Runs the checks that apply to the tool, in their order; the first verdict holds. Tools that it does not
// know are allowed.
Verdict checkToolUse(const std::string& toolName, const Json::Object& toolInput, const GuardConfig& config,
                     const std::string& cwd);

// A shell command against the blocked and then the warned patterns, as it arrives, without taking it apart.
std::optional<Verdict> checkBashCommand(const std::string& command, const GuardConfig& config,
                                        TimeBudget& budget);

// A shell command that begins with "git ": pushes to protected branches, work thrown away, configuration
// edits.
std::optional<Verdict> checkGitOperation(const std::string& command, const GuardConfig& config,
                                         TimeBudget& budget);

// The file that a tool call names, in the forms that patterns are tried on.
struct FileSubject {
  FileSubject(const std::string& path, const std::string& directory);

  const std::string filePath;  // as it arrives
  const std::string cwd;
  const std::string normalized;  // normalizePath
  const std::string name;        // its last component
  const RegexSubject filePathSubject;
  const RegexSubject normalizedSubject;
};

// A write to a protected (block) or sensitive (warn) file.
std::optional<Verdict> checkFileWrite(const FileSubject& file, const GuardConfig& config, TimeBudget& budget);

// A write to a file that describes infrastructure.
std::optional<Verdict> checkInfraFile(const FileSubject& file, const GuardConfig& config, TimeBudget& budget);

// A write outside the project directory and the temporary ones. Reading is never objected to.
std::optional<Verdict> checkPathBoundary(const FileSubject& file, bool readOnly);

// A fetch of an internal address or a blocked domain.
std::optional<Verdict> checkNetworkAccess(const std::string& url, const GuardConfig& config,
                                          TimeBudget& budget);

// `path` with a leading tilde and the environment's variables expanded, taken from `cwd` when it is relative,
// in standard form.
std::string normalizePath(const std::string& path, const std::string& cwd);

// The first of `patterns` that matches the file's name, its normalised path or its path as it arrives: as a
// glob, or, where it contains "**", as the regular expression that its stars stand for.
std::optional<std::string> matchedFilePattern(const FileSubject& file,
                                              const std::vector<std::string>& patterns, TimeBudget& budget);

}  // namespace RuleEvaluator
