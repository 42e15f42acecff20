// What the local guard objects to, and what it says when it does. Plain values: they read no file, judge no
// tool call, and a member of the wrong type leaves the field as it was.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Platform/Json/Json.h"

// Each field is named exactly like its key in a guard configuration file.
struct GuardConfig {
  std::vector<std::string> blocked_command_patterns;  // regular expressions
  std::vector<std::string> warn_command_patterns;     // regular expressions
  std::vector<std::string> protected_file_patterns;   // globs
  std::vector<std::string> warn_file_patterns;        // globs
  bool path_boundary_enabled = false;
  std::vector<std::string> git_protected_branches;  // names or globs
  bool git_block_force_push = true;
  bool git_block_hard_reset = true;
  bool git_block_config_edit = true;
  std::vector<std::string> blocked_domains;
  bool block_internal_urls = true;
  std::int64_t max_file_changes = 50;   // below 1: no limit
  std::int64_t warn_file_changes = 20;  // below 1: no warning
  bool detect_file_conflicts = true;
  std::vector<std::string> infra_file_patterns;  // globs
  bool guard_without_run = false;                // of a project's file, it means nothing

  // The built-in configuration: the default lists, and the values above.
  static const GuardConfig& defaults();

  // The defaults with the members of `dict` over them.
  static GuardConfig fromDict(const Json::Object& dict);

  // Replaces each field whose key `members` holds with a value of the field's type; lists are replaced whole.
  // A list field takes an array of strings only, a Boolean field also the numbers 0 and 1, an integer field a
  // number that is exactly an integer.
  void apply(const Json::Object& members);

  bool operator==(const GuardConfig&) const = default;
};

// The result of one guard check.
struct Verdict {
  enum class Action { allow = 0, warn = 1, block = 2 };

  Action action = Action::allow;
  std::string message;  // for a person; empty for allow
  std::string rule;     // the rule's identifier; empty for allow

  bool operator==(const Verdict&) const = default;
};
