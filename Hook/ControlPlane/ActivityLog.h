// The user's record of every request that the hook made: one JSON line for each attempt, appended to
// `~/.obrisk/logs/hook.activity.jsonl`. Never fails visibly: a log that cannot be written is left, and other
// processes that are writing to it are waited for no longer than `Files::append` does.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ActivityLog {

// `ms`: whole milliseconds; `bytes`: of the response body; `status`: 0 when there was none. `summary` and
// `error` are left out when empty. A user and password in `url` are not written.
void record(const std::string& method, const std::string& url, int status, std::int64_t ms,
            std::int64_t bytes, const std::string& summary, const std::optional<std::string>& error);

}  // namespace ActivityLog
