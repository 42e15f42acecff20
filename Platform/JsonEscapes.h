// The escapes in the strings of a JSON text. A surrogate on its own is well-formed and stands for U+FFFD.
#pragma once

#include <string>
#include <string_view>

namespace JsonEscapes {

// Whether every backslash in `text` begins a well-formed escape.
bool areValid(std::string_view text);

// As much of the content of a string, whose escapes are valid, as certainly stands for more than `count`
// user-perceived characters that are not white space; all of it when it is not certain to have as many.
std::string_view beginning(std::string_view content, std::size_t count);

// The text that the content of a string stands for, given without its quotes; its escapes are valid.
std::string resolved(std::string_view content);

}  // namespace JsonEscapes
