// Gathers the guard configuration in force for one tool call. It only reads files, caches nothing, logs
// nothing and never fails: a file that is missing, unreadable or malformed is passed over, and the others
// still apply.
#pragma once

#include <string>

#include "Hook/Guard/GuardConfig.h"

namespace HookHandler {

// The built-in defaults, and over them in this order: the control plane's layer (`guard-effective.json`, or
// else `policy.json`) and the user's `guard.json`, all in `~/.obrisk/`, then `.obrisk/guard.json` in the
// project directory `cwd`. An empty `cwd` has no project layer.
GuardConfig loadEffectiveConfig(const std::string& cwd);

}  // namespace HookHandler
