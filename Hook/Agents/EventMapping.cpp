#include "Hook/Agents/EventMapping.h"

#include <algorithm>
#include <string>
#include <utility>

namespace EventMapping {
namespace {

Json substitute(Missing missing) {
  switch (missing) {
    case Missing::emptyObject:
      return Json::Object{};
    case Missing::zero:
      return 0;
    case Missing::emptyText:
      break;
  }
  return "";
}

Json valueOf(const Member& member, const Json::Object& raw) {
  if (member.derived) return member.derived(raw);
  if (member.source.empty()) return member.text;
  const Json* found = raw.find(member.source);
  return found ? *found : substitute(member.missing);
}

}  // namespace

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
  for (const Member& member : row->members) {
    if (!member.key.empty()) common.set(member.key, valueOf(member, raw));
  }
  return {std::string(row->hookEventName), std::move(common)};
}

}  // namespace EventMapping
