#include <algorithm>

#include "Hook/Guard/BuiltInPatterns.h"
#include "Hook/Guard/RuleEvaluator.h"
#include "Platform/Text.h"

namespace RuleEvaluator {
namespace {

Verdict blocked(std::string message) {
  return {Verdict::Action::block, std::move(message), "network_access"};
}

}  // namespace

std::optional<Verdict> checkNetworkAccess(const std::string& url, const GuardConfig& config,
                                          TimeBudget& budget) {
  if (url.empty()) return std::nullopt;
  if (config.block_internal_urls) {
    PatternSubject subject(url, budget);
    if (std::ranges::any_of(BuiltIn::internalURLPatterns,
                            [&](const auto& row) { return subject.matches(row); })) {
      return blocked("Access to internal/private URL blocked: " + url);
    }
  }
  if (config.blocked_domains.empty()) return std::nullopt;
  const std::string folded = Text::folded(url);
  for (const std::string& domain : config.blocked_domains) {
    if (domain.empty()) continue;
    if (budget.spent() || Text::contains(folded, Text::folded(domain))) {
      return blocked("Access to blocked domain: " + domain);
    }
  }
  return std::nullopt;
}

}  // namespace RuleEvaluator
