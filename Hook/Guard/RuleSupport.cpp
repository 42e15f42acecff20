#include "Hook/Guard/RuleSupport.h"

#include "Platform/Paths.h"
#include "Platform/Text.h"

namespace RuleEvaluator {

std::string shortened(std::string_view command) {
  return std::string(Text::prefix(command, 100));
}

bool fnmatchWrap(const std::string& pattern, const std::string& candidate, TimeBudget& budget) {
  // The worst patterns take a nanosecond or two for each pair of characters.
  constexpr std::size_t quick = 50'000'000;
  if (budget.spent()) return true;
  const auto answer = [&] { return Paths::glob(pattern, candidate); };
  if (pattern.size() * candidate.size() <= quick) return answer();
  return budget.ask(answer).value_or(true);
}

}  // namespace RuleEvaluator
