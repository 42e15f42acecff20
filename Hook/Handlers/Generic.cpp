#include <algorithm>

#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"

namespace EventRouter {

namespace {

// The members of an unknown event that its step leaves out.
constexpr std::string_view envelope[] = {"session_id", "hook_event_name", "transcript_path"};

bool isIncluded(std::string_view key, std::span<const std::string_view> includeKeys) {
  if (includeKeys.empty()) return std::ranges::find(envelope, key) == std::end(envelope);
  return std::ranges::find(includeKeys, key) != includeKeys.end();
}

}  // namespace

Outcome handleGeneric(const Json::Object& data, const std::string& kind,
                      std::span<const std::string_view> includeKeys, const ObserveClient& client) {
  auto session = loadStarted(data, client);
  if (!session) return Allow{};
  std::vector<Json::Member> payload;
  std::ranges::copy_if(data, std::back_inserter(payload),
                       [&](const Json::Member& member) { return isIncluded(member.key, includeKeys); });
  session->emitStep(kind, Json::Object(std::move(payload)));
  return Allow{};
}

}  // namespace EventRouter
