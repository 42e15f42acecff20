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

// A write to a protected (block) or sensitive (warn) file.
std::optional<Verdict> checkFileWrite(const std::string& filePath, const GuardConfig& config,
                                      const std::string& cwd, TimeBudget& budget);

// A write to a file that describes infrastructure.
std::optional<Verdict> checkInfraFile(const std::string& filePath, const GuardConfig& config,
                                      const std::string& cwd, TimeBudget& budget);

// A write outside the project directory and the temporary ones. Reading is never objected to.
std::optional<Verdict> checkPathBoundary(const std::string& filePath, const std::string& cwd, bool readOnly);

// A fetch of an internal address or a blocked domain.
std::optional<Verdict> checkNetworkAccess(const std::string& url, const GuardConfig& config,
                                          TimeBudget& budget);

// `path` with a leading tilde and the environment's variables expanded, taken from `cwd` when it is relative,
// in standard form.
std::string normalizePath(const std::string& path, const std::string& cwd);

// The first of `patterns` that matches the file's name, its normalised path or `filePath` as it stands: as a
// glob, or, where it contains "**", as the regular expression that its stars stand for.
std::optional<std::string> matchedFilePattern(const std::string& filePath,
                                              const std::vector<std::string>& patterns,
                                              const std::string& cwd, TimeBudget& budget);

}  // namespace RuleEvaluator
