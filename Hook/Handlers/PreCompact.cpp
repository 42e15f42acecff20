#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"

namespace EventRouter {

namespace {

constexpr const char* eventName = "PreCompact";

constexpr PolicyAnswer blocked{"precompact_block", "Budget policy blocked compaction",
                               "Obrisk policy blocked compaction: ", "budget threshold exceeded"};
constexpr PolicyAnswer warned{"precompact_warn", "Budget policy warning",
                              "Obrisk budget warning before compaction: ", "approaching budget threshold"};

}  // namespace

Outcome handlePreCompact(const Json::Object& data, const ObserveClient& client) {
  auto session = loadStarted(data, client);
  if (!session) return Allow{};
  Json::Object payload;
  if (const Json* preTokens = data.find("pre_tokens")) payload.set("pre_tokens", *preTokens);
  session->emitStep("pre_compact", payload);
  const auto result = session->checkPolicy("claude-code:precompact");
  if (!result) return Allow{};
  if (result->action == "block") return Deny{eventName, session->report(eventName, blocked, result->reason)};
  if (result->action == "warn") return Ask{eventName, session->report(eventName, warned, result->reason)};
  return Allow{};
}

}  // namespace EventRouter
