// The current time and its two renderings, both in UTC.
#pragma once

#include <chrono>
#include <string>

namespace Clock {

using Time = std::chrono::system_clock::time_point;

inline Time now() {
  return std::chrono::system_clock::now();
}

// ISO 8601 internet date-time (RFC 3339) with milliseconds, truncated: 2026-01-31T09:15:00.123Z
std::string dateTime(Time time = now());

// ISO 8601 full date: 2026-01-31
std::string date(Time time = now());

}  // namespace Clock
