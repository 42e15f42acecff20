#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Process.h"

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

std::optional<Session> startSession(const Json::Object& data, const ObserveClient& client) {
  Session session{{}, client};
  SessionState& state = session.state;
  state.session_id = data.text("session_id");
  if (state.session_id.empty()) return std::nullopt;
  SessionStore::cleanupStale();
  auto known = SessionStore::load(state.session_id);
  if (known && !known->run_id.empty()) return Session{std::move(*known), client};
  SessionStore::reportDirectory();

  const std::string source = data.optionalText("source").value_or("startup");
  state.cwd = data.text("cwd");
  state.model = data.text("model");
  const auto peer = joinCowork(state);

  if (!session.isConfigured()) return std::nullopt;
  auto run = session.dailyRun();
  state.is_daily_session = run.has_value();
  if (!run) run = startOwnRun(session, source, data.text("permission_mode"), peer ? peer->run_id : "");
  if (!run || run->runID.empty()) return std::nullopt;
  session.enter(*run);
  session.save();
  session.emitStep(
      "session_start",
      {{"source", source}, {"cwd", state.cwd}, {"model", state.model}, {"is_cowork", state.is_cowork}});
  return session;
}

Outcome handleSessionStart(const Json::Object& data, const ObserveClient& client) {
  const bool isStarted = startSession(data, client).has_value();
  const int status = client.lastStatus;
  if (!isStarted && (status == 401 || status == 403)) {
    const std::string refusal = "the control plane refuses this session with status " +
                                std::to_string(status) + "; nothing of it is recorded. Is its key valid?";
    logger.error(refusal);
    Process::writeError("quib-hook: " + refusal + "\n");
  }
  return Allow{};
}

}  // namespace EventRouter
