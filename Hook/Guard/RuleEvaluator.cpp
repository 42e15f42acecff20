#include "Hook/Guard/RuleEvaluator.h"

namespace RuleEvaluator {
namespace {

std::optional<Verdict> checkCommand(const std::string& command, const GuardConfig& config,
                                    TimeBudget& budget) {
  auto verdict = checkBashCommand(command, config, budget);
  return verdict ? verdict : checkGitOperation(command, config, budget);
}

std::optional<Verdict> checkWrite(const std::string& filePath, const GuardConfig& config,
                                  const std::string& cwd, TimeBudget& budget) {
  auto verdict = checkFileWrite(filePath, config, cwd, budget);
  if (!verdict) verdict = checkInfraFile(filePath, config, cwd, budget);
  if (!verdict && config.path_boundary_enabled) verdict = checkPathBoundary(filePath, cwd, false);
  return verdict;
}

std::optional<Verdict> checkRead(const std::string& filePath, const GuardConfig& config,
                                 const std::string& cwd) {
  return config.path_boundary_enabled ? checkPathBoundary(filePath, cwd, true) : std::nullopt;
}

}  // namespace

Verdict checkToolUse(const std::string& toolName, const Json::Object& toolInput, const GuardConfig& config,
                     const std::string& cwd) {
  TimeBudget budget;
  std::optional<Verdict> verdict;
  if (toolName == "Bash") {
    verdict = checkCommand(toolInput.text("command"), config, budget);
  } else if (toolName == "Write" || toolName == "Edit") {
    verdict = checkWrite(toolInput.text("file_path"), config, cwd, budget);
  } else if (toolName == "Read") {
    verdict = checkRead(toolInput.text("file_path"), config, cwd);
  } else if (toolName == "WebFetch") {
    verdict = checkNetworkAccess(toolInput.text("url"), config, budget);
  }
  if (verdict && budget.spent()) verdict->message += " (takes too long to check)";
  return verdict.value_or(Verdict());
}

}  // namespace RuleEvaluator
