// Events that need no logic of their own become one step of the session's run; the end of a session is a
// stop.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/Handlers/Outcome.h"

namespace EventRouter {

// Records the event as a step of that kind, with the members `includeKeys` that the event has, unchanged;
// with all but those that every event carries when the list is empty. Always allows.
Outcome handleGeneric(const Json::Object& data, const std::string& kind,
                      std::span<const std::string_view> includeKeys, const ObserveClient& client);

// Handles a session that has a run like a stop; allows every other without starting it.
Outcome handleSessionEnd(const Json::Object& data, const ObserveClient& client);

}  // namespace EventRouter
