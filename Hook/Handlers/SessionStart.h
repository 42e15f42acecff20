// A session becomes a run of the control plane when it starts, or at its first event when its start was
// missed: the agent's daily run when a slug is configured, else a run of its own. Without a run nothing is
// stored, and the next event tries again. Nothing here fails.
#pragma once

#include <optional>
#include <string>

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/Handlers/Outcome.h"
#include "Hook/State/SessionState.h"

namespace EventRouter {

// Starts the session of the event, unless it has a run already. Sessions in one directory at one time know
// each other as a cowork group, each with a run of its own. Always allows.
Outcome handleSessionStart(const Json::Object& data, const ObserveClient& client);

// The session's record, moved to today's daily run when that is due. An unknown session is started from the
// event `lazyData`, unless that is null; the record may then have an empty `run_id`. Absent when there is no
// record.
std::optional<SessionState> loadStateFresh(const std::string& sessionID, const Json::Object* lazyData,
                                           const ObserveClient& client);

// What every handler begins with: the record of the event's session, started when it is unknown; absent when
// it has no run.
std::optional<SessionState> loadStarted(const Json::Object& data, const ObserveClient& client);

}  // namespace EventRouter
