// Registers the hook with Claude Code, in the user's settings. Everything else in that file stays as it was,
// byte for byte; a file that cannot be understood is left alone. Why an installation failed is in the log
// under "hook.claude".
#pragma once

#include <string>

namespace ClaudeInstaller {

// Merges the hook into `~/.claude/settings.json`, keeping the hooks of other tools; earlier entries of this
// one go. False when nothing was installed.
bool install(const std::string& binaryPath);

}  // namespace ClaudeInstaller
