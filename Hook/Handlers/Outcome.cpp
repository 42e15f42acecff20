#include "Hook/Handlers/Outcome.h"

#include "Platform/Json/Json.h"

namespace {

Json::Object decision(const std::string& event, const char* decision, const char* member,
                      const std::string& text) {
  return {{"hookSpecificOutput",
           Json::Object{{"hookEventName", event}, {"permissionDecision", decision}, {member, text}}}};
}

Json::Object body(const Allow&) {
  return {{"continue", true}};
}

Json::Object body(const Ask& ask) {
  return decision(ask.hookEventName, "ask", "additionalContext", ask.context);
}

Json::Object body(const Deny& deny) {
  return decision(deny.hookEventName, "deny", "permissionDecisionReason", deny.reason);
}

}  // namespace

std::string renderJSON(const Outcome& outcome) {
  return Json(std::visit([](const auto& held) { return body(held); }, outcome)).compact();
}
