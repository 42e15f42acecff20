#include "Hook/ControlPlane/ActivityLog.h"

#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Platform/Http/Url.h"
#include "Platform/Json/Json.h"
#include "Platform/Paths.h"
#include "Platform/Process.h"

namespace ActivityLog {

void record(const std::string& method, const std::string& url, int status, std::int64_t ms,
            std::int64_t bytes, const std::string& summary, const std::optional<std::string>& error) {
  Json::Object entry{{"bytes", bytes},          {"daemon", "hook"},
                     {"method", method},        {"ms", ms},
                     {"pid", Process::id()},    {"status", status},
                     {"ts", Clock::dateTime()}, {"url", Url::withoutUserInfo(url)}};
  if (!summary.empty()) entry.set("summary", summary);
  if (error && !error->empty()) entry.set("error", *error);

  const auto directory = Paths::inHome(".obrisk/logs");
  if (!directory) return;
  Files::makeDirectories(*directory);
  Files::append(*directory + "/hook.activity.jsonl", Json(std::move(entry)).compact() + "\n");
}

}  // namespace ActivityLog
