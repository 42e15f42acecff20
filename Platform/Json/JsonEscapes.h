// The escapes in the strings of a JSON text. A surrogate on its own is well-formed and stands for U+FFFD.
#pragma once

#include <string>
#include <string_view>

namespace JsonEscapes {

// Whether every backslash in `text` begins a well-formed escape.
bool areValid(std::string_view text);

// The text that the content of a string stands for, given without its quotes; its escapes are valid. Of a
// text that has more than `enough` user-perceived characters, white space not counted, maybe only a beginning
// with more than so many.
std::string resolved(std::string_view content, std::size_t enough = std::string_view::npos);

// Appends `text`, which is valid UTF-8, as the content of a string: quotes, backslashes, slashes and control
// characters as escapes, everything else as it is.
void append(std::string& out, std::string_view text);

}  // namespace JsonEscapes
