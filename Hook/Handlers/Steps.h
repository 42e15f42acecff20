// What is reported of a session: steps, numbered in the order in which the session emitted them, and spans.
// Reporting never fails: what the control plane does not take is lost and not repeated. Lengths count
// user-perceived characters.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/State/SessionState.h"

namespace EventRouter {

// Records the step "hook:KIND" with `payload` laid over its base members, after moving the session to today's
// run. Does nothing without a run or a configuration.
void emitStep(SessionState& state, const std::string& kind, Json::Object payload,
              const ObserveClient& client);

// Sends one step of the session's run, as it is; then advances the position and saves the state.
void recordStep(SessionState& state, Json::Object step, const ObserveClient& client);

// Sends one span of the session's run.
void emitSpan(const SessionState& state, const Json::Object& span, const ObserveClient& client);

// One short line that says what a tool was asked; empty when there is nothing to say. Of a tool that is not
// known, the first member of its input in sorted order.
std::string summarizeToolInput(std::string_view toolName, const Json::Object& input);

// One short line that says what a tool answered; empty when there is nothing to say.
std::string summarizeToolOutput(const Json::Object& response);

// The object with every string in it cut to `maxChars` characters and every array to 50 elements, at any
// depth.
Json::Object truncateJSON(const Json::Object& object, std::size_t maxChars);

}  // namespace EventRouter
