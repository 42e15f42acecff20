#include "Hook/Handlers/Outcome.h"

#include "Platform/Json/Json.h"

namespace {

Json::Object body(const EventRouter::Allow&) {
  return {{"continue", true}};
}

Json::Object body(const EventRouter::Ask& ask) {
  return {{"hookSpecificOutput", Json::Object{{"hookEventName", ask.hookEventName},
                                              {"permissionDecision", "ask"},
                                              {"additionalContext", ask.context}}}};
}

Json::Object body(const EventRouter::Deny& deny) {
  return {{"hookSpecificOutput", Json::Object{{"hookEventName", deny.hookEventName},
                                              {"permissionDecision", "deny"},
                                              {"permissionDecisionReason", deny.reason}}}};
}

}  // namespace

std::string renderJSON(const Outcome& outcome) {
  return Json(std::visit([](const auto& held) { return body(held); }, outcome)).compact();
}
