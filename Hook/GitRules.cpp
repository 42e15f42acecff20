#include <algorithm>

#include "Hook/GuardPattern.h"
#include "Hook/RuleEvaluator.h"
#include "Hook/RuleSupport.h"
#include "Platform/Text.h"

namespace RuleEvaluator {
namespace {

constexpr GuardPattern gitForcePush{R"(git\s+push\s+.*?(--force|-f)\b)", {" push ", "-f"}};
constexpr GuardPattern gitForcePushLease{R"(git\s+push\s+.*?--force-with-lease\b)",
                                         {" push ", "--force-with-lease"}};
constexpr GuardPattern gitHardReset{R"(git\s+reset\s+--hard\b)", {" reset ", " --hard"}};
constexpr GuardPattern gitClean{R"(git\s+clean\s+.*?-[a-zA-Z]*f)", {" clean ", "-", "f"}};
constexpr GuardPattern gitCheckoutDot{R"(git\s+checkout\s+\.\s*$)", {" checkout ", " ."}};
constexpr GuardPattern gitRestoreDot{R"(git\s+restore\s+\.\s*$)", {" restore ", " ."}};
constexpr GuardPattern gitConfigCmd{R"(git\s+config\b)", {"git ", " config"}};
constexpr GuardPattern gitPush{R"(git\s+push\b)", {"git ", " push"}};
constexpr GuardPattern gitBranchDelete{R"(git\s+branch\s+.*?-D\b)", {" branch ", "-d"}};
constexpr GuardPattern gitRebase{R"(git\s+rebase\b)", {"git ", " rebase"}};

struct Mention {
  bool mentions = false;
  std::string branch;  // as written in the command
};

// The first word of the command, options left out, that is one of the protected branches.
Mention commandMentionsProtected(std::string_view command, const std::vector<std::string>& protectedBranches,
                                 TimeBudget& budget) {
  while (!command.empty()) {
    const std::string piece(command.substr(0, command.find(' ')));
    command.remove_prefix(std::min(piece.size() + 1, command.size()));
    if (piece.empty() || piece.starts_with('-')) continue;
    for (const std::string& branch : protectedBranches) {
      if (fnmatchWrap(branch, piece, budget)) return {true, piece};
    }
  }
  return {};
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
  const Mention mention = commandMentionsProtected(command, config.git_protected_branches, budget);

  if (config.git_block_force_push && mention.mentions &&
      (matches(gitForcePush) || matches(gitForcePushLease))) {
    return objection(block, "Force push to protected branch blocked: " + shortened(command));
  }
  if (config.git_block_hard_reset && matches(gitHardReset)) {
    return objection(block, "git reset --hard blocked: " + shortened(command));
  }
  if (matches(gitClean) || matches(gitCheckoutDot) || matches(gitRestoreDot)) {
    return objection(block, "Destructive git operation blocked: " + shortened(command));
  }
  if (config.git_block_config_edit && matches(gitConfigCmd)) {
    return objection(block, "git config modification blocked: " + shortened(command));
  }
  if (mention.mentions && matches(gitPush) && !subject.surelyMatches(gitForcePush)) {
    return objection(warn, "Push to protected branch '" + mention.branch + "' — confirm?");
  }
  if (matches(gitBranchDelete)) {
    return objection(warn, "Force-deleting a branch: " + shortened(command));
  }
  for (const std::string& branch : config.git_protected_branches) {
    if (Text::contains(command, branch) && matches(gitRebase)) {
      return objection(warn, "Rebasing on protected branch '" + branch + "' — confirm?");
    }
  }
  return std::nullopt;
}

}  // namespace RuleEvaluator
