// Lets the hook serve GitHub Copilot: rewrites its events into the Claude Code shape, renders outcomes as it
// expects them, and registers the hook with it. Decides nothing about tool use. A missing or mistyped member
// takes its default; nothing here fails but the installation, which says why in the log under "hook.copilot".
#pragma once

#include <string>
#include <string_view>

#include "Hook/Agents/AgentDialect.h"

namespace CopilotAdapter {

// Takes the Claude Code names of the common events as well as Copilot's own.
NormalizedEvent normalize(const Json::Object& raw);

// `copilotEvent`: the "hook_event_name" as it arrived. The status is 0 for a refusal too.
AgentAnswer render(const Outcome& outcome, std::string_view copilotEvent);

// Writes `~/.copilot/hooks/obrisk.json`, which is this hook's alone; an earlier one is replaced without being
// read. False when nothing was installed.
bool install(const std::string& binaryPath);

}  // namespace CopilotAdapter
