// Lets the hook serve Cursor: rewrites its events into the Claude Code shape, renders outcomes as it expects
// them, and registers the hook with it. Decides nothing about tool use. A missing or mistyped member takes
// its default; nothing here fails but the installation, which says why in the log under "hook.cursor".
#pragma once

#include <string>
#include <string_view>

#include "Hook/Agents/AgentDialect.h"

namespace CursorAdapter {

// Cursor's end of a turn and of a session become notifications; neither completes the session's run.
NormalizedEvent normalize(const Json::Object& raw);

// `cursorEvent`: the event's name as it arrived. The status is 0 for a refusal too.
AgentAnswer render(const Outcome& outcome, std::string_view cursorEvent);

// Merges the hook into `~/.cursor/hooks.json`, keeping the hooks of other tools; earlier entries of this one
// go. A file that rewriting would lose something of is first copied beside itself, one that cannot
// be read is moved there. False when nothing was installed.
bool install(const std::string& binaryPath);

}  // namespace CursorAdapter
