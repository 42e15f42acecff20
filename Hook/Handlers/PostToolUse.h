// Records every tool call that was made, as a span and as a step, and keeps the list of files that the
// session has modified. Always allows.
#pragma once

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/Handlers/Outcome.h"

namespace EventRouter {

Outcome handlePostToolUse(const Json::Object& data, const ObserveClient& client);

// A failure takes two positions of the session's numbering; the second carries no step.
Outcome handlePostToolUseFailure(const Json::Object& data, const ObserveClient& client);

}  // namespace EventRouter
