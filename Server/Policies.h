// What the local control plane answers to a policy check, read from one JSON file that people write by hand:
//
//   {
//     "rules": [{"workflow": "tool:WebFetch", "action": "block", "reason": "No web access here."}],
//     "cost_cap": 5.0,
//     "compaction_token_budget": {"warn": 150000, "block": 400000}
//   }
//
// Every member may be missing; a member "note" may stand anywhere and is not read. Anything else that is
// unknown or mistyped makes the file unusable as a whole, with a message that says where: a misspelt cap must
// not pass for no cap.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Json/Json.h"

namespace LocalControlPlane {

struct PolicyRule {
  std::string workflow;  // glob on the workflow name; "*" also matches "/" and ":"
  std::string action;    // "allow", "warn" or "block"
  std::string reason;    // may be empty
};

struct Policies {
  std::vector<PolicyRule> rules;           // the first that matches decides
  std::optional<double> costCap;           // US dollars
  std::optional<std::int64_t> warnTokens;  // of a run, when it is about to compact its context
  std::optional<std::int64_t> blockTokens;
};

struct PolicyDecision {
  std::string action = "allow";
  std::string reason;
  Json::Array evaluations;  // what spoke, each with its "policy", "action" and "reason"
};

// The policies of one text. Throws std::runtime_error, saying where it is wrong, when it is unusable.
Policies parsePolicies(std::string_view text);

// The workflow that the token budget is for.
inline constexpr std::string_view compactionWorkflow = "claude-code:precompact";

// What the policies say about `workflow` of a run that has used `tokens` (looked at for a compaction only).
// Of a rule and the token budget the stricter one holds.
PolicyDecision evaluate(const Policies& policies, const std::string& workflow, std::int64_t tokens);

// The policies in force: those of the file as it was when it was last usable.
class PolicyFile {
 public:
  // An empty path means that there are no policies.
  explicit PolicyFile(std::string path) : path_(std::move(path)) {}

  // Reads the file again and takes it over when it has changed and is usable. True when the policies in force
  // or the problem are not what they were.
  bool refresh();

  const Policies& policies() const { return policies_; }
  const std::string& path() const { return path_; }
  // Why the file as it is now is not in force; empty when it is.
  const std::string& problem() const { return problem_; }

 private:
  std::string path_;
  std::optional<std::string> text_;  // as last read
  bool seen_ = false;
  Policies policies_;
  std::string problem_;
};

}  // namespace LocalControlPlane
