#include <algorithm>
#include <array>
#include <span>

#include "Hook/Guard/BuiltInPatterns.h"
#include "Hook/Guard/RuleEvaluator.h"
#include "Hook/Guard/RuleSupport.h"

namespace RuleEvaluator {
namespace {

// A configured expression, with the parts of the built-in one of the same text where there is one.
GuardPattern withKnownParts(std::string_view expression) {
  for (const std::span<const GuardPattern> list :
       {std::span<const GuardPattern>(BuiltIn::defaultBlockedCommands),
        std::span<const GuardPattern>(BuiltIn::defaultWarnCommands)}) {
    const auto row = std::ranges::find(list, expression, &GuardPattern::expression);
    if (row != list.end()) return *row;
  }
  return {expression};
}

bool matchesAny(const std::vector<std::string>& expressions, PatternSubject& subject) {
  return std::ranges::any_of(expressions, [&](const std::string& expression) {
    return subject.matches(withKnownParts(expression));
  });
}

}  // namespace

std::optional<Verdict> checkBashCommand(const std::string& command, const GuardConfig& config,
                                        TimeBudget& budget) {
  static constexpr const char* rule = "destructive_command";
  if (command.empty()) return std::nullopt;
  PatternSubject subject(command, budget);
  if (matchesAny(config.blocked_command_patterns, subject)) {
    return Verdict{Verdict::Action::block, "Blocked command pattern: " + shortened(command), rule};
  }
  if (matchesAny(config.warn_command_patterns, subject)) {
    return Verdict{Verdict::Action::warn, "Potentially dangerous command: " + shortened(command), rule};
  }
  return std::nullopt;
}

}  // namespace RuleEvaluator
