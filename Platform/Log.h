// The unified log, under subsystem "dev.obrisk.setup". On macOS the system's; elsewhere one JSON line for
// each message, appended to `~/.obrisk/logs/hook.diagnostics.jsonl` (mode 0600). Never raises an error, never
// writes to standard output or error. Callers never pass a key or a token.
#pragma once

#include <string_view>

namespace Log {

enum class Level { info, error };

// `category` is one of "hook", "hook.router", "hook.transcript", "hook.cursor", "hook.copilot",
// "hook.claude".
void write(Level level, std::string_view category, std::string_view message);

inline void error(std::string_view category, std::string_view message) {
  write(Level::error, category, message);
}
inline void info(std::string_view category, std::string_view message) {
  write(Level::info, category, message);
}

}  // namespace Log
