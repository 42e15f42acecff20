// Registers the hook with Claude Code, in the user's settings. What others have put into that file stays as
// it is spelled; only white space around what is added or taken away is laid out anew. A file that cannot be
// understood is left alone. Why an installation failed is in the log under "hook.claude".
#pragma once

#include <string>

namespace ClaudeInstaller {

// Merges the hook into `~/.claude/settings.json`, keeping the hooks of other tools; earlier entries of this
// one go. False when nothing was installed.
bool install(const std::string& binaryPath);

}  // namespace ClaudeInstaller
