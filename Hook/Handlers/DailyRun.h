// An agent with a slug shares one run a day among its sessions. A session that outlives the UTC day is moved
// to the run of the new one. A control plane that does not answer leaves it where it is.
#pragma once

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/State/SessionState.h"

namespace EventRouter {

// Moves a started session whose `started_at` is not of today onto the agent's current daily run: ends the old
// run with a rollover step, then replaces the run of `state` and saves it.
void refreshDailyRunIfStale(SessionState& state, const ObserveClient& client);

}  // namespace EventRouter
