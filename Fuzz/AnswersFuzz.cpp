// Any bytes as the body of every answer that the control plane gives to one event, and to the question for
// the device's identity. The first byte chooses the event.
#include <variant>

#include "Fuzz/Support/Fuzzing.h"
#include "Hook/Handlers/Handlers.h"
#include "Hook/State/SessionStore.h"
#include "Shared/DeviceIdentity.h"

using namespace std::chrono_literals;

namespace {

void askForIdentity(const std::string& url) {
  const std::string file = sandbox().home() + "/identity.json";
  Sandbox::write(file, R"({"device_token":"t","tenant_slug":"t","api_url":")" + url + "\"}");
  const auto identity = DeviceIdentity::resolve("claude", file);
  require(!identity || !identity->uploadKey.empty(), "an identity has a key");
}

void handleEvent(const std::string& url, int choice) {
  ObserveClient client = Sandbox::client(url, "slug", "deny");
  client.timeout.idle = 2s;
  client.maxAttempts = 1;
  const std::string transcript = sandbox().home() + "/transcript.jsonl";
  Sandbox::write(transcript,
                 R"({"type":"assistant","message":{"model":"opus","usage":{"input_tokens":1000000}}})");
  const Json::Object event{{"session_id", "s"},
                           {"cwd", sandbox().project()},
                           {"tool_name", "Write"},
                           {"tool_input", Json::Object{{"file_path", ".gitlab-ci.yml"}}},
                           {"transcript_path", transcript}};
  constexpr decltype(&EventRouter::handleStop) handlers[] = {
      EventRouter::handlePreToolUse, EventRouter::handlePreCompact, EventRouter::handleStop,
      EventRouter::handleSessionStart};
  SessionState state = sandbox().started();
  if (choice >= 4) state.started_at = "2026-01-01";
  SessionStore::remove("s");
  if (choice < 8) require(!SessionStore::save(state), "a session can be stored");
  const Outcome outcome = handlers[choice % 4](event, client);
  require(Json::parseObject(renderJSON(outcome)).has_value(), "the answer is one JSON object");
  require(choice % 4 < 2 || std::holds_alternative<Allow>(outcome), "only a gate objects");
}

}  // namespace

void fuzz(std::string_view input) {
  if (input.empty()) return;
  FakeControlPlane& answering = plane();
  answering.on("*", FakeControlPlane::status(200, std::string(input.substr(1))));
  const int choice = static_cast<unsigned char>(input[0]) % 13;
  choice == 12 ? askForIdentity(answering.url()) : handleEvent(answering.url(), choice);
}
