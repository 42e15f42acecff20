#include "Server/ControlPlane.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>
#include <random>

#include "Server/Page.h"

namespace LocalControlPlane {

namespace {

constexpr std::string_view apiPrefix = "/api/";
constexpr std::string_view agentConfigPath = "/api/obrisk/v1/endpoint/agent-config/";
constexpr std::size_t maxElements = 10'000;  // of one request's list

Reply failure(int status, std::string_view message) {
  return {status, Json(Json::Object{{"error", message}}).compact()};
}

// Thrown where a request turns out to be one that cannot be taken.
struct Refused {
  int status;
  std::string message;
};

void need(bool holds, const std::string& otherwise, int status = 400) {
  if (!holds) throw Refused{status, otherwise};
}

bool sameKey(const std::string& given, const std::string& key) {
  return given.size() == key.size() && CRYPTO_memcmp(given.data(), key.data(), key.size()) == 0;
}

bool namesThisMachine(std::string_view host) {
  const std::size_t port = host.rfind(':');
  if (port != std::string_view::npos && host.find(']', port) == std::string_view::npos)
    host = host.substr(0, port);
  constexpr std::array<std::string_view, 3> names = {"127.0.0.1", "localhost", "[::1]"};
  return std::ranges::find(names, host) != names.end();
}

// The objects under `key`, each with a non-empty text under `name`.
const Json::Array& elements(const Json::Object& body, const std::string& key, const std::string& name) {
  const Json* member = body.find(key);
  const Json::Array* list = member ? member->asList() : nullptr;
  need(list, "\"" + key + "\" is not a list");
  need(list->size() <= maxElements, "\"" + key + "\" has too many elements", 413);
  const auto isGood = [&](const Json& each) {
    return each.asObject() && each.asObject()->optionalText(name);
  };
  need(std::ranges::all_of(*list, isGood), "an element of \"" + key + "\" has no text \"" + name + "\"");
  return *list;
}

Json::Object recorded(const Json::Array& list) {
  return {{"recorded", static_cast<std::int64_t>(list.size())}};
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
  Body (ControlPlane::*handle)(const std::string& runID, const Body& body);
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
    const std::size_t star = std::min(route.path.find('*'), route.path.size());
    const std::string_view before = route.path.substr(0, star);
    const std::string_view after = route.path.substr(std::min(star + 1, route.path.size()));
    if (target.size() < before.size() + after.size()) continue;
    if (!target.starts_with(before) || !target.ends_with(after)) continue;
    runID = target.substr(before.size(), target.size() - before.size() - after.size());
    if (runID.empty() == (star == route.path.size()) && runID.find('/') == std::string::npos) return &route;
  }
  return nullptr;
}

std::optional<Reply> ControlPlane::refuse(const Request& request) const {
  const bool api = request.target.starts_with(apiPrefix), config = request.target == agentConfigPath;
  if (!api && (!request.fromLoopback || !namesThisMachine(request.host)))
    return failure(403, "the page is only for this machine");
  if (api && !sameKey(config ? request.device : request.key, key_)) return failure(401, "the key is wrong");
  std::string runID;
  if (api && !config && !find(request.target, runID)) return failure(404, "there is nothing here");
  if (request.method != (api && !config ? "POST" : "GET"))
    return failure(405, "this method is not answered here");
  return std::nullopt;
}

Reply ControlPlane::answer(const Request& request) {
  try {
    if (!request.target.starts_with(apiPrefix)) return page(request);
    return {200, Json(request.target == agentConfigPath ? agentConfig(request) : post(request)).compact()};
  } catch (const Refused& refused) {
    return failure(refused.status, refused.message);
  } catch (const std::runtime_error& error) {
    std::cerr << "obrisk-local: " << error.what() << "\n";
    return failure(500, "this could not be stored");
  }
}

Json::Object ControlPlane::post(const Request& request) {
  std::string runID;
  const Route* route = find(request.target, runID);
  need(route, "there is nothing here", 404);
  const std::optional<Body> body = Json::parseObject(request.body);
  need(body.has_value(), "the body is not a JSON object");
  need(runID.empty() || store_.hasRun(runID), "there is no such run", 404);
  return (this->*route->handle)(runID, *body);
}

// The device token is the key itself: whoever enrols a machine here has it.
Json::Object ControlPlane::agentConfig(const Request& request) const {
  need(!request.tenant.empty(), "a tenant is needed", 401);
  const bool claude = request.process.empty() || request.process == "claude";
  const std::string agent = claude ? "claude-code" : request.process == "Cursor" ? "cursor" : request.process;
  return {{"upload_api_key", key_}, {"agent_slug", agent}, {"agent_type", agent}};
}

Json::Object ControlPlane::startRun(const std::string&, const Body& body) {
  need(!body.text("agent_name").empty() && !body.text("workflow_name").empty(),
       "\"agent_name\" and \"workflow_name\" are needed");
  const Run run = store_.startRun(body);
  return {{"run_id", run.id}, {"workflow_id", run.workflowID}, {"started_at", run.startedAt}};
}

Json::Object ControlPlane::dailyRun(const std::string&, const Body& body) {
  const std::string& date = body.text("date");
  need(!body.text("agent_slug").empty(), "\"agent_slug\" is needed");
  need(date.empty() || isDate(date), "\"date\" is not a date");
  const Run run = store_.dailyRun(body.text("agent_slug"), body.text("agent_type"), date);
  return {{"run_id", run.id},
          {"workflow_id", run.workflowID},
          {"started_at", run.startedAt},
          {"date", run.day},
          {"created", run.created}};
}

Json::Object ControlPlane::checkPolicy(const std::string&, const Body& body) {
  const std::string& workflow = body.text("workflow_name");
  const std::string& runID = body.text("agent_id");
  need(!workflow.empty(), "\"workflow_name\" is needed");
  refreshPolicies();
  const std::int64_t tokens = workflow == compactionWorkflow ? store_.tokens(runID) : 0;
  const PolicyDecision decision = evaluate(policies_.policies(), workflow, tokens);
  store_.recordDecision(runID, workflow, decision);
  Json::Object metadata;
  if (policies_.policies().costCap) metadata.set("cost_cap", *policies_.policies().costCap);
  return {{"action", decision.action},
          {"reason", decision.reason},
          {"metadata", metadata},
          {"evaluations", decision.evaluations}};
}

Json::Object ControlPlane::recordSteps(const std::string& runID, const Body& body) {
  const Json::Array& steps = elements(body, "steps", "step_name");
  store_.recordSteps(runID, steps, body.text("hardware_uuid"));
  return recorded(steps);
}

Json::Object ControlPlane::recordSpans(const std::string& runID, const Body& body) {
  const Json::Array& spans = elements(body, "spans", "name");
  store_.recordSpans(runID, spans);
  return recorded(spans);
}

Json::Object ControlPlane::recordCalls(const std::string& runID, const Body& body) {
  const Json::Array& calls = elements(body, "calls", "model");
  store_.recordCalls(runID, calls);
  return recorded(calls);
}

Json::Object ControlPlane::completeRun(const std::string& runID, const Body& body) {
  need(!body.text("status").empty(), "\"status\" is needed");
  if (body.find("steps")) store_.recordSteps(runID, elements(body, "steps", "step_name"), "");
  store_.completeRun(runID, body);
  const std::optional<double> cap = policies_.policies().costCap;
  const double cost = store_.cost(runID);
  const bool over = cap && cost > *cap;
  const std::string reason =
      over ? "The run cost " + dollars(cost) + "; its cap is " + dollars(*cap) + "." : "";
  return {{"run_id", runID},
          {"governance", Body{{"action", over ? "warn" : "allow"},
                              {"reason", reason},
                              {"retry_feedback", ""},
                              {"max_retries", 0}}}};
}

// For the page: the policies in force, and the store's overview.
std::string ControlPlane::overview() {
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
  return R"({"policies":)" + Json(shown).compact() + R"(,"store":)" + store_.overview() + "}";
}

Reply ControlPlane::page(const Request& request) {
  constexpr std::string_view runsPath = "/ui/runs/";
  if (request.target == "/") return renderPage();
  refreshPolicies();
  const std::string tag = "\"" + std::to_string(store_.version() + policyChanges_) + "\"";
  if (request.known == tag) return {304, "", "application/json", tag};
  const bool isRun = request.target.starts_with(runsPath);
  const std::string runID = isRun ? request.target.substr(runsPath.size()) : "";
  need(isRun ? store_.hasRun(runID) : request.target == "/ui/overview", "there is nothing here", 404);
  return {.body = isRun ? store_.run(runID) : overview(), .tag = tag};
}

}  // namespace LocalControlPlane
