// The strings of a JSON text, by the content that stands between their quotes. A surrogate escape on its own
// is well-formed and stands for U+FFFD.
#pragma once

#include <string>
#include <string_view>

// How much of a long text serves whoever asks for it. Most of what tools return is never read beyond its
// first characters, so of a text with more than `characters` user-perceived characters, white space not
// counted, only a beginning with more than so many need be built: enough to cut it there, and to see that
// there was more.
struct Enough {
  std::size_t characters = std::string_view::npos;  // the whole text
};

namespace JsonString {

// How long the string is that `text` begins with, its quotes included; 0 when it does not end, or holds a
// control character or a malformed escape.
std::size_t length(std::string_view text);

// The text that a well-formed content stands for.
std::string resolved(std::string_view content, Enough enough = {});

// Appends `text` as the content of a string: quotes, backslashes, slashes and control characters as escapes,
// every byte that is not UTF-8 as U+FFFD, everything else as it is.
void append(std::string& out, std::string_view text);

}  // namespace JsonString
