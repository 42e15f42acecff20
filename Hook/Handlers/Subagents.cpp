#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"
#include "Platform/Clock.h"

namespace EventRouter {

Outcome handleSubagentStart(const Json::Object& data, const ObserveClient& client) {
  auto session = loadStarted(data, client);
  if (!session) return Allow{};
  const std::string& agentID = data.text("agent_id");
  const std::string& agentType = data.text("agent_type");
  session->state.pending_subagent_spans.set(
      agentID, Json::Object{{"agent_type", agentType}, {"start_time", Clock::dateTime()}});
  session->save();
  session->emitStep("subagent_start", {{"agent_id", agentID}, {"agent_type", agentType}});
  return Allow{};
}

Outcome handleSubagentStop(const Json::Object& data, const ObserveClient& client) {
  auto session = loadStarted(data, client);
  if (!session) return Allow{};
  const std::string& agentID = data.text("agent_id");
  const std::string& agentType = data.text("agent_type");
  const AnyCodable pending = session->state.pending_subagent_spans.take(agentID).value_or(nullptr);
  const Json::Object started = pending.asObject() ? *pending.asObject() : Json::Object();
  const auto recordedStart = started.optionalText("start_time");
  const std::string startTime = recordedStart ? *recordedStart : Clock::dateTime();
  const std::string stopTime = Clock::dateTime();
  if (session->isConfigured()) {
    const Json::Object attributes{{"agent.type", agentType.empty() ? started.text("agent_type") : agentType},
                                  {"agent.id", agentID}};
    const std::string name = "subagent:" + (agentType.empty() ? "unknown" : agentType);
    session->emitSpan({name, "agent", "ok", startTime, stopTime, attributes});
    session->emitStep("subagent_stop", {{"agent_id", agentID}, {"agent_type", agentType}});
    session->state.advancePosition();
  }
  session->save();
  return Allow{};
}

Outcome handleTeammateIdle(const Json::Object& data, const ObserveClient& client) {
  auto session = loadStarted(data, client);
  if (!session) return Allow{};
  SessionState& state = session->state;
  std::string coworkID = state.cowork_session_id;
  if (!state.is_cowork) {
    coworkID = data.text("session_id");
    state.is_cowork = true;
    if (state.cowork_session_id.empty()) state.cowork_session_id = coworkID;
    session->save();
  }
  if (!session->isConfigured()) return Allow{};
  const std::string now = Clock::dateTime();
  const Json::Object attributes{{"cowork.event", "teammate_idle"}, {"cowork.session_id", coworkID}};
  session->emitSpan({"teammate_idle", "custom", "ok", now, now, attributes});
  session->emitStep("teammate_idle", {{"cowork_session_id", coworkID}});
  return Allow{};
}

}  // namespace EventRouter
