#include "Hook/Handlers/PostToolUse.h"

#include <algorithm>

#include "Hook/Handlers/SessionStart.h"
#include "Hook/Handlers/Steps.h"
#include "Hook/State/SessionStore.h"
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
  if (!path.empty() && std::find(files.begin(), files.end(), path) == files.end()) files.push_back(path);
}

}  // namespace

Outcome handlePostToolUse(const Json::Object& data, const ObserveClient& client) {
  auto state = loadStarted(data, client);
  if (!state || !client.config.isConfigured()) return Allow{};
  const std::string& toolName = data.text("tool_name");
  const Json::Object& toolInput = data.object("tool_input");
  std::string inputSummary = summarizeToolInput(toolName, toolInput);
  std::string outputSummary = summarizeToolOutput(data.object("tool_response"));
  std::string now = Clock::dateTime();

  emitSpan(*state,
           {{"name", toolName},
            {"kind", "tool"},
            {"status", "ok"},
            {"start_time", now},
            {"end_time", now},
            {"attributes", Json::Object{{"tool.name", toolName},
                                        {"tool.input_summary", inputSummary},
                                        {"tool.output_summary", outputSummary}}},
            {"input_data", inputSummary},
            {"output_data", outputSummary}},
           client);
  Json::Object step{{"step_name", "hook:tool_use:" + toolName},
                    {"position", state->span_count},
                    {"output", Json::Object{{"kind", "tool_use"},
                                            {"tool_name", toolName},
                                            {"tool_input", truncateJSON(toolInput, maxInputText)},
                                            {"tool_response_summary", outputSummary},
                                            {"source", "hook"},
                                            {"session_id", data.text("session_id")},
                                            {"timestamp", now}}}};
  noteModifiedFile(*state, toolName, toolInput);
  recordStep(*state, std::move(step), client);
  return Allow{};
}

Outcome handlePostToolUseFailure(const Json::Object& data, const ObserveClient& client) {
  auto state = loadStarted(data, client);
  if (!state || !client.config.isConfigured()) return Allow{};
  const std::string& toolName = data.text("tool_name");
  std::string error(Text::prefix(data.text("error"), maxError));
  std::string now = Clock::dateTime();
  Json::Array events;
  if (!error.empty()) events.push_back(Json::Object{{"name", "error"}, {"message", error}});

  emitSpan(*state,
           {{"name", toolName},
            {"kind", "tool"},
            {"status", "error"},
            {"start_time", now},
            {"end_time", now},
            {"attributes", Json::Object{{"tool.name", toolName}, {"error.message", error}}},
            {"events", events}},
           client);
  emitStep(*state, "tool_failure", {{"tool_name", toolName}, {"error", error}}, client);
  state->advancePosition();
  SessionStore::save(*state);
  return Allow{};
}

}  // namespace EventRouter
