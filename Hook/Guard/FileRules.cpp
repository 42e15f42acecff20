#include <algorithm>
#include <array>

#include "Hook/Guard/RuleEvaluator.h"
#include "Hook/Guard/RuleSupport.h"
#include "Platform/Paths.h"
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

bool matchesConverted(const std::string& glob, std::string_view path, const RegexSubject& subject,
                      TimeBudget& budget) {
  const std::string_view part = surePart(glob);
  if (!part.empty() && !Text::contains(path, part)) return false;
  return Regex::search(convertedGlob(glob), Regex::Case::significant, subject, budget).value_or(true);
}

bool matches(const std::string& pattern, const FileSubject& file, TimeBudget& budget) {
  if (fnmatchWrap(pattern, file.name, budget) || fnmatchWrap(pattern, file.normalized, budget) ||
      fnmatchWrap(pattern, file.filePath, budget))
    return true;
  if (pattern.find("**") == pattern.npos) return false;
  return matchesConverted(pattern, file.normalized, file.normalizedSubject, budget) ||
         matchesConverted(pattern, file.filePath, file.filePathSubject, budget);
}

std::optional<Verdict> objection(Verdict::Action action, const char* what, const FileSubject& file,
                                 const std::vector<std::string>& patterns, const char* rule,
                                 TimeBudget& budget) {
  if (file.filePath.empty()) return std::nullopt;
  const auto pattern = matchedFilePattern(file, patterns, budget);
  if (!pattern) return std::nullopt;
  return Verdict{action, what + file.filePath + " (matched: " + *pattern + ")", rule};
}

}  // namespace

std::string normalizePath(const std::string& path, const std::string& cwd) {
  std::string expanded = Paths::expandVariables(Paths::expandTilde(path));
  if (!expanded.starts_with('/') && !cwd.empty()) expanded = cwd + "/" + expanded;
  return Paths::standardize(expanded);
}

FileSubject::FileSubject(const std::string& path, const std::string& directory)
    : filePath(path),
      cwd(directory),
      normalized(normalizePath(path, directory)),
      name(Paths::lastComponent(normalized)),
      filePathSubject(path),
      normalizedSubject(normalized) {}

std::optional<std::string> matchedFilePattern(const FileSubject& file,
                                              const std::vector<std::string>& patterns, TimeBudget& budget) {
  const auto found = std::ranges::find_if(
      patterns, [&](const std::string& pattern) { return matches(pattern, file, budget); });
  return found == patterns.end() ? std::nullopt : std::optional(*found);
}

std::optional<Verdict> checkFileWrite(const FileSubject& file, const GuardConfig& config,
                                      TimeBudget& budget) {
  static constexpr const char* rule = "file_protection";
  const auto verdict = objection(Verdict::Action::block, "Write to protected file blocked: ", file,
                                 config.protected_file_patterns, rule, budget);
  if (verdict) return verdict;
  return objection(Verdict::Action::warn, "Write to sensitive file: ", file, config.warn_file_patterns, rule,
                   budget);
}

std::optional<Verdict> checkInfraFile(const FileSubject& file, const GuardConfig& config,
                                      TimeBudget& budget) {
  return objection(Verdict::Action::warn, "Write to infrastructure file: ", file, config.infra_file_patterns,
                   "infra_protection", budget);
}

std::optional<Verdict> checkPathBoundary(const FileSubject& file, bool readOnly) {
  if (readOnly || file.filePath.empty() || file.cwd.empty()) return std::nullopt;
  const auto isWithin = [&](std::string_view directory) { return file.normalized.starts_with(directory); };
  const std::string root = Paths::standardize(file.cwd);
  if (std::ranges::any_of(openDirectories, isWithin) || file.normalized == root || isWithin(root + "/"))
    return std::nullopt;
  return Verdict{Verdict::Action::block,
                 "Write outside project directory blocked: " + file.filePath + " (cwd: " + file.cwd + ")",
                 "path_boundary"};
}

}  // namespace RuleEvaluator
