#include "Hook/Guard/GuardConfig.h"

#include <string_view>
#include <utility>

#include "Hook/Guard/BuiltInPatterns.h"

namespace {

void replace(std::vector<std::string>& field, const Json& value) {
  if (auto texts = value.asTexts()) field = std::move(*texts);
}

void replace(bool& field, const Json& value) {
  if (const bool* flag = value.asFlag()) field = *flag;
  if (const auto number = value.asNumber(); number == 0.0 || number == 1.0) field = *number == 1.0;
}

void replace(std::int64_t& field, const Json& value) {
  if (const auto integer = value.asInteger()) field = *integer;
}

std::vector<std::string> expressions(const auto& patterns) {
  std::vector<std::string> texts;
  texts.reserve(patterns.size());
  for (const GuardPattern& pattern : patterns)
    texts.emplace_back(pattern.expression);
  return texts;
}

GuardConfig makeDefaults() {
  const auto texts = [](const auto& list) { return std::vector<std::string>(list.begin(), list.end()); };
  GuardConfig config;
  config.blocked_command_patterns = expressions(BuiltIn::defaultBlockedCommands);
  config.warn_command_patterns = expressions(BuiltIn::defaultWarnCommands);
  config.protected_file_patterns = texts(BuiltIn::defaultProtectedFiles);
  config.warn_file_patterns = texts(BuiltIn::defaultWarnFiles);
  config.git_protected_branches = texts(BuiltIn::defaultProtectedBranches);
  config.infra_file_patterns = texts(BuiltIn::defaultInfraFiles);
  return config;
}

}  // namespace

const GuardConfig& GuardConfig::defaults() {
  static const GuardConfig config = makeDefaults();
  return config;
}

GuardConfig GuardConfig::fromDict(const Json::Object& dict) {
  GuardConfig config = defaults();
  config.apply(dict);
  return config;
}

void GuardConfig::apply(const Json::Object& members) {
  const auto apply = [&](std::string_view key, auto& field) {
    if (const Json* value = members.find(key)) replace(field, *value);
  };
  apply("blocked_command_patterns", blocked_command_patterns);
  apply("warn_command_patterns", warn_command_patterns);
  apply("protected_file_patterns", protected_file_patterns);
  apply("warn_file_patterns", warn_file_patterns);
  apply("path_boundary_enabled", path_boundary_enabled);
  apply("git_protected_branches", git_protected_branches);
  apply("git_block_force_push", git_block_force_push);
  apply("git_block_hard_reset", git_block_hard_reset);
  apply("git_block_config_edit", git_block_config_edit);
  apply("blocked_domains", blocked_domains);
  apply("block_internal_urls", block_internal_urls);
  apply("max_file_changes", max_file_changes);
  apply("warn_file_changes", warn_file_changes);
  apply("detect_file_conflicts", detect_file_conflicts);
  apply("infra_file_patterns", infra_file_patterns);
  apply("guard_without_run", guard_without_run);
}
