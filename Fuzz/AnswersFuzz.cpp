// Any bytes as the body of every answer that the control plane gives to one event, and to the question for
// the device's identity. The first byte chooses the event.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "Fuzz/Support/FuzzHome.h"
#include "Hook/Handlers/Handlers.h"
#include "Hook/State/SessionStore.h"
#include "Shared/DeviceIdentity.h"
#include "Tests/Support/FakeControlPlane.h"

namespace {

using namespace std::chrono_literals;

// A server remembers every request, so it serves only for a while.
constexpr int eventsPerServer = 1'000;

ObserveClient clientOf(const FakeControlPlane& plane) {
  ObserveClient client;
  client.config = {
      .apiUrl = plane.url(), .apiKey = "key", .agentSlug = "slug", .policyCheckFailDefault = "deny"};
  client.timeout.idle = 2s;
  client.maxAttempts = 1;
  return client;
}

void askForIdentity(const FuzzHome& home, const FakeControlPlane& plane) {
  const std::string file = home.home() + "/identity.json";
  FuzzHome::write(file, R"({"device_token":"t","tenant_slug":"t","api_url":")" + plane.url() + "\"}");
  const auto identity = DeviceIdentity::resolve("claude", file);
  require(!identity || !identity->uploadKey.empty(), "an identity has a key");
}

void handleEvent(const FuzzHome& home, const FakeControlPlane& plane, int choice) {
  const ObserveClient client = clientOf(plane);
  const std::string transcript = home.home() + "/transcript.jsonl";
  FuzzHome::write(transcript,
                  R"({"type":"assistant","message":{"model":"opus","usage":{"input_tokens":1000000}}})");
  const Json::Object event{{"session_id", "s"},
                           {"cwd", home.project()},
                           {"tool_name", "Write"},
                           {"tool_input", Json::Object{{"file_path", ".gitlab-ci.yml"}}},
                           {"transcript_path", transcript}};
  using Handler = Outcome (*)(const Json::Object&, const ObserveClient&);
  constexpr Handler handlers[] = {EventRouter::handlePreToolUse, EventRouter::handlePreCompact,
                                  EventRouter::handleStop, EventRouter::handleSessionStart};
  SessionState state = home.session();
  if (choice >= 4) state.started_at = "2026-01-01";
  SessionStore::remove("s");
  if (choice < 8) require(!SessionStore::save(state), "a session can be stored");
  const Outcome outcome = handlers[choice % 4](event, client);
  require(Json::parseObject(renderJSON(outcome)).has_value(), "the answer is one JSON object");
  require(choice % 4 < 2 || std::holds_alternative<Allow>(outcome), "only a gate objects");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const FuzzHome home;
  static std::optional<FakeControlPlane> plane;
  static int served = 0;
  static std::string body;
  if (size == 0) return 0;
  body.assign(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (served++ % eventsPerServer == 0) {
    plane.emplace();
    plane->on("*", [](const FakeControlPlane::Request&) { return FakeControlPlane::status(200, body); });
  }
  const int choice = data[0] % 13;
  choice == 12 ? askForIdentity(home, *plane) : handleEvent(home, *plane, choice);
  return 0;
}
