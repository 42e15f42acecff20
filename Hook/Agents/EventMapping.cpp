#include "Hook/Agents/EventMapping.h"

#include <algorithm>
#include <string>
#include <utility>

namespace EventMapping {
namespace {

Json valueOf(const Copied& copied, const Json::Object& raw) {
  return valueOr(raw, copied.source, "");
}
Json valueOf(const Fixed& fixed, const Json::Object&) {
  return fixed.text;
}
Json valueOf(Derived derived, const Json::Object& raw) {
  return derived(raw);
}

}  // namespace

Json valueOr(const Json::Object& raw, std::string_view key, Json missing) {
  const Json* value = raw.find(key);
  return value ? *value : std::move(missing);
}

NormalizedEvent apply(std::span<const Row> table, std::string_view event, const Json::Object& raw,
                      Json::Object common) {
  const auto row = std::ranges::find_if(table, [&](const Row& candidate) {
    return std::ranges::find(candidate.names, event) != candidate.names.end();
  });
  if (event.empty() || row == table.end()) {
    common.set("hook_event_name", "Notification");
    common.set("message", event);
    common.set("notification_type", event);
    return {"Notification", std::move(common)};
  }
  common.set("hook_event_name", row->hookEventName);
  for (const auto& member : row->members) {
    if (!member) continue;
    common.set(member->key,
               std::visit([&](const auto& value) { return valueOf(value, raw); }, member->value));
  }
  return {std::string(row->hookEventName), std::move(common)};
}

}  // namespace EventMapping
