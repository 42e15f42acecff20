#include <algorithm>
#include <array>

#include "Hook/GuardPattern.h"
#include "Hook/RuleEvaluator.h"
#include "Platform/Text.h"

namespace RuleEvaluator {
namespace {

constexpr std::array internalURLPatterns{
    GuardPattern{R"(^https?://localhost\b)", {"://localhost"}},
    GuardPattern{R"(^https?://127\.0\.0\.1\b)", {"://127.0.0.1"}},
    GuardPattern{R"(^https?://0\.0\.0\.0\b)", {"://0.0.0.0"}},
    GuardPattern{R"(^https?://10\.\d+\.\d+\.\d+)", {"://10."}},
    GuardPattern{R"(^https?://172\.(1[6-9]|2\d|3[01])\.\d+\.\d+)", {"://172."}},
    GuardPattern{R"(^https?://192\.168\.\d+\.\d+)", {"://192.168."}},
    GuardPattern{R"(^https?://169\.254\.\d+\.\d+)", {"://169.254."}},
    GuardPattern{R"(^https?://metadata\.google\.internal)", {"://metadata.google.internal"}},
    GuardPattern{R"(^https?://\[::1\])", {"://[::1]"}},
};

Verdict blocked(std::string message) {
  return {Verdict::Action::block, std::move(message), "network_access"};
}

}  // namespace

std::optional<Verdict> checkNetworkAccess(const std::string& url, const GuardConfig& config,
                                          TimeBudget& budget) {
  if (url.empty()) return std::nullopt;
  if (config.block_internal_urls) {
    PatternSubject subject(url, budget);
    if (std::ranges::any_of(internalURLPatterns, [&](const auto& row) { return subject.matches(row); })) {
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
