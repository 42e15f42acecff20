#include <charconv>
#include <cmath>
#include <cstdio>
#include <set>

#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"
#include "Hook/State/SessionStore.h"
#include "Hook/Transcript/LLMCallDedupe.h"
#include "Hook/Transcript/Transcript.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"

namespace EventRouter {

namespace {

// Dollars to six decimal places, halves away from zero.
double rounded(double dollars) {
  return std::round(dollars * 1'000'000) / 1'000'000;
}

Json::Object asJSON(const LlmCallData& call) {
  return {{"model", call.model},
          {"tokens_in", call.tokensIn},
          {"tokens_out", call.tokensOut},
          {"cost", call.cost},
          {"task", call.task},
          {"prompt_preview", call.promptPreview.value()},
          {"response_preview", call.responsePreview},
          {"timestamp", call.timestamp}};
}

// Sends today's calls that are not recorded yet, and records them whether or not they were taken: each is
// sent at most once.
void sendNewCalls(const std::string& runID, const std::vector<LlmCallData>& calls,
                  const ObserveClient& client) {
  std::set<std::string> recorded = LLMCallDedupe::load(runID);
  std::set<std::string> known = recorded;
  std::string today = Clock::date();
  Json::Array selected;
  for (const LlmCallData& call : calls) {
    if (!call.timestamp.starts_with(today) || call.messageID.empty() || recorded.contains(call.messageID))
      continue;
    selected.push_back(asJSON(call));
    known.insert(call.messageID);
  }
  if (selected.empty()) return;
  client.recordLLMCalls(runID, std::move(selected));
  LLMCallDedupe::save(runID, known);
}

Json::Object stopPayload(const SessionState& state, const std::optional<TranscriptSummary>& summary) {
  Json::Object payload;
  if (summary)
    payload = {{"total_tokens_in", summary->totalTokensIn},
               {"total_tokens_out", summary->totalTokensOut},
               {"total_cost", rounded(summary->totalCost)},
               {"total_turns", summary->totalTurns},
               {"models_used", summary->modelsUsed},
               {"tool_uses", Transcript::saturatingSum(state.span_count, summary->toolUses)}};
  if (state.is_cowork) {
    payload.set("is_cowork", true);
    payload.set("cowork_session_id", state.cowork_session_id);
  }
  return payload;
}

// The cap in dollars as a number or a string that is one decimal number; absent for everything else.
std::optional<double> costCap(const Json::Object& metadata) {
  const Json* value = metadata.find("cost_cap");
  if (!value) return std::nullopt;
  const std::string* text = value->asText();
  if (!text) return value->asNumber();
  std::string_view digits = *text;
  if (digits.starts_with('+') && !digits.starts_with("+-")) digits.remove_prefix(1);
  double cap = 0;
  auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), cap);
  bool whole = error == std::errc() && end == digits.data() + digits.size() && std::isfinite(cap);
  return whole ? std::optional(cap) : std::nullopt;
}

std::string overageMessage(double cost, double cap, double overage) {
  char text[1024];  // three numbers of at most 309 digits before the point
  std::snprintf(text, sizeof text, "Reconciled cost $%.4f exceeds cap $%.4f (overage $%.4f)", cost, cap,
                overage);
  return text;
}

}  // namespace

Outcome handleStop(const Json::Object& data, const ObserveClient& client) {
  auto session = loadStarted(data, client);
  if (!session) return Allow{};
  SessionState& state = session->state;
  const std::string& sessionID = data.text("session_id");
  const std::string& transcript = data.text("transcript_path");
  if (!session->isConfigured()) {
    SessionStore::remove(sessionID);
    return Allow{};
  }
  std::optional<TranscriptSummary> summary;
  if (!transcript.empty()) {
    summary = Transcript::parse(transcript, state.transcript_offset);
    state.transcript_offset = Files::size(transcript).value_or(state.transcript_offset);
    sendNewCalls(state.run_id, summary->calls, client);
  }
  const Json::Object payload = stopPayload(state, summary);
  reconcileStopCost(*session, summary);
  session->emitStep("stop", payload);
  if (state.is_daily_session) {
    session->save();
    return Allow{};
  }
  client.completeRun(state.run_id, payload, "success", "", {});
  SessionStore::remove(sessionID);
  return Allow{};
}

void reconcileStopCost(Session& session, const std::optional<TranscriptSummary>& summary) {
  SessionState& state = session.state;
  if (!summary || summary->totalCost <= 0 || state.run_id.empty() || state.cost_overage_emitted) return;
  const auto result = session.checkPolicy("claude-code:stop");
  const auto cap = result ? costCap(result->metadata) : std::nullopt;
  if (!cap || *cap <= 0 || *cap >= summary->totalCost) return;
  const double overage = rounded(summary->totalCost - *cap);
  session.emitGuardDecision(
      "Stop", {"post_run_overage", overageMessage(summary->totalCost, *cap, overage), "server-side"});
  state.cost_overage_emitted = true;
  session.save();
}

Outcome handleSessionEnd(const Json::Object& data, const ObserveClient& client) {
  const std::string& sessionID = data.text("session_id");
  if (sessionID.empty()) return Allow{};
  const auto state = SessionStore::load(sessionID);
  return state && !state->run_id.empty() ? handleStop(data, client) : Allow{};
}

}  // namespace EventRouter
