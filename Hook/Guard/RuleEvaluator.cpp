#include "Hook/Guard/RuleEvaluator.h"

namespace RuleEvaluator {
namespace {

std::optional<Verdict> checkCommand(const std::string& command, const GuardConfig& config,
                                    TimeBudget& budget) {
  auto verdict = checkBashCommand(command, config, budget);
  return verdict ? verdict : checkGitOperation(command, config, budget);
}

std::optional<Verdict> checkWrite(const FileSubject& file, const GuardConfig& config, TimeBudget& budget) {
  auto verdict = checkFileWrite(file, config, budget);
  if (!verdict) verdict = checkInfraFile(file, config, budget);
  if (!verdict && config.path_boundary_enabled) verdict = checkPathBoundary(file, false);
  return verdict;
}

}  // namespace

Verdict checkToolUse(const std::string& toolName, const Json::Object& toolInput, const GuardConfig& config,
                     const std::string& cwd) {
  TimeBudget budget;
  std::optional<Verdict> verdict;
  if (toolName == "Bash") {
    verdict = checkCommand(toolInput.text("command"), config, budget);
  } else if (toolName == "Write" || toolName == "Edit") {
    verdict = checkWrite(FileSubject(toolInput.text("file_path"), cwd), config, budget);
  } else if (toolName == "Read") {
    if (config.path_boundary_enabled)
      verdict = checkPathBoundary(FileSubject(toolInput.text("file_path"), cwd), true);
  } else if (toolName == "WebFetch") {
    verdict = checkNetworkAccess(toolInput.text("url"), config, budget);
  }
  if (verdict && budget.spent()) verdict->message += " (takes too long to check)";
  return verdict.value_or(Verdict());
}

}  // namespace RuleEvaluator
