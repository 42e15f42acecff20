// Gathers the guard configuration in force for one tool call. It only reads files, caches nothing, logs
// nothing but what cannot be held in memory, and never fails: a file that is missing, unreadable or malformed
// is passed over, and the others still apply.
#pragma once

#include <string>

#include "Hook/Guard/GuardConfig.h"

namespace HookHandler {

// The built-in defaults, and over them in this order: the control plane's layer (`guard-effective.json`, or
// else `policy.json`) and the user's `guard.json`, all in `~/.obrisk/`, then `.obrisk/guard.json` in the
// project directory `cwd`. An empty `cwd` has no project layer.
GuardConfig loadEffectiveConfig(const std::string& cwd);

// Whether the control plane's layer or the user's file wants calls of a session without a run to be judged.
bool guardsWithoutRun();

}  // namespace HookHandler
