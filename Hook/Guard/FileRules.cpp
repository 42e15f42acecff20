#include <algorithm>
#include <array>

#include "Hook/Guard/RuleEvaluator.h"
#include "Hook/Guard/RuleSupport.h"
#include "Platform/Paths.h"
#include "Platform/Regex.h"
#include "Platform/Text.h"

namespace RuleEvaluator {
namespace {

// Beneath these any write is allowed, whatever the project directory.
constexpr std::array<std::string_view, 3> openDirectories{"/tmp", "/var/folders", "/private/tmp"};

// The regular expression that a glob with "**" stands for: there "**" also matches "/", and "*" does not.
// Nothing is escaped.
std::string convertedGlob(std::string_view glob) {
  std::string expression;
  for (std::size_t i = 0; i < glob.size(); ++i) {
    if (glob.substr(i, 2) == "**") {
      expression += ".*";
      ++i;
    } else if (glob[i] == '*') {
      expression += "[^/]*";
    } else {
      expression += glob[i];
    }
  }
  return expression;
}

// The longest text that every match of the converted glob contains; empty when the glob holds characters with
// a meaning of their own in an expression.
std::string_view surePart(std::string_view glob) {
  if (glob.find_first_of(R"(\^$|?+()[]{})") != glob.npos) return {};
  std::string_view longest;
  while (!glob.empty()) {
    const std::string_view run = Text::takePart(glob, "*.");
    if (run.size() > longest.size()) longest = run;
  }
  return longest;
}

bool matchesConverted(const std::string& glob, const std::string& path, TimeBudget& budget) {
  const std::string_view part = surePart(glob);
  if (!part.empty() && !Text::contains(path, part)) return false;
  return Regex::search(convertedGlob(glob), Regex::Case::significant, RegexSubject(path), budget)
      .value_or(true);
}

std::optional<Verdict> objection(Verdict::Action action, const char* what, const std::string& filePath,
                                 const std::optional<std::string>& pattern, const char* rule) {
  if (!pattern) return std::nullopt;
  return Verdict{action, what + filePath + " (matched: " + *pattern + ")", rule};
}

}  // namespace

std::string normalizePath(const std::string& path, const std::string& cwd) {
  std::string expanded = Paths::expandVariables(Paths::expandTilde(path));
  if (!expanded.starts_with('/') && !cwd.empty()) expanded = cwd + "/" + expanded;
  return Paths::standardize(expanded);
}

std::optional<std::string> matchedFilePattern(const std::string& filePath,
                                              const std::vector<std::string>& patterns,
                                              const std::string& cwd, TimeBudget& budget) {
  const std::string normalized = normalizePath(filePath, cwd);
  const std::string name(Paths::lastComponent(normalized));
  const auto matches = [&](const std::string& pattern) {
    if (fnmatchWrap(pattern, name, budget) || fnmatchWrap(pattern, normalized, budget) ||
        fnmatchWrap(pattern, filePath, budget)) {
      return true;
    }
    return pattern.find("**") != pattern.npos &&
           (matchesConverted(pattern, normalized, budget) || matchesConverted(pattern, filePath, budget));
  };
  for (const std::string& pattern : patterns) {
    if (matches(pattern)) return pattern;
  }
  return std::nullopt;
}

std::optional<Verdict> checkFileWrite(const std::string& filePath, const GuardConfig& config,
                                      const std::string& cwd, TimeBudget& budget) {
  static constexpr const char* rule = "file_protection";
  if (filePath.empty()) return std::nullopt;
  auto verdict = objection(Verdict::Action::block, "Write to protected file blocked: ", filePath,
                           matchedFilePattern(filePath, config.protected_file_patterns, cwd, budget), rule);
  if (verdict) return verdict;
  return objection(Verdict::Action::warn, "Write to sensitive file: ", filePath,
                   matchedFilePattern(filePath, config.warn_file_patterns, cwd, budget), rule);
}

std::optional<Verdict> checkInfraFile(const std::string& filePath, const GuardConfig& config,
                                      const std::string& cwd, TimeBudget& budget) {
  if (filePath.empty()) return std::nullopt;
  return objection(Verdict::Action::warn, "Write to infrastructure file: ", filePath,
                   matchedFilePattern(filePath, config.infra_file_patterns, cwd, budget), "infra_protection");
}

std::optional<Verdict> checkPathBoundary(const std::string& filePath, const std::string& cwd, bool readOnly) {
  if (readOnly || filePath.empty() || cwd.empty()) return std::nullopt;
  const std::string resolved = normalizePath(filePath, cwd);
  const std::string root = Paths::standardize(cwd);
  for (const std::string_view directory : openDirectories) {
    if (resolved.starts_with(directory)) return std::nullopt;
  }
  if (resolved == root || resolved.starts_with(root + "/")) return std::nullopt;
  return Verdict{Verdict::Action::block,
                 "Write outside project directory blocked: " + filePath + " (cwd: " + cwd + ")",
                 "path_boundary"};
}

}  // namespace RuleEvaluator
