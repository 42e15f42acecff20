#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"
#include "Hook/State/SessionStore.h"

namespace EventRouter {

namespace {

// Makes the session one of the group in its directory, if another session is there; one that was alone
// becomes the group's first. Returns that session.
std::optional<SessionState> joinCowork(SessionState& state) {
  auto peer = SessionStore::findCoworkPeer(state.cwd, state.session_id);
  if (!peer) return std::nullopt;
  state.is_cowork = true;
  state.cowork_session_id = peer->cowork_session_id.empty() ? peer->session_id : peer->cowork_session_id;
  if (!peer->is_cowork) {
    peer->is_cowork = true;
    peer->cowork_session_id = state.cowork_session_id;
    SessionStore::save(*peer);
  }
  return peer;
}

std::optional<Session::Run> startOwnRun(const Session& session, const std::string& source,
                                        const std::string& permissionMode, const std::string& parentRunID) {
  const SessionState& state = session.state;
  Json::Object metadata{
      {"source", "claude_code"}, {"model", state.model}, {"permission_mode", permissionMode}};
  if (state.is_cowork) {
    metadata.set("is_cowork", true);
    metadata.set("cowork_session_id", state.cowork_session_id);
  }
  if (!parentRunID.empty()) metadata.set("cowork_parent_run_id", parentRunID);
  return session.client.startRun(agentName, "session:" + source, {{"cwd", state.cwd}, {"source", source}},
                                 metadata, state.session_id, "");
}

}  // namespace

Outcome handleSessionStart(const Json::Object& data, const ObserveClient& client) {
  Session session{{}, client};
  SessionState& state = session.state;
  state.session_id = data.text("session_id");
  if (state.session_id.empty()) return Allow{};
  SessionStore::cleanupStale();
  const auto known = SessionStore::load(state.session_id);
  if (known && !known->run_id.empty()) return Allow{};

  const std::string source = data.optionalText("source").value_or("startup");
  state.cwd = data.text("cwd");
  state.model = data.text("model");
  const auto peer = joinCowork(state);

  if (!session.isConfigured()) return Allow{};
  auto run = session.dailyRun();
  state.is_daily_session = run.has_value();
  if (!run) run = startOwnRun(session, source, data.text("permission_mode"), peer ? peer->run_id : "");
  if (!run || run->runID.empty()) return Allow{};
  session.enter(*run);
  session.save();
  session.emitStep(
      "session_start",
      {{"source", source}, {"cwd", state.cwd}, {"model", state.model}, {"is_cowork", state.is_cowork}});
  return Allow{};
}

}  // namespace EventRouter
