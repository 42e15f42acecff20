// Translation of another agent's events by table: which event of ours each of its events stands for, and
// where the members come from. Every event has a translation, an unknown one a notification of its name.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string_view>
#include <variant>

#include "Hook/Agents/AgentDialect.h"

namespace EventMapping {

// Where a member's value comes from: another member, whatever its type (the empty string when it is missing);
// the table; a function.
struct Copied {
  std::string_view source;
};
struct Fixed {
  std::string_view text;
};
using Derived = Json (*)(const Json::Object& raw);

struct Member {
  std::string_view key;
  std::variant<Copied, Fixed, Derived> value;
};

struct Row {
  std::array<std::string_view, 3> names;  // the agent's names for the event; empty: none
  std::string_view hookEventName;
  std::array<std::optional<Member>, 3> members{};
};

// The member's value, whatever its type; `missing` when there is none.
Json valueOr(const Json::Object& raw, std::string_view key, Json missing);

// The translation of `raw`, whose name is `event`: `common`, the name from the row of `table`, its members.
NormalizedEvent apply(std::span<const Row> table, std::string_view event, const Json::Object& raw,
                      Json::Object common);

}  // namespace EventMapping
