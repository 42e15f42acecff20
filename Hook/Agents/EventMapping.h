// Translation of another agent's events by table: which event of ours each of its events stands for, and
// where the members come from. Every event has a translation, an unknown one a notification of its name.
#pragma once

#include <array>
#include <span>
#include <string_view>

#include "Hook/Agents/AgentDialect.h"

namespace EventMapping {

// What stands for a member to copy that is missing.
enum class Missing { emptyText, emptyObject, zero };

// One member of the translated event.
struct Member {
  std::string_view key{};     // empty: none
  std::string_view source{};  // the member to copy its value from, whatever the type
  Missing missing{};
  std::string_view text{};                             // the value, where it is the same for every event
  Json (*derived)(const Json::Object& raw) = nullptr;  // the value, where it takes more than copying
};

constexpr Member copied(std::string_view key, std::string_view source, Missing missing = Missing::emptyText) {
  return {.key = key, .source = source, .missing = missing};
}
constexpr Member fixed(std::string_view key, std::string_view text) {
  return {.key = key, .text = text};
}
constexpr Member derived(std::string_view key, Json (*value)(const Json::Object& raw)) {
  return {.key = key, .derived = value};
}

struct Row {
  std::array<std::string_view, 3> names;  // the agent's names for the event; empty: none
  std::string_view hookEventName;
  std::array<Member, 3> members{};
};

// The translation of `raw`, whose name is `event`: `common`, the name from the row of `table`, its members.
NormalizedEvent apply(std::span<const Row> table, std::string_view event, const Json::Object& raw,
                      Json::Object common);

}  // namespace EventMapping
