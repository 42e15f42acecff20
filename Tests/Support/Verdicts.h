// Verdicts as one line of text, so that tables of expected ones read well: "block git_safety: message", or
// "none".
#pragma once

#include <optional>
#include <string>

#include "Hook/Guard/GuardConfig.h"

inline std::string described(const std::optional<Verdict>& verdict) {
  if (!verdict) return "none";
  static constexpr const char* actions[] = {"allow", "warn", "block"};
  return std::string(actions[static_cast<int>(verdict->action)]) + " " + verdict->rule + ": " +
         verdict->message;
}
