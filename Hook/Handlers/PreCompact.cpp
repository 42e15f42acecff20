#include "Hook/Handlers/PreCompact.h"

#include "Hook/Handlers/GuardDecision.h"
#include "Hook/Handlers/SessionStart.h"
#include "Hook/Handlers/Steps.h"
#include "Platform/Text.h"

namespace EventRouter {

namespace {

constexpr const char* eventName = "PreCompact";

std::string either(const std::string& reason, const char* otherwise) {
  return reason.empty() ? otherwise : reason;
}

}  // namespace

Outcome handlePreCompact(const Json::Object& data, const ObserveClient& client) {
  auto state = loadStarted(data, client);
  if (!state) return Allow{};
  Json::Object payload;
  if (const Json* preTokens = data.find("pre_tokens")) payload.set("pre_tokens", *preTokens);
  emitStep(*state, "pre_compact", payload, client);
  if (!client.config.isConfigured() || client.config.agentSlug.empty()) return Allow{};
  auto result = client.checkPolicy("claude-code", "claude-code:precompact", state->run_id);
  if (!result) return Allow{};
  std::string action = Text::lowercased(result->action);
  auto report = [&](const char* decision, const char* violation) {
    emitGuardDecision(*state, eventName, {decision, either(result->reason, violation), "server-side"},
                      client);
  };
  if (action == "block") {
    report("precompact_block", "Budget policy blocked compaction");
    return Deny{eventName,
                "Obrisk policy blocked compaction: " + either(result->reason, "budget threshold exceeded")};
  }
  if (action == "warn") {
    report("precompact_warn", "Budget policy warning");
    return Ask{eventName, "Obrisk budget warning before compaction: " +
                              either(result->reason, "approaching budget threshold")};
  }
  return Allow{};
}

}  // namespace EventRouter
