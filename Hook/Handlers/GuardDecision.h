// What a rule or a policy decided against a tool call or a compaction, or found in a turn's cost, is reported
// as a step of the session's run.
#pragma once

#include <string>

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/State/SessionState.h"

namespace EventRouter {

struct GuardDecision {
  std::string action;     // what was decided, for example "deny"
  std::string violation;  // why
  std::string rule;       // which rule decided
};

// Records the guard-decision step. Does nothing without a run or a configuration; never fails.
void emitGuardDecision(SessionState& state, const std::string& toolName, const GuardDecision& decision,
                       const ObserveClient& client);

}  // namespace EventRouter
