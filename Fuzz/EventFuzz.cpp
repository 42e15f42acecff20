// Any event of any agent, through translation, routing and rendering, for a session that is known and one
// that is not, without a control plane. The first byte chooses; the rest is standard input.
#include <cstddef>
#include <cstdint>

#include "Fuzz/Support/FuzzHome.h"
#include "Hook/Agents/CopilotAdapter.h"
#include "Hook/Agents/CursorAdapter.h"
#include "Hook/EventRouter.h"
#include "Hook/State/SessionStore.h"

namespace {

AgentAnswer answer(const Json::Object& event, int dialect) {
  if (dialect == 0) return {renderJSON(EventRouter::handle(event, std::nullopt, "claude"))};
  const bool isCursor = dialect == 1;
  const NormalizedEvent normalized =
      isCursor ? CursorAdapter::normalize(event) : CopilotAdapter::normalize(event);
  const Outcome outcome = EventRouter::handle(normalized.data, std::nullopt, isCursor ? "Cursor" : "copilot");
  const std::string& name = event.text("hook_event_name");
  return isCursor ? CursorAdapter::render(outcome, name) : CopilotAdapter::render(outcome, name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const FuzzHome home;
  if (size == 0) return 0;
  const auto event = Json::parseObject({reinterpret_cast<const char*>(data) + 1, size - 1});
  if (!event) return 0;
  const int choice = data[0] % 6;
  SessionStore::remove("s");
  if (choice >= 3) require(!SessionStore::save(home.session()), "a session can be stored");

  const AgentAnswer given = answer(*event, choice % 3);
  require(given.status == 0, "the status is 0");
  const auto object = Json::parseObject(given.body);
  require(object && !object->empty(), "the answer is one JSON object");
  require(Json(*object).compact() == given.body, "the answer is compact and sorted");
  return 0;
}
