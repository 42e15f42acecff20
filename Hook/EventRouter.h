// Turns one event of an agent's session, in the Claude Code shape, into one outcome: loads the profile,
// builds the control-plane client and hands both to the handler that the event's name selects. Never fails.
#pragma once

#include <optional>
#include <string>

#include "Hook/Handlers/Outcome.h"
#include "Platform/Json/Json.h"

namespace EventRouter {

// `requestedProfile`: value of `--profile`. `process`: label of the calling agent, "claude", "Cursor" or
// "copilot".
Outcome handle(const Json::Object& data, const std::optional<std::string>& requestedProfile,
               const std::string& process);

}  // namespace EventRouter
