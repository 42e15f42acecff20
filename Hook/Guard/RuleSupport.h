// What the rule checks share.
#pragma once

#include <string>
#include <string_view>

#include "Platform/TimeBudget.h"

namespace RuleEvaluator {

// At most the first 100 user-perceived characters of a command.
std::string shortened(std::string_view command);

// POSIX fnmatch without flags; true also when `budget` runs out first.
bool fnmatchWrap(const std::string& pattern, const std::string& candidate, TimeBudget& budget);

}  // namespace RuleEvaluator
