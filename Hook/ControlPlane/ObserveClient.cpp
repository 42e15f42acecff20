#include "Hook/ControlPlane/ObserveClient.h"

#include <algorithm>
#include <thread>

#include "Hook/ControlPlane/ActivityLog.h"
#include "Platform/Http/Url.h"
#include "Platform/Text.h"
#include "Shared/HardwareID.h"

namespace {

std::string runPath(const std::string& runID, const char* end) {
  return "/api/v1/observe/runs/" + runID + end;
}

std::string counted(std::size_t count, const char* noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

void setUnlessEmpty(Json::Object& body, std::string_view key, const std::string& value) {
  if (!value.empty()) body.set(key, value);
}

// The elements of a list of objects; empty when one of them is anything else.
std::vector<Json::Object> objects(const Json::Array& list) {
  std::vector<Json::Object> result;
  for (const auto& element : list) {
    const auto* object = element.asObject();
    if (!object) return {};
    result.push_back(*object);
  }
  return result;
}

std::int64_t elapsedSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
      .count();
}

// Sends a list that is not empty. It is moved, never copied: it can hold a whole prompt. The machine's id is
// looked up only when there is a request to carry it.
std::optional<Json::Object> recordList(const ObserveClient& client, const std::string& path,
                                       const char* member, const char* singular, Json::Array list) {
  if (list.empty() || !client.config.isConfigured()) return std::nullopt;
  const std::string summary = counted(list.size(), singular);
  Json::Object body{{"hardware_uuid", HardwareID::uuid()}};
  body.set(member, std::move(list));
  return client.post(path, std::move(body), summary);
}

}  // namespace

std::optional<ObserveClient::StartRunResult> ObserveClient::startRun(
    const std::string& agentName, const std::string& workflowName, const Json::Object& inputs,
    const Json::Object& metadata, const std::string& sessionID, const std::string& agentSlug) const {
  Json::Object body{
      {"agent_name", agentName}, {"workflow_name", workflowName}, {"inputs", inputs}, {"metadata", metadata}};
  setUnlessEmpty(body, "session_id", sessionID);
  setUnlessEmpty(body, "agent_slug", agentSlug.empty() ? config.agentSlug : agentSlug);
  const auto answer = post("/api/v1/observe/runs/start/", body, "");
  if (!answer) return std::nullopt;
  return StartRunResult{answer->text("run_id"), answer->text("workflow_id"), answer->text("started_at")};
}

std::optional<ObserveClient::DailyRunResult> ObserveClient::startDailyRun(const std::string& agentSlug,
                                                                          const std::string& agentType,
                                                                          const std::string& date) const {
  Json::Object body{{"agent_slug", agentSlug}, {"agent_type", agentType}};
  setUnlessEmpty(body, "date", date);
  const auto answer = post("/api/v1/observe/runs/daily/", body, "");
  if (!answer) return std::nullopt;
  return DailyRunResult{answer->text("run_id"), answer->text("workflow_id"), answer->text("started_at"),
                        answer->text("date"), answer->flag("created")};
}

std::optional<ObserveClient::PolicyCheckResult> ObserveClient::checkPolicy(
    const std::string& agentName, const std::string& workflowName, const std::string& agentID,
    const std::optional<Json::Object>& inputs, const std::string& userID,
    const std::string& userGroup) const {
  Json::Object body{{"agent_name", agentName}, {"workflow_name", workflowName}, {"agent_id", agentID}};
  if (inputs && !inputs->empty()) body.set("inputs", *inputs);
  setUnlessEmpty(body, "user_id", userID);
  setUnlessEmpty(body, "user_group", userGroup);
  const auto answer = post("/api/v1/observe/policy-check/", body, "");
  if (!answer) return std::nullopt;
  return PolicyCheckResult{answer->optionalText("action").value_or("allow"), answer->text("reason"),
                           answer->object("metadata"), objects(answer->list("evaluations"))};
}

std::optional<Json::Object> ObserveClient::recordSteps(const std::string& runID, Json::Array steps) const {
  return recordList(*this, runPath(runID, "/steps/"), "steps", "step", std::move(steps));
}

std::optional<Json::Object> ObserveClient::recordLLMCalls(const std::string& runID, Json::Array calls) const {
  return recordList(*this, runPath(runID, "/llm-calls/"), "calls", "call", std::move(calls));
}

std::optional<ObserveClient::CompleteRunResult> ObserveClient::completeRun(const std::string& runID,
                                                                           const Json::Object& result,
                                                                           const std::string& status,
                                                                           const std::string& error,
                                                                           const Json::Array& steps) const {
  const auto answer = post(runPath(runID, "/complete/"),
                           {{"result", result}, {"status", status}, {"error", error}, {"steps", steps}}, "");
  if (!answer) return std::nullopt;
  const auto& governance = answer->object("governance");
  return CompleteRunResult{answer->optionalText("run_id").value_or(runID),
                           governance.optionalText("action").value_or("allow"), governance.text("reason"),
                           governance.text("retry_feedback"), governance.integer("max_retries")};
}

std::optional<Json::Object> ObserveClient::post(const std::string& path, Json::Object body,
                                                const std::string& summary) const {
  if (!config.isConfigured()) return std::nullopt;
  const std::string url = std::string(Text::trim(config.apiUrl, "/")) + path;
  if (!Url::isUrl(url)) return std::nullopt;
  const std::string text = Json(std::move(body)).compact();

  auto pause = retryBaseDelay;
  for (int attempt = 1;; ++attempt, pause *= 2) {
    const auto start = std::chrono::steady_clock::now();
    const auto answer = doPostOnce(url, text);
    ActivityLog::record("POST", url, answer.status, elapsedSince(start),
                        static_cast<std::int64_t>(answer.body.size()), summary, answer.error);
    lastStatus = answer.status;
    const int kind = answer.status / 100;
    if (kind == 2) return Json::parseObject(answer.body).value_or(Json::Object{});
    if (kind == 4 || attempt >= maxAttempts) return std::nullopt;
    std::this_thread::sleep_for(pause);
  }
}

Http::Response ObserveClient::doPostOnce(const std::string& url, std::string_view body) const {
  return Http::exchange(
      {"POST", url, {{"X-Quib-Key", config.apiKey}, {"Content-Type", "application/json"}}, body}, timeout);
}
