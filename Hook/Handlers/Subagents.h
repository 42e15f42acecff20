// Records the subagents of a session, each as one span from its start to its stop, and the sessions that work
// side by side in one directory. The start of a running subagent waits in the session's record. Always
// allows.
#pragma once

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/Handlers/Outcome.h"

namespace EventRouter {

Outcome handleSubagentStart(const Json::Object& data, const ObserveClient& client);

// A stop whose start is unknown gives a span that begins at the stop. It takes two positions of the session's
// numbering; the second carries no step.
Outcome handleSubagentStop(const Json::Object& data, const ObserveClient& client);

// Makes the session one of a cowork group for the rest of its life.
Outcome handleTeammateIdle(const Json::Object& data, const ObserveClient& client);

}  // namespace EventRouter
