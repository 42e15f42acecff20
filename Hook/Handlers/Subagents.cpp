#include "Hook/Handlers/Subagents.h"

#include "Hook/Handlers/SessionStart.h"
#include "Hook/Handlers/Steps.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"

namespace EventRouter {

Outcome handleSubagentStart(const Json::Object& data, const ObserveClient& client) {
  auto state = loadStarted(data, client);
  if (!state) return Allow{};
  const std::string& agentID = data.text("agent_id");
  const std::string& agentType = data.text("agent_type");
  state->pending_subagent_spans.set(
      agentID, Json::Object{{"agent_type", agentType}, {"start_time", Clock::dateTime()}});
  SessionStore::save(*state);
  emitStep(*state, "subagent_start", {{"agent_id", agentID}, {"agent_type", agentType}}, client);
  return Allow{};
}

Outcome handleSubagentStop(const Json::Object& data, const ObserveClient& client) {
  auto state = loadStarted(data, client);
  if (!state) return Allow{};
  const std::string& agentID = data.text("agent_id");
  const std::string& agentType = data.text("agent_type");
  Json pending = state->pending_subagent_spans.take(agentID).value_or(nullptr);
  Json::Object started = pending.asObject() ? *pending.asObject() : Json::Object();
  auto recordedStart = started.optionalText("start_time");
  std::string startTime = recordedStart ? *recordedStart : Clock::dateTime();
  std::string stopTime = Clock::dateTime();
  if (!client.config.isConfigured()) {
    SessionStore::save(*state);
    return Allow{};
  }
  emitSpan(
      *state,
      {{"name", "subagent:" + (agentType.empty() ? "unknown" : agentType)},
       {"kind", "agent"},
       {"status", "ok"},
       {"start_time", startTime},
       {"end_time", stopTime},
       {"attributes", Json::Object{{"agent.type", agentType.empty() ? started.text("agent_type") : agentType},
                                   {"agent.id", agentID}}}},
      client);
  emitStep(*state, "subagent_stop", {{"agent_id", agentID}, {"agent_type", agentType}}, client);
  state->advancePosition();
  SessionStore::save(*state);
  return Allow{};
}

Outcome handleTeammateIdle(const Json::Object& data, const ObserveClient& client) {
  auto state = loadStarted(data, client);
  if (!state) return Allow{};
  std::string coworkID = state->cowork_session_id;
  if (!state->is_cowork) {
    coworkID = data.text("session_id");
    state->is_cowork = true;
    if (state->cowork_session_id.empty()) state->cowork_session_id = coworkID;
    SessionStore::save(*state);
  }
  if (!client.config.isConfigured()) return Allow{};
  std::string now = Clock::dateTime();
  emitSpan(*state,
           {{"name", "teammate_idle"},
            {"kind", "custom"},
            {"status", "ok"},
            {"start_time", now},
            {"end_time", now},
            {"attributes", Json::Object{{"cowork.event", "teammate_idle"}, {"cowork.session_id", coworkID}}}},
           client);
  emitStep(*state, "teammate_idle", {{"cowork_session_id", coworkID}}, client);
  return Allow{};
}

}  // namespace EventRouter
