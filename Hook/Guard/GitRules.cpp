#include <algorithm>

#include "Hook/Guard/BuiltInPatterns.h"
#include "Hook/Guard/RuleEvaluator.h"
#include "Hook/Guard/RuleSupport.h"
#include "Platform/Text.h"

namespace RuleEvaluator {
namespace {

// The first word of the command, options left out, that is one of the protected branches; absent when none
// is.
std::optional<std::string> commandMentionsProtected(std::string_view command,
                                                    const std::vector<std::string>& protectedBranches,
                                                    TimeBudget& budget) {
  while (!command.empty()) {
    const std::string piece(Text::takePart(command, " "));
    if (piece.empty() || piece.starts_with('-')) continue;
    for (const std::string& branch : protectedBranches) {
      if (fnmatchWrap(branch, piece, budget)) return piece;
    }
  }
  return std::nullopt;
}

Verdict objection(Verdict::Action action, std::string message) {
  return {action, std::move(message), "git_safety"};
}

}  // namespace

std::optional<Verdict> checkGitOperation(const std::string& command, const GuardConfig& config,
                                         TimeBudget& budget) {
  using enum Verdict::Action;
  if (!Text::trim(command, Text::Space::blanks).starts_with("git ")) return std::nullopt;

  PatternSubject subject(command, budget);
  const auto matches = [&](const GuardPattern& pattern) { return subject.matches(pattern); };
  // Asked before the expressions where both must hold: it is the cheaper question.
  const auto mention = commandMentionsProtected(command, config.git_protected_branches, budget);

  if (config.git_block_force_push && mention &&
      (matches(BuiltIn::gitForcePush) || matches(BuiltIn::gitForcePushLease))) {
    return objection(block, "Force push to protected branch blocked: " + shortened(command));
  }
  if (config.git_block_hard_reset && matches(BuiltIn::gitHardReset)) {
    return objection(block, "git reset --hard blocked: " + shortened(command));
  }
  if (matches(BuiltIn::gitClean) || matches(BuiltIn::gitCheckoutDot) || matches(BuiltIn::gitRestoreDot)) {
    return objection(block, "Destructive git operation blocked: " + shortened(command));
  }
  if (config.git_block_config_edit && matches(BuiltIn::gitConfigCmd)) {
    return objection(block, "git config modification blocked: " + shortened(command));
  }
  if (mention && matches(BuiltIn::gitPush) && !subject.surelyMatches(BuiltIn::gitForcePush)) {
    return objection(warn, "Push to protected branch '" + *mention + "' — confirm?");
  }
  if (matches(BuiltIn::gitBranchDelete)) {
    return objection(warn, "Force-deleting a branch: " + shortened(command));
  }
  const auto named = std::ranges::find_if(config.git_protected_branches, [&](const std::string& branch) {
    return budget.spent() || Text::contains(command, branch);
  });
  if (named != config.git_protected_branches.end() && matches(BuiltIn::gitRebase)) {
    return objection(warn, "Rebasing on protected branch '" + *named + "' — confirm?");
  }
  return std::nullopt;
}

}  // namespace RuleEvaluator
