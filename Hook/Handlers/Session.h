// A session of the agent, as the handlers of its events have it: its record, and the control plane that it
// reports to. Reporting never fails: what the control plane does not take is lost and not repeated, and a
// record that cannot be saved is logged. Steps are numbered in the order in which the session emitted them.
#pragma once

#include <optional>
#include <string>

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/State/SessionState.h"
#include "Platform/Log.h"

namespace EventRouter {

inline constexpr Log::Category logger{"hook.router"};

// The agent's type, by which the control plane knows all of its runs.
inline constexpr const char* agentName = "claude-code";

struct GuardDecision {
  std::string action;     // what was decided, for example "deny"
  std::string violation;  // why
  std::string rule;       // which rule decided
};

// The texts for one answer of a policy; it may come with a reason of its own.
struct PolicyAnswer {
  const char* action;     // of the guard decision
  const char* violation;  // of the guard decision, without a reason
  const char* message;    // for a person, before the reason
  const char* detail;     // and in the place of one
};

// A timed piece of work of the session.
struct Span {
  std::string name;
  const char* kind;
  const char* status;  // "ok" or "error"
  std::string startTime;
  std::string endTime;
  Json::Object attributes;
};

struct Session {
  SessionState state;
  const ObserveClient& client;
  bool hasRecord = true;  // false: it was started, and its record could not be saved

  bool isConfigured() const { return client.config.isConfigured(); }
  bool hasAgentSlug() const { return isConfigured() && !client.config.agentSlug.empty(); }

  // Records the step "hook:KIND" with `payload` laid over its base members, after moving the session to
  // today's run. Does nothing without a run or a configuration.
  void emitStep(const std::string& kind, Json::Object payload);

  // Sends the step "hook:NAME" with `output`; then advances the position and saves the state.
  void recordStep(const std::string& name, Json::Object output);

  // Sends the span, with the members of `more` beside its own.
  void emitSpan(const Span& span, const Json::Object& more = {}) const;

  // Records what a rule or a policy decided against a tool call or a compaction, or found in a turn's cost.
  // Does nothing without a run or a configuration.
  void emitGuardDecision(const std::string& toolName, const GuardDecision& decision);

  // The answer for this session's run, its action in lower case. Absent without a slug, and when the control
  // plane cannot be asked.
  std::optional<ObserveClient::PolicyCheckResult> checkPolicy(const std::string& workflowName) const;

  // Emits the policy's answer as a guard decision. Returns the message for a person.
  std::string report(const std::string& toolName, const PolicyAnswer& answer, const std::string& reason);

  using Run = ObserveClient::StartRunResult;

  // The agent's run of today, when a slug is configured and the control plane gives one.
  std::optional<Run> dailyRun() const;

  // Replaces the run of the state. One that does not say when it started has started now.
  void enter(const Run& run);

  // Moves a started session whose `started_at` is not of today onto the agent's current daily run: ends the
  // old run with a rollover step, replaces the run of the state and saves it.
  void refreshDailyRunIfStale();

  void save() const;
};

// The session's record, moved to today's daily run when that is due. An unknown session is started from the
// event `lazyData`, unless that is null; the record may then have an empty `run_id`. Absent when there is no
// record.
std::optional<Session> loadStateFresh(const std::string& sessionID, const Json::Object* lazyData,
                                      const ObserveClient& client);

enum class Unsaved { dropped, kept };

// What every handler begins with: the event's session, started when it is unknown; absent when it has no run,
// and, if dropped, when it was started but its record could not be saved.
std::optional<Session> loadStarted(const Json::Object& data, const ObserveClient& client,
                                   Unsaved unsaved = Unsaved::dropped);

// Starts the event's session, unless it has a run already. Absent when there is no run to have.
std::optional<Session> startSession(const Json::Object& data, const ObserveClient& client);

}  // namespace EventRouter
