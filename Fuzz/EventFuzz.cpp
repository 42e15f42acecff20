// Any event of any agent, through translation, routing and rendering, for a session that is known and one
// that is not, without a control plane. The first byte chooses; the rest is standard input.
#include "Fuzz/Support/Fuzzing.h"
#include "Hook/Agents/CopilotAdapter.h"
#include "Hook/Agents/CursorAdapter.h"
#include "Hook/EventRouter.h"
#include "Hook/State/SessionStore.h"

namespace {

AgentAnswer answer(const Json::Object& event, int dialect) {
  if (dialect == 0) return {renderJSON(EventRouter::handle(event, std::nullopt, "claude")), 0};
  const bool isCursor = dialect == 1;
  const NormalizedEvent normalized =
      isCursor ? CursorAdapter::normalize(event) : CopilotAdapter::normalize(event);
  const Outcome outcome = EventRouter::handle(normalized.data, std::nullopt, isCursor ? "Cursor" : "copilot");
  const std::string& name = event.text("hook_event_name");
  return isCursor ? CursorAdapter::render(outcome, name) : CopilotAdapter::render(outcome, name);
}

}  // namespace

void fuzz(std::string_view input) {
  const auto event = input.empty() ? std::nullopt : Json::parseObject(input.substr(1));
  if (!event) return;
  const SessionState state = sandbox().started();
  const int choice = static_cast<unsigned char>(input[0]) % 6;
  SessionStore::remove("s");
  if (choice >= 3) require(!SessionStore::save(state), "a session can be stored");
  const AgentAnswer given = answer(*event, choice % 3);
  require(given.status == 0, "the status is 0");
  const auto object = Json::parseObject(given.body);
  require(object && !object->empty(), "the answer is one JSON object");
  require(Json(*object).compact() == given.body, "the answer is compact and sorted");
}
