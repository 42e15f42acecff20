#include <algorithm>

#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"
#include "Hook/Handlers/ToolSummaries.h"
#include "Platform/Clock.h"
#include "Platform/Text.h"

namespace EventRouter {

namespace {

constexpr std::size_t maxInputText = 2000;
constexpr std::size_t maxError = 500;

void noteModifiedFile(SessionState& state, const std::string& toolName, const Json::Object& toolInput) {
  if (toolName != "Write" && toolName != "Edit") return;
  const std::string& path = toolInput.text("file_path");
  auto& files = state.modified_files;
  if (!path.empty() && std::ranges::find(files, path) == files.end()) files.push_back(path);
}

}  // namespace

Outcome handlePostToolUse(const Json::Object& data, const ObserveClient& client) {
  auto session = loadStarted(data, client);
  if (!session || !session->isConfigured()) return Allow{};
  const std::string& toolName = data.text("tool_name");
  const Json::Object& toolInput = data.object("tool_input");
  const std::string inputSummary = summarizeToolInput(toolName, toolInput);
  const std::string outputSummary = summarizeToolOutput(data.object("tool_response"));
  const std::string now = Clock::dateTime();

  const Json::Object attributes{
      {"tool.name", toolName}, {"tool.input_summary", inputSummary}, {"tool.output_summary", outputSummary}};
  session->emitSpan({toolName, "tool", "ok", now, now, attributes},
                    {{"input_data", inputSummary}, {"output_data", outputSummary}});
  noteModifiedFile(session->state, toolName, toolInput);
  session->recordStep("tool_use:" + toolName, {{"kind", "tool_use"},
                                               {"tool_name", toolName},
                                               {"tool_input", truncateJSON(toolInput, maxInputText)},
                                               {"tool_response_summary", outputSummary},
                                               {"session_id", data.text("session_id")},
                                               {"timestamp", now}});
  return Allow{};
}

Outcome handlePostToolUseFailure(const Json::Object& data, const ObserveClient& client) {
  auto session = loadStarted(data, client);
  if (!session || !session->isConfigured()) return Allow{};
  const std::string& toolName = data.text("tool_name");
  const std::string error(Text::prefix(data.text("error"), maxError));
  const std::string now = Clock::dateTime();
  Json::Array events;
  if (!error.empty()) events.push_back(Json::Object{{"name", "error"}, {"message", error}});

  const Json::Object attributes{{"tool.name", toolName}, {"error.message", error}};
  session->emitSpan({toolName, "tool", "error", now, now, attributes}, {{"events", events}});
  session->emitStep("tool_failure", {{"tool_name", toolName}, {"error", error}});
  session->state.advancePosition();
  session->save();
  return Allow{};
}

}  // namespace EventRouter
