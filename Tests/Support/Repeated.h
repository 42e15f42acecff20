#pragma once

#include <string>
#include <string_view>

inline std::string repeated(std::string_view part, std::size_t times) {
  std::string whole;
  for (std::size_t i = 0; i < times; ++i)
    whole += part;
  return whole;
}
