// The end of a turn: the LLM calls that the agent made since the last one are read from its transcript,
// priced and sent, the cost is held against the control plane's cap, and the run is completed, unless it is a
// daily one. Always allows; nothing that goes wrong is reported to the agent.
#pragma once

#include <optional>

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/Handlers/Outcome.h"
#include "Hook/State/SessionState.h"
#include "Hook/Transcript/Transcript.h"

namespace EventRouter {

Outcome handleStop(const Json::Object& data, const ObserveClient& client);

// Reports a cost above the cap of the control plane as a guard decision, once for a session. `summary` is
// absent when the event named no transcript.
void reconcileStopCost(SessionState& state, const std::optional<TranscriptSummary>& summary,
                       const ObserveClient& client);

}  // namespace EventRouter
