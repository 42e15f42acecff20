// The control plane's Observe API. Every operation sends one JSON object and maps the answer into a record
// whose members have defaults. An absent result means: not configured, refused (4xx), or unreachable after
// all attempts; the activity log tells which. Nothing here throws.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Hook/ControlPlane/ObriskConfig.h"
#include "Platform/Http/Http.h"
#include "Platform/Json/Json.h"

struct ObserveClient {
  ObriskHookConfig config;
  Http::Timeouts timeout{std::chrono::seconds(30), std::chrono::seconds(35)};  // of one attempt
  int maxAttempts = 3;                                                         // of one post, at least 1
  std::chrono::milliseconds retryBaseDelay{1'000};  // pause after failed attempt n (from 0): this times 2^n

  mutable int lastStatus = 0;  // of the last answer; 0: none came

  struct StartRunResult {
    std::string runID;
    std::string workflowID;
    std::string startedAt;
  };
  struct DailyRunResult {
    std::string runID;
    std::string workflowID;
    std::string startedAt;
    std::string date;
    bool created = false;
  };
  struct PolicyCheckResult {
    std::string action;  // "allow" when the answer names none
    std::string reason;
    Json::Object metadata;
    std::vector<Json::Object> evaluations;
  };
  struct CompleteRunResult {
    std::string runID;   // the argument's when the answer names none
    std::string action;  // "allow" when the answer names none
    std::string reason;
    std::string retryFeedback;
    std::int64_t maxRetries = 0;
  };

  std::optional<StartRunResult> startRun(const std::string& agentName, const std::string& workflowName,
                                         const Json::Object& inputs, const Json::Object& metadata,
                                         const std::string& sessionID, const std::string& agentSlug) const;
  // An empty `date` leaves the choice of day to the control plane.
  std::optional<DailyRunResult> startDailyRun(const std::string& agentSlug, const std::string& agentType,
                                              const std::string& date) const;
  std::optional<PolicyCheckResult> checkPolicy(const std::string& agentName, const std::string& workflowName,
                                               const std::string& agentID,
                                               const std::optional<Json::Object>& inputs = std::nullopt,
                                               const std::string& userID = "",
                                               const std::string& userGroup = "") const;
  // The raw answer. An empty list sends nothing and gives absent.
  std::optional<Json::Object> recordSteps(const std::string& runID, Json::Array steps) const;
  std::optional<Json::Object> recordLLMCalls(const std::string& runID, Json::Array calls) const;
  std::optional<CompleteRunResult> completeRun(const std::string& runID, const Json::Object& result,
                                               const std::string& status, const std::string& error,
                                               const Json::Array& steps) const;

  // Sends `body` to `path` (which begins with "/") under the base URL. Present, possibly empty, for every 2xx
  // answer. `summary` goes to the activity log. Attempts that fail without a 4xx are repeated after a pause.
  std::optional<Json::Object> post(const std::string& path, Json::Object body,
                                   const std::string& summary) const;

 private:
  // One attempt.
  Http::Response doPostOnce(const std::string& url, std::string_view body) const;
};
