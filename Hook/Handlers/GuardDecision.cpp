#include "Hook/Handlers/GuardDecision.h"

#include "Hook/Handlers/Steps.h"
#include "Platform/Clock.h"

namespace EventRouter {

void emitGuardDecision(SessionState& state, const std::string& toolName, const GuardDecision& decision,
                       const ObserveClient& client) {
  if (state.run_id.empty() || !client.config.isConfigured()) return;
  Json::Object output{{"kind", "guard_decision"},       {"source", "hook"},
                      {"session_id", state.session_id}, {"tool_name", toolName},
                      {"action", decision.action},      {"violations", Json::Array{decision.violation}},
                      {"rule", decision.rule},          {"timestamp", Clock::dateTime()}};
  Json::Object step{{"step_name", "hook:guard_decision:" + decision.action},
                    {"position", state.span_count},
                    {"output", std::move(output)}};
  recordStep(state, std::move(step), client);
}

}  // namespace EventRouter
