// The encoding of texts that come from outside.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Utf8 {

// Stands in a text for what cannot be told.
inline constexpr char32_t replacement = U'\uFFFD';

struct Character {
  char32_t point = replacement;
  std::size_t size = 0;  // in bytes; 0: no valid sequence
};

// The character that `text` begins with. A stray, overlong, cut or surrogate sequence is none.
Character first(std::string_view text);

// Whether `text` is valid as a whole.
bool isValid(std::string_view text);

// `text` with U+FFFD for every byte that belongs to no valid sequence.
std::string repaired(std::string_view text);

// Appends the sequence of `point`, which is no surrogate.
void append(std::string& out, char32_t point);

}  // namespace Utf8
