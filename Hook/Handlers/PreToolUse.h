// Decides whether the tool call that the agent announces may run. Objections come in a fixed order: the local
// guard rules, a conflict with another session in the directory, the limit on modified files, the control
// plane's policy. A session without a run is not judged at all.
#pragma once

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/Handlers/Outcome.h"

namespace EventRouter {

// Deny when the guard or the control plane blocks, or when the control plane cannot be asked and the profile
// says "deny" then; ask when anything warns; else allow. Reports every decision of a rule or a policy.
Outcome handlePreToolUse(const Json::Object& data, const ObserveClient& client);

}  // namespace EventRouter
