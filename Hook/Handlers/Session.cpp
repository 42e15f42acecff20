#include "Hook/Handlers/Session.h"

#include "Hook/Handlers/Handlers.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"
#include "Platform/Text.h"
#include "Shared/HardwareID.h"

namespace EventRouter {

namespace {

constexpr std::size_t dateLength = 10;

// Adds those members of `base` that `output` lacks.
void layUnder(Json::Object& output, const Json::Object& base) {
  for (const auto& [key, value] : base)
    if (!output.find(key)) output.set(key, value);
}

Json::Array listOf(Json::Object element) {
  Json::Array list;
  list.emplace_back(std::move(element));
  return list;
}

// The output is moved, never copied: it can hold a whole prompt.
void sendStep(const Session& session, const std::string& name, Json::Object output) {
  const SessionState& state = session.state;
  layUnder(output, {{"source", "hook"}, {"session_id", state.session_id}});
  Json::Object step{{"step_name", "hook:" + name}, {"position", state.span_count}};
  step.set("output", std::move(output));
  session.client.recordSteps(state.run_id, listOf(std::move(step)));
}

std::optional<Session> load(const std::string& sessionID, const Json::Object* lazyData,
                            const ObserveClient& client, Unsaved unsaved) {
  if (sessionID.empty()) return std::nullopt;
  auto state = SessionStore::load(sessionID);
  if (state && !state->run_id.empty()) {
    Session session{std::move(*state), client};
    session.refreshDailyRunIfStale();
    return session;
  }
  if (!lazyData) return std::nullopt;
  auto started = startSession(*lazyData, client);
  state = SessionStore::load(sessionID);
  if (state) return Session{std::move(*state), client};
  if (!started || unsaved == Unsaved::dropped) return std::nullopt;
  started->hasRecord = false;
  return started;
}

}  // namespace

void Session::emitStep(const std::string& kind, Json::Object payload) {
  if (state.run_id.empty() || !isConfigured()) return;
  refreshDailyRunIfStale();
  layUnder(payload,
           {{"kind", kind}, {"timestamp", Clock::dateTime()}, {"hardware_uuid", HardwareID::uuid()}});
  recordStep(kind, std::move(payload));
}

void Session::recordStep(const std::string& name, Json::Object output) {
  sendStep(*this, name, std::move(output));
  state.advancePosition();
  save();
}

void Session::emitSpan(const Span& span, const Json::Object& more) const {
  Json::Object whole{{"name", span.name},        {"kind", span.kind},
                     {"status", span.status},    {"start_time", span.startTime},
                     {"end_time", span.endTime}, {"attributes", span.attributes}};
  for (const auto& [key, value] : more)
    whole.set(key, value);
  Json::Object body;
  body.set("spans", listOf(std::move(whole)));
  client.post("/api/v1/observe/runs/" + state.run_id + "/spans/", std::move(body), "");
}

void Session::emitGuardDecision(const std::string& toolName, const GuardDecision& decision) {
  if (state.run_id.empty() || !isConfigured()) return;
  recordStep("guard_decision:" + decision.action, {{"kind", "guard_decision"},
                                                   {"tool_name", toolName},
                                                   {"action", decision.action},
                                                   {"violations", Json::Array{decision.violation}},
                                                   {"rule", decision.rule},
                                                   {"timestamp", Clock::dateTime()}});
}

std::optional<ObserveClient::PolicyCheckResult> Session::checkPolicy(const std::string& workflowName) const {
  if (!hasAgentSlug()) return std::nullopt;
  auto result = client.checkPolicy(agentName, workflowName, state.run_id);
  if (result) result->action = Text::lowercased(result->action);
  return result;
}

std::string Session::report(const std::string& toolName, const PolicyAnswer& answer,
                            const std::string& reason) {
  emitGuardDecision(toolName, {answer.action, reason.empty() ? answer.violation : reason, "server-side"});
  return answer.message + (reason.empty() ? answer.detail : reason);
}

std::optional<Session::Run> Session::dailyRun() const {
  if (!hasAgentSlug()) return std::nullopt;
  const auto run = client.startDailyRun(client.config.agentSlug, agentName, "");
  if (!run || run->runID.empty()) return std::nullopt;
  return Run{run->runID, run->workflowID, run->startedAt};
}

void Session::enter(const Run& run) {
  state.run_id = run.runID;
  state.workflow_id = run.workflowID;
  state.started_at = run.startedAt.empty() ? Clock::dateTime() : run.startedAt;
}

void Session::refreshDailyRunIfStale() {
  if (state.run_id.empty() || Text::prefix(state.started_at, dateLength) == Clock::date()) return;
  const auto run = dailyRun();
  if (!run || run->runID == state.run_id) return;
  sendStep(*this, "daily_run_rollover",
           {{"kind", "daily_run_rollover"},
            {"old_run_id", state.run_id},
            {"new_run_id", run->runID},
            {"old_started_at", state.started_at},
            {"rolled_at", Clock::dateTime()}});
  enter(*run);
  save();
}

void Session::save() const {
  SessionStore::save(state);
}

std::optional<Session> loadStateFresh(const std::string& sessionID, const Json::Object* lazyData,
                                      const ObserveClient& client) {
  return load(sessionID, lazyData, client, Unsaved::dropped);
}

std::optional<Session> loadStarted(const Json::Object& data, const ObserveClient& client, Unsaved unsaved) {
  auto session = load(data.text("session_id"), &data, client, unsaved);
  return session && !session->state.run_id.empty() ? std::move(session) : std::nullopt;
}

}  // namespace EventRouter
