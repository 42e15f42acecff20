// The unified log, under subsystem "dev.obrisk.setup". On macOS the system's; elsewhere one JSON line for
// each message, appended to `~/.obrisk/logs/hook.diagnostics.jsonl` (mode 0600). Never raises an error, never
// writes to standard output or error. Callers never pass a key or a token.
#pragma once

#include <string_view>

namespace Log {

// The messages of one namespace, which has a constant `logger` of this type.
struct Category {
  std::string_view name;

  void info(std::string_view message) const;
  void error(std::string_view message) const;
};

}  // namespace Log
