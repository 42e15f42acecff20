#include "Hook/Handlers/DailyRun.h"

#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"
#include "Platform/Text.h"

namespace EventRouter {

namespace {

constexpr std::size_t dateLength = 10;

Json::Object rolloverStep(const SessionState& state, const std::string& newRunID, const std::string& now) {
  return {{"step_name", "hook:daily_run_rollover"},
          {"position", state.span_count},
          {"output", Json::Object{{"kind", "daily_run_rollover"},
                                  {"source", "hook"},
                                  {"session_id", state.session_id},
                                  {"old_run_id", state.run_id},
                                  {"new_run_id", newRunID},
                                  {"old_started_at", state.started_at},
                                  {"rolled_at", now}}}};
}

}  // namespace

void refreshDailyRunIfStale(SessionState& state, const ObserveClient& client) {
  if (state.run_id.empty() || Text::prefix(state.started_at, dateLength) == Clock::date()) return;
  if (!client.config.isConfigured() || client.config.agentSlug.empty()) return;
  auto run = client.startDailyRun(client.config.agentSlug, "claude-code", "");
  if (!run || run->runID.empty() || run->runID == state.run_id) return;
  client.recordSteps(state.run_id, {rolloverStep(state, run->runID, Clock::dateTime())});
  state.run_id = run->runID;
  state.workflow_id = run->workflowID;
  state.started_at = run->startedAt.empty() ? Clock::dateTime() : run->startedAt;
  SessionStore::save(state);
}

}  // namespace EventRouter
