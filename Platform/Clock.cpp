#include "Platform/Clock.h"

#include <array>
#include <cstdio>

namespace Clock {

std::string date(Time time) {
  return dateTime(time).substr(0, 10);
}

std::string dateTime(Time time) {
  const auto midnight = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day day(midnight);
  const std::chrono::hh_mm_ss clock(std::chrono::floor<std::chrono::milliseconds>(time - midnight));
  std::array<char, 64> text;
  const int size = std::snprintf(
      text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(day.year()),
      static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()),
      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
      static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
  return {text.data(), static_cast<std::size_t>(size)};
}

}  // namespace Clock
