#include "Platform/Log.h"

#ifdef __APPLE__
#include <os/log.h>

#include <string>
#else
#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Platform/Json/Json.h"
#include "Platform/Paths.h"
#include "Platform/Process.h"
#endif

namespace Log {

namespace {

enum class Level { info, error };

void write(Level level, std::string_view category, std::string_view message) {
#ifdef __APPLE__
  os_log_t handle = os_log_create("dev.obrisk.setup", std::string(category).c_str());
  os_log_with_type(handle, level == Level::error ? OS_LOG_TYPE_ERROR : OS_LOG_TYPE_DEFAULT, "%{public}s",
                   std::string(message).c_str());
#else
  const auto directory = Paths::inHome(".obrisk/logs");
  if (!directory) return;
  Files::makeDirectories(*directory);
  const Json record(Json::Object{{"category", category},
                                 {"level", level == Level::error ? "error" : "default"},
                                 {"message", message},
                                 {"pid", Process::id()},
                                 {"subsystem", "dev.obrisk.setup"},
                                 {"ts", Clock::dateTime()}});
  Files::append(*directory + "/hook.diagnostics.jsonl", record.compact() + "\n");
#endif
}

}  // namespace

void Category::info(std::string_view message) const {
  write(Level::info, name, message);
}

void Category::error(std::string_view message) const {
  write(Level::error, name, message);
}

}  // namespace Log
