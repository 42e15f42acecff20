#include "Hook/Handlers/SessionStart.h"

#include "Hook/Handlers/DailyRun.h"
#include "Hook/Handlers/Steps.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"

namespace EventRouter {

namespace {

struct Cowork {
  std::string root;         // the group's first session
  std::string parentRunID;  // run of the peer that was found
};

// The group that a session starting in `cwd` joins. A peer that was alone becomes the first of a group of
// two.
std::optional<Cowork> joinCowork(const std::string& cwd, const std::string& sessionID) {
  auto peer = SessionStore::findCoworkPeer(cwd, sessionID);
  if (!peer) return std::nullopt;
  Cowork cowork{peer->cowork_session_id.empty() ? peer->session_id : peer->cowork_session_id, peer->run_id};
  if (!peer->is_cowork) {
    peer->is_cowork = true;
    peer->cowork_session_id = cowork.root;
    SessionStore::save(*peer);
  }
  return cowork;
}

// Gives the state the agent's daily run. False when there is none to have.
bool joinDailyRun(SessionState& state, const ObserveClient& client) {
  if (client.config.agentSlug.empty()) return false;
  auto run = client.startDailyRun(client.config.agentSlug, "claude-code", "");
  if (!run || run->runID.empty()) return false;
  state.run_id = run->runID;
  state.workflow_id = run->workflowID;
  state.started_at = run->startedAt;
  state.is_daily_session = true;
  return true;
}

// Gives the state a run of its own; its `run_id` stays empty when the control plane gives none.
void startOwnRun(SessionState& state, const std::string& source, const std::string& permissionMode,
                 const std::optional<Cowork>& cowork, const ObserveClient& client) {
  Json::Object metadata{
      {"source", "claude_code"}, {"model", state.model}, {"permission_mode", permissionMode}};
  if (cowork) {
    metadata.set("is_cowork", true);
    metadata.set("cowork_session_id", cowork->root);
    if (!cowork->parentRunID.empty()) metadata.set("cowork_parent_run_id", cowork->parentRunID);
  }
  auto run = client.startRun("claude-code", "session:" + source, {{"cwd", state.cwd}, {"source", source}},
                             metadata, state.session_id, "");
  if (!run) return;
  state.run_id = run->runID;
  state.workflow_id = run->workflowID;
  state.started_at = run->startedAt;
}

bool isStarted(const std::optional<SessionState>& state) {
  return state && !state->run_id.empty();
}

}  // namespace

Outcome handleSessionStart(const Json::Object& data, const ObserveClient& client) {
  SessionState state;
  state.session_id = data.text("session_id");
  if (state.session_id.empty()) return Allow{};
  SessionStore::cleanupStale();
  if (isStarted(SessionStore::load(state.session_id))) return Allow{};

  std::string source = data.optionalText("source").value_or("startup");
  state.cwd = data.text("cwd");
  state.model = data.text("model");
  auto cowork = joinCowork(state.cwd, state.session_id);
  state.is_cowork = cowork.has_value();
  state.cowork_session_id = cowork ? cowork->root : "";

  if (!client.config.isConfigured()) return Allow{};
  if (!joinDailyRun(state, client)) startOwnRun(state, source, data.text("permission_mode"), cowork, client);
  if (state.run_id.empty()) return Allow{};
  if (state.started_at.empty()) state.started_at = Clock::dateTime();
  SessionStore::save(state);
  emitStep(state, "session_start",
           {{"source", source}, {"cwd", state.cwd}, {"model", state.model}, {"is_cowork", state.is_cowork}},
           client);
  return Allow{};
}

std::optional<SessionState> loadStateFresh(const std::string& sessionID, const Json::Object* lazyData,
                                           const ObserveClient& client) {
  if (sessionID.empty()) return std::nullopt;
  auto state = SessionStore::load(sessionID);
  if (isStarted(state)) {
    refreshDailyRunIfStale(*state, client);
    return state;
  }
  if (!lazyData) return std::nullopt;
  handleSessionStart(*lazyData, client);
  return SessionStore::load(sessionID);
}

std::optional<SessionState> loadStarted(const Json::Object& data, const ObserveClient& client) {
  auto state = loadStateFresh(data.text("session_id"), &data, client);
  return isStarted(state) ? std::move(state) : std::nullopt;
}

}  // namespace EventRouter
