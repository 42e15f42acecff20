#include "Platform/Clock.h"

#include <array>

namespace Clock {

namespace {

void appendDigits(std::string& out, int value, int width) {
  std::array<char, 4> digits{};
  for (int at = width - 1; at >= 0; --at, value /= 10)
    digits[static_cast<std::size_t>(at)] = static_cast<char>('0' + value % 10);
  out.append(digits.data(), static_cast<std::size_t>(width));
}

}  // namespace

std::string date(Time time) {
  std::chrono::year_month_day day(std::chrono::floor<std::chrono::days>(time));
  std::string out;
  appendDigits(out, static_cast<int>(day.year()), 4);
  out += '-';
  appendDigits(out, static_cast<int>(static_cast<unsigned>(day.month())), 2);
  out += '-';
  appendDigits(out, static_cast<int>(static_cast<unsigned>(day.day())), 2);
  return out;
}

std::string dateTime(Time time) {
  auto sinceMidnight =
      std::chrono::floor<std::chrono::milliseconds>(time) - std::chrono::floor<std::chrono::days>(time);
  std::chrono::hh_mm_ss clock(sinceMidnight);
  std::string out = date(time);
  out += 'T';
  appendDigits(out, static_cast<int>(clock.hours().count()), 2);
  out += ':';
  appendDigits(out, static_cast<int>(clock.minutes().count()), 2);
  out += ':';
  appendDigits(out, static_cast<int>(clock.seconds().count()), 2);
  out += '.';
  appendDigits(out, static_cast<int>(clock.subseconds().count()), 3);
  out += 'Z';
  return out;
}

}  // namespace Clock
