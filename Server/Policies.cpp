#include "Server/Policies.h"

#include <algorithm>
#include <array>

#include "Platform/Files.h"
#include "Platform/Paths.h"

namespace LocalControlPlane {

namespace {

constexpr std::array<std::string_view, 3> actions = {"allow", "warn", "block"};  // from lenient to strict

auto strictness(std::string_view action) {
  return std::ranges::find(actions, action) - actions.begin();
}

// The first member of `object` that is none of `known`; empty when there is none.
std::string unknownMember(const Json::Object& object, std::initializer_list<std::string_view> known) {
  for (const Json::Member& member : object) {
    if (member.key != "note" && std::ranges::find(known, member.key) == known.end()) return member.key;
  }
  return "";
}

std::optional<PolicyRule> parseRule(const Json& value, std::string& problem) {
  const Json::Object* object = value.asObject();
  if (!object) {
    problem = "is not an object";
    return std::nullopt;
  }
  if (const std::string key = unknownMember(*object, {"workflow", "action", "reason"}); !key.empty()) {
    problem = "has the unknown member \"" + key + "\"";
    return std::nullopt;
  }
  PolicyRule rule{object->text("workflow"), object->text("action"), object->text("reason")};
  if (rule.workflow.empty()) {
    problem = "needs a \"workflow\"";
  } else if (std::ranges::find(actions, rule.action) == actions.end()) {
    problem = "needs an \"action\" that is \"allow\", \"warn\" or \"block\"";
  } else if (const Json* reason = object->find("reason"); reason && !reason->asText()) {
    problem = "has a \"reason\" that is not a string";
  } else {
    return rule;
  }
  return std::nullopt;
}

bool parseTokens(const Json::Object& budget, std::string_view key, std::optional<std::int64_t>& tokens,
                 std::string& problem) {
  const Json* value = budget.find(key);
  if (!value) return true;
  tokens = value->asInteger();
  if (tokens && *tokens > 0) return true;
  problem = "\"compaction_token_budget\": \"" + std::string(key) + "\" is not a positive whole number";
  return false;
}

bool parseBudget(const Json& value, Policies& policies, std::string& problem) {
  const Json::Object* budget = value.asObject();
  if (!budget || !unknownMember(*budget, {"warn", "block"}).empty()) {
    problem = "\"compaction_token_budget\" is not an object of \"warn\" and \"block\"";
    return false;
  }
  return parseTokens(*budget, "warn", policies.warnTokens, problem) &&
         parseTokens(*budget, "block", policies.blockTokens, problem);
}

bool parseRules(const Json& value, Policies& policies, std::string& problem) {
  const Json::Array* rules = value.asList();
  if (!rules) {
    problem = "\"rules\" is not a list";
    return false;
  }
  for (const Json& entry : *rules) {
    std::optional<PolicyRule> rule = parseRule(entry, problem);
    if (!rule) {
      problem.insert(0, "rule " + std::to_string(policies.rules.size() + 1) + " ");
      return false;
    }
    policies.rules.push_back(std::move(*rule));
  }
  return true;
}

}  // namespace

std::optional<Policies> parsePolicies(std::string_view text, std::string& problem) {
  const std::optional<Json::Object> object = Json::parseObject(text);
  if (!object) {
    problem = "it is not a JSON object";
    return std::nullopt;
  }
  const std::string unknown = unknownMember(*object, {"rules", "cost_cap", "compaction_token_budget"});
  if (!unknown.empty()) {
    problem = "unknown member \"" + unknown + "\"";
    return std::nullopt;
  }
  Policies policies;
  if (const Json* rules = object->find("rules"); rules && !parseRules(*rules, policies, problem)) {
    return std::nullopt;
  }
  if (const Json* cap = object->find("cost_cap")) {
    policies.costCap = cap->asNumber();
    if (!policies.costCap || *policies.costCap <= 0) {
      problem = "\"cost_cap\" is not a positive number";
      return std::nullopt;
    }
  }
  const Json* budget = object->find("compaction_token_budget");
  if (budget && !parseBudget(*budget, policies, problem)) return std::nullopt;
  return policies;
}

Verdict evaluate(const Policies& policies, const std::string& workflow, std::int64_t tokens) {
  Verdict verdict;
  const auto apply = [&verdict](std::string_view policy, std::string_view action, const std::string& reason) {
    verdict.evaluations.push_back(Json::Object{{"policy", policy}, {"action", action}, {"reason", reason}});
    if (verdict.evaluations.size() > 1 && strictness(action) <= strictness(verdict.action)) return;
    verdict.action = action;
    verdict.reason = reason;
  };
  const auto rule = std::ranges::find_if(
      policies.rules, [&](const PolicyRule& candidate) { return Paths::glob(candidate.workflow, workflow); });
  if (rule != policies.rules.end()) apply(rule->workflow, rule->action, rule->reason);
  if (workflow != compactionWorkflow) return verdict;
  const auto over = [tokens](std::optional<std::int64_t> limit) { return limit && tokens > *limit; };
  const bool block = over(policies.blockTokens);
  if (block || over(policies.warnTokens)) {
    const std::int64_t limit = block ? *policies.blockTokens : *policies.warnTokens;
    apply("compaction_token_budget", block ? "block" : "warn",
          "The run has used " + std::to_string(tokens) + " tokens; its budget is " + std::to_string(limit) +
              ".");
  }
  return verdict;
}

bool PolicyFile::refresh() {
  if (path_.empty()) return false;
  std::optional<std::string> text = Files::read(path_);
  if (seen_ && text == text_) return false;
  seen_ = true;
  text_ = std::move(text);
  problem_.clear();
  if (!text_) {
    problem_ = "it cannot be read";
  } else if (std::optional<Policies> parsed = parsePolicies(*text_, problem_)) {
    policies_ = std::move(*parsed);
  }
  return true;
}

}  // namespace LocalControlPlane
