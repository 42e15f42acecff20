#include "Hook/Handlers/Generic.h"

#include <algorithm>

#include "Hook/Handlers/SessionStart.h"
#include "Hook/Handlers/Steps.h"
#include "Hook/Handlers/Stop.h"
#include "Hook/State/SessionStore.h"

namespace EventRouter {

namespace {

// What an event of no known kind need not repeat in its step.
constexpr std::string_view envelope[] = {"session_id", "hook_event_name", "transcript_path"};

bool isIncluded(const std::string& key, std::span<const std::string_view> includeKeys) {
  if (includeKeys.empty())
    return std::find(std::begin(envelope), std::end(envelope), key) == std::end(envelope);
  return std::find(includeKeys.begin(), includeKeys.end(), key) != includeKeys.end();
}

}  // namespace

Outcome handleGeneric(const Json::Object& data, const std::string& kind,
                      std::span<const std::string_view> includeKeys, const ObserveClient& client) {
  auto state = loadStarted(data, client);
  if (!state) return Allow{};
  std::vector<Json::Member> payload;
  std::copy_if(data.begin(), data.end(), std::back_inserter(payload),
               [&](const Json::Member& member) { return isIncluded(member.key, includeKeys); });
  emitStep(*state, kind, Json::Object(std::move(payload)), client);
  return Allow{};
}

Outcome handleSessionEnd(const Json::Object& data, const ObserveClient& client) {
  const std::string& sessionID = data.text("session_id");
  if (sessionID.empty()) return Allow{};
  auto state = SessionStore::load(sessionID);
  return state && !state->run_id.empty() ? handleStop(data, client) : Allow{};
}

}  // namespace EventRouter
