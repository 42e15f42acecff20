// Asks the control plane whether the run's budget allows the agent to compact its context. The hook's own
// problems never hold a compaction up.
#pragma once

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/Handlers/Outcome.h"

namespace EventRouter {

// Deny on the policy's "block", ask on its "warn", else allow. Records the event as a step first.
Outcome handlePreCompact(const Json::Object& data, const ObserveClient& client);

}  // namespace EventRouter
