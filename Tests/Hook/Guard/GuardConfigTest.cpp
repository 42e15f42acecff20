#include "Hook/Guard/GuardConfig.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Hook/Guard/HookHandler.h"
#include "Tests/Support/Sandbox.h"

namespace {

GuardConfig changed(const std::function<void(GuardConfig&)>& change) {
  GuardConfig config = GuardConfig::defaults();
  change(config);
  return config;
}

TEST(GuardConfig, ReadsEveryKey) {
  const GuardConfig config = GuardConfig::fromDict(parsed(R"({
    "blocked_command_patterns": ["a"], "warn_command_patterns": ["b"], "protected_file_patterns": ["c"],
    "warn_file_patterns": ["d"], "path_boundary_enabled": true, "git_protected_branches": ["e"],
    "git_block_force_push": false, "git_block_hard_reset": false, "git_block_config_edit": false,
    "blocked_domains": ["f"], "block_internal_urls": false, "max_file_changes": 7, "warn_file_changes": -8,
    "detect_file_conflicts": false, "infra_file_patterns": ["g"], "unknown": 1})"));
  const GuardConfig expected = {
      .blocked_command_patterns = {"a"},
      .warn_command_patterns = {"b"},
      .protected_file_patterns = {"c"},
      .warn_file_patterns = {"d"},
      .path_boundary_enabled = true,
      .git_protected_branches = {"e"},
      .git_block_force_push = false,
      .git_block_hard_reset = false,
      .git_block_config_edit = false,
      .blocked_domains = {"f"},
      .block_internal_urls = false,
      .max_file_changes = 7,
      .warn_file_changes = -8,
      .detect_file_conflicts = false,
      .infra_file_patterns = {"g"},
  };
  EXPECT_EQ(config, expected);
}

TEST(GuardConfig, TakesOnlyValuesOfTheFieldsType) {
  struct Row {
    const char* sentence;
    std::string members;
    std::function<void(GuardConfig&)> change;  // of the defaults
  };
  const auto nothing = [](GuardConfig&) {};
  const std::vector<Row> rows = {
      {"an empty list empties the list", R"("blocked_command_patterns": [])",
       [](auto& c) { c.blocked_command_patterns.clear(); }},
      {"a number among strings spoils the list", R"("blocked_command_patterns": ["a", 1])", nothing},
      {"a null among strings spoils the list", R"("blocked_domains": [null])", nothing},
      {"a string is no list", R"("blocked_domains": "a.example")", nothing},
      {"a list replaces, it does not add", R"("git_protected_branches": ["trunk"])",
       [](auto& c) { c.git_protected_branches = {"trunk"}; }},
      {"0 is false", R"("block_internal_urls": 0)", [](auto& c) { c.block_internal_urls = false; }},
      {"1 is true", R"("path_boundary_enabled": 1)", [](auto& c) { c.path_boundary_enabled = true; }},
      {"1.0 is true", R"("path_boundary_enabled": 1.0)", [](auto& c) { c.path_boundary_enabled = true; }},
      {"2 is no Boolean", R"("path_boundary_enabled": 2)", nothing},
      {"0.5 is no Boolean", R"("block_internal_urls": 0.5)", nothing},
      {"a string is no Boolean", R"("path_boundary_enabled": "true")", nothing},
      {"null is no Boolean", R"("block_internal_urls": null)", nothing},
      {"an integer may be written with a fraction of zero", R"("max_file_changes": 10.0)",
       [](auto& c) { c.max_file_changes = 10; }},
      {"10.5 is no integer", R"("max_file_changes": 10.5)", nothing},
      {"true is no integer", R"("max_file_changes": true)", nothing},
      {"a string is no integer", R"("max_file_changes": "10")", nothing},
      {"an integer beyond 64 bits is none", R"("max_file_changes": 1e30)", nothing},
      {"the largest integer is one", R"("max_file_changes": 9223372036854775807)",
       [](auto& c) { c.max_file_changes = INT64_MAX; }},
      {"a bad member does not spoil the next", R"("max_file_changes": "x", "warn_file_changes": 3)",
       [](auto& c) { c.warn_file_changes = 3; }},
      {"keys are told apart by case", R"("Max_File_Changes": 3)", nothing},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(GuardConfig::fromDict(parsed("{" + row.members + "}")), changed(row.change)) << row.sentence;
  }
}

// The four files, written where they are not empty. Every layer sets numbers of its own, so that they tell
// which of them came through.
TEST(LoadEffectiveConfig, LaysTheFilesOverTheDefaults) {
  const std::string effective = R"({"effective": {"max_file_changes": 1}})";
  const std::string policy = R"({"config": {"max_file_changes": 2, "warn_file_changes": 2}})";
  struct Row {
    const char* sentence;
    std::string effective, policy, user, project;
    std::int64_t maximum, warning;
  };
  const Row rows[] = {
      {"no file leaves the defaults", "", "", "", "", 50, 20},
      {"the effective guard hides the policy", effective, policy, "", "", 1, 20},
      {"an empty effective guard does not", R"({"effective": {}})", policy, "", "", 2, 2},
      {"nor one that is no object", R"({"effective": []})", policy, "", "", 2, 2},
      {"nor one at the top level", R"({"max_file_changes": 1})", policy, "", "", 2, 2},
      {"nor a malformed file", R"({"effective": {"max_file_changes": 1})", policy, "", "", 2, 2},
      {"one without any known key hides the policy, too", R"({"effective": {"x": 1}})", policy, "", "", 50,
       20},
      {"a policy's guard_config serves without config", "", R"({"guard_config": {"max_file_changes": 3}})",
       "", "", 3, 20},
      {"and with a config that is no object", "",
       R"({"config": [], "guard_config": {"max_file_changes": 3}})", "", "", 3, 20},
      {"but not with an empty config", "", R"({"config": {}, "guard_config": {"max_file_changes": 3}})", "",
       "", 50, 20},
      {"nor beside a full one", "",
       R"({"config": {"warn_file_changes": 2}, "guard_config": {"max_file_changes": 3}})", "", "", 50, 2},
      {"the user's guard lies over the effective one", effective, "", R"({"max_file_changes": 4})", "", 4,
       20},
      {"the user's guard lies over the policy", "", policy, R"({"max_file_changes": 4})", "", 4, 2},
      {"the project's lies over all", effective, policy, R"({"max_file_changes": 4, "warn_file_changes": 4})",
       R"({"max_file_changes": 5})", 5, 4},
      {"a malformed user's guard is passed over", effective, "", "{", R"({"warn_file_changes": 5})", 1, 5},
      {"a list is no guard", effective, "", "[1]", "", 1, 20},
      {"a project's guard may lift what the user's sets", "", "", R"({"max_file_changes": 4})",
       R"({"max_file_changes": 0})", 0, 20}};
  for (const Row& row : rows) {
    const Sandbox sandbox;
    const auto write = [&](const std::string& path, const std::string& text) {
      if (!text.empty()) sandbox.write(path, text);
    };
    write(sandbox.home() + "/.obrisk/guard-effective.json", row.effective);
    write(sandbox.home() + "/.obrisk/policy.json", row.policy);
    write(sandbox.home() + "/.obrisk/guard.json", row.user);
    write(sandbox.project() + "/.obrisk/guard.json", row.project);
    const GuardConfig config = HookHandler::loadEffectiveConfig(sandbox.project());
    EXPECT_EQ(config, changed([&](GuardConfig& c) {
                c.max_file_changes = row.maximum;
                c.warn_file_changes = row.warning;
              }))
        << row.sentence << ": " << config.max_file_changes << ", " << config.warn_file_changes;
  }
}

TEST(LoadEffectiveConfig, HasNoProjectLayerWithoutADirectory) {
  const Sandbox sandbox;
  sandbox.write(sandbox.project() + "/.obrisk/guard.json", R"({"max_file_changes": 5})");
  EXPECT_EQ(HookHandler::loadEffectiveConfig("").max_file_changes, 50);
  EXPECT_EQ(HookHandler::loadEffectiveConfig(sandbox.project()).max_file_changes, 5);
}

TEST(LoadEffectiveConfig, ReadsAFileOfTenThousandPatterns) {
  const Sandbox sandbox;
  const std::vector<std::string> patterns(10'000, "x+");
  const Json::Object guard{{"blocked_command_patterns", patterns}};
  sandbox.write(sandbox.project() + "/.obrisk/guard.json", Json(guard).compact());
  EXPECT_EQ(HookHandler::loadEffectiveConfig(sandbox.project()).blocked_command_patterns, patterns);
}

}  // namespace
