#include "Server/ControlPlane.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>
#include <random>

#include "Server/Page.h"

namespace LocalControlPlane {

namespace {

constexpr std::string_view apiPrefix = "/api/";
constexpr std::string_view runPrefix = "/api/v1/observe/runs/";
constexpr std::string_view agentConfigPath = "/api/obrisk/v1/endpoint/agent-config/";
constexpr std::size_t maxElements = 10'000;  // of one request's list

Reply failure(int status, std::string_view message) {
  return {status, Json(Json::Object{{"error", message}}).compact()};
}

Reply success(const Json::Object& body) {
  return {200, Json(body).compact()};
}

// In a time that does not tell how much of the key is right.
bool sameKey(std::string_view given, std::string_view key) {
  unsigned difference = given.size() == key.size() ? 0 : 1;
  for (std::size_t i = 0; i < key.size(); ++i) {
    difference |=
        static_cast<unsigned char>(key[i]) ^ static_cast<unsigned char>(i < given.size() ? given[i] : 0);
  }
  return difference == 0;
}

bool namesThisMachine(std::string_view host) {
  const std::size_t port = host.rfind(':');
  if (port != std::string_view::npos && host.find(']', port) == std::string_view::npos)
    host = host.substr(0, port);
  constexpr std::array<std::string_view, 3> names = {"127.0.0.1", "localhost", "[::1]"};
  return std::ranges::find(names, host) != names.end();
}

// The objects under `key`, each with a non-empty string under `name`; null, with `refusal` filled, when the
// list is not such a list.
const Json::Array* elements(const Json::Object& body, std::string_view key, std::string_view name,
                            Reply& refusal) {
  const Json* list = body.find(key);
  if (!list || !list->asList()) {
    refusal = failure(400, "\"" + std::string(key) + "\" is not a list");
  } else if (list->asList()->size() > maxElements) {
    refusal = failure(413, "\"" + std::string(key) + "\" has too many elements");
  } else if (std::ranges::any_of(*list->asList(), [&](const Json& element) {
               const Json::Object* object = element.asObject();
               return !object || !object->optionalText(name);
             })) {
    refusal =
        failure(400, "an element of \"" + std::string(key) + "\" has no text \"" + std::string(name) + "\"");
  } else {
    return list->asList();
  }
  return nullptr;
}

Reply recorded(const Json::Array& list) {
  return success({{"recorded", static_cast<std::int64_t>(list.size())}});
}

Reply renderPage() {
  constexpr std::string_view placeholder = "{{nonce}}";
  std::random_device device;
  std::string nonce;
  for (int i = 0; i < 4; ++i)
    nonce += std::to_string(device());
  Reply reply{200, std::string(pageText), "text/html; charset=utf-8", "", nonce};
  for (std::size_t at; (at = reply.body.find(placeholder)) != std::string::npos;) {
    reply.body.replace(at, placeholder.size(), nonce);
  }
  return reply;
}

std::string dollars(double amount) {
  char text[64];
  std::snprintf(text, sizeof text, "$%.4f", amount);
  return text;
}

}  // namespace

struct ControlPlane::Route {
  std::string_view path;  // "*" stands for the id of a run that must be known
  Reply (ControlPlane::*handle)(const std::string& runID, const Body& body);
};

constexpr ControlPlane::Route ControlPlane::routes[] = {
    {"/api/v1/observe/runs/start/", &ControlPlane::startRun},
    {"/api/v1/observe/runs/daily/", &ControlPlane::dailyRun},
    {"/api/v1/observe/policy-check/", &ControlPlane::checkPolicy},
    {"/api/v1/observe/runs/*/steps/", &ControlPlane::recordSteps},
    {"/api/v1/observe/runs/*/spans/", &ControlPlane::recordSpans},
    {"/api/v1/observe/runs/*/llm-calls/", &ControlPlane::recordCalls},
    {"/api/v1/observe/runs/*/complete/", &ControlPlane::completeRun},
};

ControlPlane::ControlPlane(const std::string& dataPath, std::string key, std::string policyPath)
    : store_(dataPath), key_(key.empty() ? store_.key() : std::move(key)), policies_(std::move(policyPath)) {
  policies_.refresh();
}

void ControlPlane::refreshPolicies() {
  if (!policies_.refresh()) return;
  ++policyChanges_;
  const std::string& problem = policies_.problem();
  std::cerr << "obrisk-local: " << policies_.path()
            << (problem.empty() ? " is in force" : " is not in force: " + problem) << std::endl;
}

const ControlPlane::Route* ControlPlane::find(std::string_view target, std::string& runID) {
  for (const Route& route : routes) {
    const std::size_t star = route.path.find('*');
    if (star == std::string_view::npos) {
      if (target == route.path) return &route;
      continue;
    }
    const std::string_view suffix = route.path.substr(star + 1);
    if (target.size() <= runPrefix.size() + suffix.size()) continue;
    if (!target.starts_with(runPrefix) || !target.ends_with(suffix)) continue;
    runID = target.substr(runPrefix.size(), target.size() - runPrefix.size() - suffix.size());
    if (runID.find('/') == std::string::npos) return &route;
  }
  return nullptr;
}

std::optional<Reply> ControlPlane::refuse(const Request& request) const {
  if (!request.target.starts_with(apiPrefix)) {
    if (!request.fromLoopback || !namesThisMachine(request.host)) {
      return failure(403, "the page is only for this machine");
    }
    if (request.method != "GET") return failure(405, "only GET is answered here");
    return std::nullopt;
  }
  const bool config = request.target == agentConfigPath;
  if (!sameKey(config ? request.device : request.key, key_)) return failure(401, "the key is wrong");
  std::string runID;
  if (!config && !find(request.target, runID)) return failure(404, "there is nothing here");
  if (request.method != (config ? "GET" : "POST")) return failure(405, "this method is not answered here");
  return std::nullopt;
}

Reply ControlPlane::answer(const Request& request) {
  try {
    if (request.target == agentConfigPath) return agentConfig(request);
    return request.target.starts_with(apiPrefix) ? post(request) : page(request);
  } catch (const StoreError& error) {
    std::cerr << "obrisk-local: " << error.what() << "\n";
    return failure(500, "this could not be stored");
  }
}

Reply ControlPlane::post(const Request& request) {
  std::string runID;
  const Route* route = find(request.target, runID);
  if (!route) return failure(404, "there is nothing here");
  const std::optional<Body> body = Json::parseObject(request.body);
  if (!body) return failure(400, "the body is not a JSON object");
  if (!runID.empty() && !store_.hasRun(runID)) return failure(404, "there is no such run");
  return (this->*route->handle)(runID, *body);
}

// The device token is the key itself: whoever enrols a machine here has it.
Reply ControlPlane::agentConfig(const Request& request) const {
  if (request.tenant.empty()) return failure(401, "a tenant is needed");
  const bool claude = request.process.empty() || request.process == "claude";
  const std::string agent = claude ? "claude-code" : request.process == "Cursor" ? "cursor" : request.process;
  return success({{"upload_api_key", key_}, {"agent_slug", agent}, {"agent_type", agent}});
}

Reply ControlPlane::startRun(const std::string&, const Body& body) {
  if (body.text("agent_name").empty() || body.text("workflow_name").empty()) {
    return failure(400, "\"agent_name\" and \"workflow_name\" are needed");
  }
  const Run run = store_.startRun(body);
  return success({{"run_id", run.id}, {"workflow_id", run.workflowID}, {"started_at", run.startedAt}});
}

Reply ControlPlane::dailyRun(const std::string&, const Body& body) {
  const std::string& date = body.text("date");
  if (body.text("agent_slug").empty()) return failure(400, "\"agent_slug\" is needed");
  if (!date.empty() && !isDate(date)) return failure(400, "\"date\" is not a date");
  const Run run = store_.dailyRun(body.text("agent_slug"), body.text("agent_type"), date);
  return success({{"run_id", run.id},
                  {"workflow_id", run.workflowID},
                  {"started_at", run.startedAt},
                  {"date", run.day},
                  {"created", run.created}});
}

Reply ControlPlane::checkPolicy(const std::string&, const Body& body) {
  const std::string& workflow = body.text("workflow_name");
  const std::string& runID = body.text("agent_id");
  if (workflow.empty()) return failure(400, "\"workflow_name\" is needed");
  refreshPolicies();
  const std::int64_t tokens = workflow == compactionWorkflow ? store_.tokens(runID) : 0;
  const Verdict verdict = evaluate(policies_.policies(), workflow, tokens);
  store_.recordDecision(runID, workflow, verdict);
  Json::Object metadata;
  if (policies_.policies().costCap) metadata.set("cost_cap", *policies_.policies().costCap);
  return success({{"action", verdict.action},
                  {"reason", verdict.reason},
                  {"metadata", metadata},
                  {"evaluations", verdict.evaluations}});
}

Reply ControlPlane::recordSteps(const std::string& runID, const Body& body) {
  Reply refusal;
  const Json::Array* steps = elements(body, "steps", "step_name", refusal);
  if (!steps) return refusal;
  store_.recordSteps(runID, *steps, body.text("hardware_uuid"));
  return recorded(*steps);
}

Reply ControlPlane::recordSpans(const std::string& runID, const Body& body) {
  Reply refusal;
  const Json::Array* spans = elements(body, "spans", "name", refusal);
  if (!spans) return refusal;
  store_.recordSpans(runID, *spans);
  return recorded(*spans);
}

Reply ControlPlane::recordCalls(const std::string& runID, const Body& body) {
  Reply refusal;
  const Json::Array* calls = elements(body, "calls", "model", refusal);
  if (!calls) return refusal;
  store_.recordCalls(runID, *calls);
  return recorded(*calls);
}

Reply ControlPlane::completeRun(const std::string& runID, const Body& body) {
  if (body.text("status").empty()) return failure(400, "\"status\" is needed");
  if (body.find("steps")) {
    Reply refusal;
    const Json::Array* steps = elements(body, "steps", "step_name", refusal);
    if (!steps) return refusal;
    if (!steps->empty()) store_.recordSteps(runID, *steps, "");
  }
  store_.completeRun(runID, body);
  const std::optional<double> cap = policies_.policies().costCap;
  const double cost = store_.cost(runID);
  const bool over = cap && cost > *cap;
  const std::string reason =
      over ? "The run cost " + dollars(cost) + "; its cap is " + dollars(*cap) + "." : "";
  const Json::Object governance{
      {"action", over ? "warn" : "allow"}, {"reason", reason}, {"retry_feedback", ""}, {"max_retries", 0}};
  return success({{"run_id", runID}, {"governance", governance}});
}

// For the page: the policies in force, and the store's overview.
Reply ControlPlane::overview() {
  const Policies& policies = policies_.policies();
  Json::Array rules;
  for (const PolicyRule& rule : policies.rules) {
    rules.push_back(
        Json::Object{{"workflow", rule.workflow}, {"action", rule.action}, {"reason", rule.reason}});
  }
  Json::Object shown{{"rules", rules}, {"path", policies_.path()}, {"problem", policies_.problem()}};
  if (policies.costCap) shown.set("cost_cap", *policies.costCap);
  if (policies.warnTokens) shown.set("warn_tokens", *policies.warnTokens);
  if (policies.blockTokens) shown.set("block_tokens", *policies.blockTokens);
  return {200, R"({"policies":)" + Json(shown).compact() + R"(,"store":)" + store_.overview() + "}"};
}

Reply ControlPlane::page(const Request& request) {
  constexpr std::string_view runsPath = "/ui/runs/";
  if (request.target == "/") return renderPage();
  refreshPolicies();
  const std::string tag = "\"" + std::to_string(store_.version() + policyChanges_) + "\"";
  if (request.known == tag) return {304, "", "application/json", tag};
  Reply reply = failure(404, "there is nothing here");
  if (request.target == "/ui/overview") {
    reply = overview();
  } else if (request.target.starts_with(runsPath)) {
    const std::string runID = request.target.substr(runsPath.size());
    if (store_.hasRun(runID)) reply = {200, store_.run(runID)};
  }
  reply.tag = tag;
  return reply;
}

}  // namespace LocalControlPlane
