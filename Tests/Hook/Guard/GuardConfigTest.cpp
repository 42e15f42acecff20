#include "Hook/Guard/GuardConfig.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Hook/Guard/HookHandler.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

namespace {

// The members that differ from the defaults, as the fields are named.
GuardConfig changed(const std::string& members) {
  return GuardConfig::fromDict(parsed("{" + members + "}"));
}

// `text` with the keys "max" and "warn" spelled in full.
std::string inFull(std::string text) {
  for (const std::string key : {"max\"", "warn\""})
    if (const auto at = text.find("\"" + key); at != text.npos) text.insert(at + key.size(), "_file_changes");
  return text;
}

TEST(GuardConfig, HasTheDefaultLists) {
  const GuardConfig& config = GuardConfig::defaults();
  EXPECT_EQ(config.protected_file_patterns, words(R"(
      .env .env.* .env.local .env.production .env.staging **/credentials* **/secrets.yml **/secrets.yaml
      **/secrets.json **/*.pem **/*.key **/id_rsa **/id_rsa.pub **/id_ed25519 **/id_ed25519.pub
      **/.ssh/authorized_keys **/.ssh/known_hosts **/.aws/credentials **/.aws/config **/.config/gcloud/*
      .git/config **/.netrc **/.npmrc **/.pypirc)"));
  EXPECT_EQ(config.warn_file_patterns, words("*.lock *lock.json *lock.yaml .gitignore .dockerignore"));
  EXPECT_EQ(config.git_protected_branches, words("main master develop release/* production"));
  EXPECT_EQ(config.infra_file_patterns, words(R"(
      Dockerfile Dockerfile.* docker-compose*.yml docker-compose*.yaml .github/** .gitlab-ci.yml .gitlab-ci/**
      Jenkinsfile .circleci/** **/*.tf **/terraform/** **/k8s/** **/kubernetes/** **/helm/** Makefile justfile
      Procfile .buildpacks fly.toml render.yaml vercel.json netlify.toml)"));
}

TEST(GuardConfig, ReadsEveryKey) {
  const GuardConfig expected = {{"a"}, {"b"}, {"c"}, {"d"}, true, {"e"}, false, false,
                                false, {"f"}, false, 7,     -8,   false, {"g"}};
  EXPECT_EQ(changed(R"(
    "blocked_command_patterns": ["a"], "warn_command_patterns": ["b"], "protected_file_patterns": ["c"],
    "warn_file_patterns": ["d"], "path_boundary_enabled": true, "git_protected_branches": ["e"],
    "git_block_force_push": false, "git_block_hard_reset": false, "git_block_config_edit": false,
    "blocked_domains": ["f"], "block_internal_urls": false, "max_file_changes": 7, "warn_file_changes": -8,
    "detect_file_conflicts": false, "infra_file_patterns": ["g"], "unknown": 1)"),
            expected);
}

TEST(GuardConfig, TakesOnlyValuesOfTheFieldsType) {
  // The first is taken for the second, which is what the field may hold; an empty one is as the default.
  for (const auto& row : rows(R"(
      "blocked_command_patterns": ["a", 1]         ¦
      "blocked_domains": [null]                    ¦
      "blocked_domains": "a.example"               ¦
      "block_internal_urls": 0                     ¦ "block_internal_urls": false
      "path_boundary_enabled": 1                   ¦ "path_boundary_enabled": true
      "path_boundary_enabled": 1.0                 ¦ "path_boundary_enabled": true
      "path_boundary_enabled": 2                   ¦
      "block_internal_urls": 0.5                   ¦
      "path_boundary_enabled": "true"              ¦
      "block_internal_urls": null                  ¦
      "max_file_changes": 10.0                     ¦ "max_file_changes": 10
      "max_file_changes": 10.5                     ¦
      "max_file_changes": true                     ¦
      "max_file_changes": "10"                     ¦
      "max_file_changes": 1e30                     ¦
      "max_file_changes": "x", "warn_file_changes": 3 ¦ "warn_file_changes": 3
      "Max_File_Changes": 3                        ¦
      )"))
    EXPECT_EQ(changed(row[0]), changed(row[1])) << row[0];
  EXPECT_EQ(changed(R"("max_file_changes": 9223372036854775807)").max_file_changes, INT64_MAX);
  EXPECT_TRUE(changed(R"("blocked_command_patterns": [])").blocked_command_patterns.empty());
}

// Every layer sets numbers of its own, so that they tell which of them came through.
TEST(LoadEffectiveConfig, LaysTheFilesOverTheDefaults) {
  // guard-effective.json ¦ policy.json ¦ the user's guard.json ¦ the project's ¦ maximum ¦ warning
  for (const auto& row : rows(R"(
                                ¦                                 ¦            ¦            ¦ 50 ¦ 20
      {"effective": {"max": 1}} ¦ {"config": {"max": 2, "warn": 2}} ¦          ¦            ¦ 1  ¦ 20
      {"effective": {}}         ¦ {"config": {"max": 2, "warn": 2}} ¦          ¦            ¦ 2  ¦ 2
      {"effective": []}         ¦ {"config": {"max": 2}}          ¦            ¦            ¦ 2  ¦ 20
      {"max": 1}                ¦ {"config": {"max": 2}}          ¦            ¦            ¦ 2  ¦ 20
      {"effective": {"max": 1}  ¦ {"config": {"max": 2}}          ¦            ¦            ¦ 2  ¦ 20
      {"effective": {"x": 1}}   ¦ {"config": {"max": 2}}          ¦            ¦            ¦ 50 ¦ 20
                                ¦ {"guard_config": {"max": 3}}    ¦            ¦            ¦ 3  ¦ 20
                                ¦ {"config": [], "guard_config": {"max": 3}} ¦ ¦            ¦ 3  ¦ 20
                                ¦ {"config": {}, "guard_config": {"max": 3}} ¦ ¦            ¦ 50 ¦ 20
                                ¦ {"config": {"warn": 2}, "guard_config": {"max": 3}} ¦ ¦   ¦ 50 ¦ 2
      {"effective": {"max": 1}} ¦                                 ¦ {"max": 4} ¦            ¦ 4  ¦ 20
                                ¦ {"config": {"max": 2, "warn": 2}} ¦ {"max": 4} ¦          ¦ 4  ¦ 2
      {"effective": {"max": 1}} ¦ {"config": {"max": 2}} ¦ {"max": 4, "warn": 4} ¦ {"max": 5} ¦ 5 ¦ 4
      {"effective": {"max": 1}} ¦                                 ¦ {          ¦ {"warn": 5} ¦ 1 ¦ 5
      {"effective": {"max": 1}} ¦                                 ¦ [1]        ¦            ¦ 1  ¦ 20
                                ¦                                 ¦ {"max": 4} ¦ {"max": 0} ¦ 0  ¦ 20
      )")) {
    const Sandbox sandbox;
    const std::string user = sandbox.home() + "/.obrisk/";
    const std::string files[] = {user + "guard-effective.json", user + "policy.json", user + "guard.json",
                                 sandbox.project() + "/.obrisk/guard.json"};
    for (std::size_t i = 0; i < 4; ++i)
      if (!row[i].empty()) sandbox.write(files[i], inFull(row[i]));
    EXPECT_EQ(HookHandler::loadEffectiveConfig(sandbox.project()),
              changed(inFull("\"max\": " + row[4] + ", \"warn\": " + row[5])))
        << row[0] << row[1] << row[2] << row[3];
  }
}

TEST(LoadEffectiveConfig, HasNoProjectLayerWithoutADirectory) {
  const Sandbox sandbox;
  const std::vector<std::string> patterns(10'000, "x+");
  const Json::Object guard{{"blocked_command_patterns", patterns}};
  sandbox.write(sandbox.project() + "/.obrisk/guard.json", Json(guard).compact());
  EXPECT_EQ(HookHandler::loadEffectiveConfig(""), GuardConfig::defaults());
  EXPECT_EQ(HookHandler::loadEffectiveConfig(sandbox.project()).blocked_command_patterns, patterns);
}

}  // namespace
