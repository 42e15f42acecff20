#include "Server/Policies.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "Platform/Files.h"
#include "Platform/Paths.h"

namespace LocalControlPlane {

namespace {

constexpr std::array<std::string_view, 3> actions = {"allow", "warn", "block"};  // from lenient to strict

auto strictness(std::string_view action) {
  return std::ranges::find(actions, action) - actions.begin();
}

[[noreturn]] void reject(const std::string& problem) {
  throw std::runtime_error(problem);
}

// The first member of `object` that is none of `known`; empty when there is none.
std::string unknownMember(const Json::Object& object, std::initializer_list<std::string_view> known) {
  for (const Json::Member& member : object) {
    if (member.key != "note" && std::ranges::find(known, member.key) == known.end()) return member.key;
  }
  return "";
}

PolicyRule parseRule(const Json& value, const std::string& name) {
  const Json::Object* object = value.asObject();
  if (!object) reject(name + " is not an object");
  const std::string unknown = unknownMember(*object, {"workflow", "action", "reason"});
  if (!unknown.empty()) reject(name + " has the unknown member \"" + unknown + "\"");
  PolicyRule rule{object->text("workflow"), object->text("action"), object->text("reason")};
  if (rule.workflow.empty()) reject(name + " needs a \"workflow\"");
  if (std::ranges::find(actions, rule.action) == actions.end())
    reject(name + " needs an \"action\" that is \"allow\", \"warn\" or \"block\"");
  const Json* reason = object->find("reason");
  if (reason && !reason->asText()) reject(name + " has a \"reason\" that is not a string");
  return rule;
}

std::optional<std::int64_t> parseTokens(const Json::Object& budget, const std::string& key) {
  const Json* value = budget.find(key);
  if (value && value->asInteger().value_or(0) <= 0)
    reject("\"compaction_token_budget\": \"" + key + "\" is not a positive whole number");
  return value ? value->asInteger() : std::nullopt;
}

}  // namespace

Policies parsePolicies(std::string_view text) {
  const std::optional<Json::Object> object = Json::parseObject(text);
  if (!object) reject("it is not a JSON object");
  const std::string unknown = unknownMember(*object, {"rules", "cost_cap", "compaction_token_budget"});
  if (!unknown.empty()) reject("unknown member \"" + unknown + "\"");
  Policies policies;
  if (const Json* rules = object->find("rules")) {
    if (!rules->asList()) reject("\"rules\" is not a list");
    for (const Json& rule : *rules->asList())
      policies.rules.push_back(parseRule(rule, "rule " + std::to_string(policies.rules.size() + 1)));
  }
  if (const Json* cap = object->find("cost_cap")) {
    policies.costCap = cap->asNumber();
    if (policies.costCap.value_or(0) <= 0) reject("\"cost_cap\" is not a positive number");
  }
  if (const Json* value = object->find("compaction_token_budget")) {
    const Json::Object* budget = value->asObject();
    if (!budget || !unknownMember(*budget, {"warn", "block"}).empty())
      reject("\"compaction_token_budget\" is not an object of \"warn\" and \"block\"");
    policies.warnTokens = parseTokens(*budget, "warn");
    policies.blockTokens = parseTokens(*budget, "block");
  }
  return policies;
}

PolicyDecision evaluate(const Policies& policies, const std::string& workflow, std::int64_t tokens) {
  PolicyDecision decision;
  const auto apply = [&decision](std::string_view policy, std::string_view action,
                                 const std::string& reason) {
    decision.evaluations.push_back(Json::Object{{"policy", policy}, {"action", action}, {"reason", reason}});
    if (decision.evaluations.size() > 1 && strictness(action) <= strictness(decision.action)) return;
    decision.action = action;
    decision.reason = reason;
  };
  const auto rule = std::ranges::find_if(
      policies.rules, [&](const PolicyRule& candidate) { return Paths::glob(candidate.workflow, workflow); });
  if (rule != policies.rules.end()) apply(rule->workflow, rule->action, rule->reason);
  if (workflow != compactionWorkflow) return decision;
  const auto over = [tokens](std::optional<std::int64_t> limit) { return limit && tokens > *limit; };
  const bool block = over(policies.blockTokens);
  if (block || over(policies.warnTokens)) {
    const std::int64_t limit = block ? *policies.blockTokens : *policies.warnTokens;
    apply("compaction_token_budget", block ? "block" : "warn",
          "The run has used " + std::to_string(tokens) + " tokens; its budget is " + std::to_string(limit) +
              ".");
  }
  return decision;
}

bool PolicyFile::refresh() {
  if (path_.empty()) return false;
  std::optional<std::string> text = Files::read(path_);
  if (seen_ && text == text_) return false;
  seen_ = true;
  text_ = std::move(text);
  problem_.clear();
  try {
    if (!text_) reject("it cannot be read");
    policies_ = parsePolicies(*text_);
  } catch (const std::runtime_error& error) {
    problem_ = error.what();
  }
  return true;
}

}  // namespace LocalControlPlane
