// One handler for each event of a session's life. Each loads the event's session, starting one that is not
// known, records the event on its run, and decides. Only the two gates, before a tool call and before a
// compaction, ever ask or deny; a session without a run is let pass. Nothing here fails: what cannot be sent
// is lost, what cannot be saved is logged, and the agent is told of neither.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/Handlers/Outcome.h"
#include "Platform/Json/Json.h"

struct TranscriptSummary;

namespace EventRouter {

struct Session;

// Starts the session of the event, unless it has a run already: the agent's daily run when a slug is
// configured, else a run of its own. Without a run nothing is stored, and the next event tries again.
// Sessions in one directory at one time know each other as a cowork group, each with a run of its own.
Outcome handleSessionStart(const Json::Object& data, const ObserveClient& client);

// Decides whether the tool call that the agent announces may run. Objections come in a fixed order: the local
// guard rules, a conflict with another session in the directory, the limit on modified files, the control
// plane's policy. Deny when the guard or the control plane blocks, or when the control plane cannot be asked
// and the profile says "deny" then; ask when anything warns. Reports every decision of a rule or a policy.
Outcome handlePreToolUse(const Json::Object& data, const ObserveClient& client);

// Records a tool call as a span and a step, and the file that it modified in the session's list.
Outcome handlePostToolUse(const Json::Object& data, const ObserveClient& client);

// A failure takes two positions of the session's numbering; the second carries no step.
Outcome handlePostToolUseFailure(const Json::Object& data, const ObserveClient& client);

// The start of a running subagent waits in the session's record.
Outcome handleSubagentStart(const Json::Object& data, const ObserveClient& client);

// Records the subagent as one span from its start to its stop. A stop whose start is unknown gives a span
// that begins at the stop. It takes two positions of the session's numbering; the second carries no step.
Outcome handleSubagentStop(const Json::Object& data, const ObserveClient& client);

// Makes the session one of a cowork group for the rest of its life.
Outcome handleTeammateIdle(const Json::Object& data, const ObserveClient& client);

// Asks the control plane whether the run's budget allows the agent to compact its context: deny on the
// policy's "block", ask on its "warn". A policy that cannot be asked never holds a compaction up.
Outcome handlePreCompact(const Json::Object& data, const ObserveClient& client);

// The end of a turn: sends the LLM calls that the agent made since the last one, read from its transcript and
// priced, holds their cost against the control plane's cap, and completes the run, unless it is a daily one.
Outcome handleStop(const Json::Object& data, const ObserveClient& client);

// Reports a cost above the cap of the control plane as a guard decision, once for a session. `summary` is
// absent when the event named no transcript.
void reconcileStopCost(Session& session, const std::optional<TranscriptSummary>& summary);

// Handles a session that has a run like a stop; allows every other without starting it.
Outcome handleSessionEnd(const Json::Object& data, const ObserveClient& client);

// Records the event as a step of that kind, with the members `includeKeys` that the event has, unchanged;
// with all but those that every event carries when the list is empty.
Outcome handleGeneric(const Json::Object& data, const std::string& kind,
                      std::span<const std::string_view> includeKeys, const ObserveClient& client);

}  // namespace EventRouter
