// The result of one event, and its rendering for Claude Code. The adapters render the same outcome for the
// other agents.
#pragma once

#include <string>
#include <variant>

// The agent goes on.
struct Allow {
  bool operator==(const Allow&) const = default;
};

// The agent must ask the user before it goes on; `context` is the text shown with the question.
struct Ask {
  std::string hookEventName;
  std::string context;
  bool operator==(const Ask&) const = default;
};

// The tool call or action is refused; `reason` says why.
struct Deny {
  std::string hookEventName;
  std::string reason;
  bool operator==(const Deny&) const = default;
};

using Outcome = std::variant<Allow, Ask, Deny>;

// The answer to Claude Code: one JSON object, keys sorted, no white space.
std::string renderJSON(const Outcome& outcome);
