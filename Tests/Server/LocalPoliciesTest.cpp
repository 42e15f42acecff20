#include <gtest/gtest.h>

#include "Platform/Files.h"
#include "Server/Policies.h"
#include "Tests/Support/Sandbox.h"

namespace {

using namespace LocalControlPlane;

Policies policies(std::string_view text) {
  std::string problem;
  const std::optional<Policies> parsed = parsePolicies(text, problem);
  EXPECT_TRUE(parsed) << problem;
  return parsed.value_or(Policies());
}

TEST(LocalPolicies, RefusesAFileThatDoesNotMeanWhatItSeemsToMean) {
  const struct {
    const char* text;
    const char* problem;
  } cases[] = {
      {"", "it is not a JSON object"},
      {"[]", "it is not a JSON object"},
      {R"({"rules":[]},)", "it is not a JSON object"},
      {R"({"cost-cap":1})", "unknown member \"cost-cap\""},
      {R"({"cost_cap":"1"})", "\"cost_cap\" is not a positive number"},
      {R"({"cost_cap":0})", "\"cost_cap\" is not a positive number"},
      {R"({"rules":{}})", "\"rules\" is not a list"},
      {R"({"rules":["tool:Bash"]})", "rule 1 is not an object"},
      {R"({"rules":[{"workflow":"a","action":"warn"},{"action":"warn"}]})", "rule 2 needs a \"workflow\""},
      {R"({"rules":[{"workflow":"a","action":"deny"}]})",
       "rule 1 needs an \"action\" that is \"allow\", \"warn\" or \"block\""},
      {R"({"rules":[{"workflow":"a","action":"warn","reasons":"x"}]})",
       "rule 1 has the unknown member \"reasons\""},
      {R"({"rules":[{"workflow":"a","action":"warn","reason":7}]})",
       "rule 1 has a \"reason\" that is not a string"},
      {R"({"compaction_token_budget":5})",
       "\"compaction_token_budget\" is not an object of \"warn\" and \"block\""},
      {R"({"compaction_token_budget":{"wran":5}})",
       "\"compaction_token_budget\" is not an object of \"warn\" and \"block\""},
      {R"({"compaction_token_budget":{"warn":1.5}})",
       "\"compaction_token_budget\": \"warn\" is not a positive whole number"},
  };
  for (const auto& [text, expected] : cases) {
    std::string problem;
    EXPECT_FALSE(parsePolicies(text, problem)) << text;
    EXPECT_EQ(problem, expected) << text;
  }
}

TEST(LocalPolicies, TheExampleIsUsable) {
  std::string problem;
  EXPECT_TRUE(parsePolicies(contentOf(QUIB_SOURCE_DIR "/Docs/policy.example.json"), problem)) << problem;
}

TEST(LocalPolicies, TheFirstRuleThatMatchesDecidesAndTheStricterOfRuleAndBudgetHolds) {
  const Policies some = policies(R"({
    "rules": [
      {"workflow": "tool:mcp__wiki__*", "action": "allow"},
      {"workflow": "tool:mcp__*", "action": "warn", "reason": "other people"},
      {"workflow": "tool:Web*", "action": "block"},
      {"workflow": "claude-code:precompact", "action": "warn", "reason": "rule"}],
    "compaction_token_budget": {"warn": 100, "block": 200}})");
  const struct {
    const char* workflow;
    std::int64_t tokens;
    const char* action;
    const char* reason;
  } cases[] = {
      {"tool:Bash", 999, "allow", ""},
      {"tool:mcp__wiki__read", 0, "allow", ""},
      {"tool:mcp__chat__send/all", 0, "warn", "other people"},
      {"tool:WebFetch", 0, "block", ""},
      {"xtool:WebFetch", 0, "allow", ""},
      {"claude-code:stop", 999, "allow", ""},
      {"claude-code:precompact", 100, "warn", "rule"},
      {"claude-code:precompact", 150, "warn", "rule"},
      {"claude-code:precompact", 201, "block", "The run has used 201 tokens; its budget is 200."},
  };
  for (const auto& [workflow, tokens, action, reason] : cases) {
    const Verdict verdict = evaluate(some, workflow, tokens);
    EXPECT_EQ(verdict.action, action) << workflow << " " << tokens;
    EXPECT_EQ(verdict.reason, reason) << workflow << " " << tokens;
  }
  EXPECT_EQ(
      evaluate(policies(R"({"compaction_token_budget":{"warn":9}})"), "claude-code:precompact", 10).action,
      "warn");
}

TEST(LocalPolicies, AChangedFileIsTakenOverAndABrokenOneLeavesTheLastGoodOneInForce) {
  const Sandbox sandbox;
  const std::string path = sandbox.project() + "/policy.json";
  const auto action = [](const PolicyFile& file) { return evaluate(file.policies(), "tool:Bash", 0).action; };
  sandbox.write(path, R"({"rules":[{"workflow":"tool:*","action":"warn"}]})");
  PolicyFile file(path);
  EXPECT_TRUE(file.refresh());
  EXPECT_FALSE(file.refresh()) << "nothing has changed";
  EXPECT_EQ(action(file), "warn");

  sandbox.write(path, R"({"rules":[{"workflow":"tool:*","action":"blok"}]})");
  EXPECT_TRUE(file.refresh());
  EXPECT_NE(file.problem(), "");
  EXPECT_EQ(action(file), "warn");

  Files::remove(path);
  EXPECT_TRUE(file.refresh());
  EXPECT_EQ(file.problem(), "it cannot be read");
  EXPECT_EQ(action(file), "warn");

  sandbox.write(path, R"({"rules":[{"workflow":"tool:*","action":"block"}]})");
  EXPECT_TRUE(file.refresh());
  EXPECT_EQ(file.problem(), "");
  EXPECT_EQ(action(file), "block");
}

}  // namespace
