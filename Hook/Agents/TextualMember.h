// JSON edited in its text: what is not named keeps every byte, order, spacing and the spelling of numbers
// included. For files that people keep and only ask us to add to. Texts that are passed in must parse.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Json/Json.h"

namespace TextualMember {

// The elements of a list, each as it is spelled; none of a text of another kind.
std::vector<std::string> elements(std::string_view list);

// The value under `key` as it is spelled (of several members of that name the last, which is the one that
// holds); absent, too, in a text that is no object.
std::optional<std::string_view> find(std::string_view object, std::string_view key);

// `object` with the value that `find` finds replaced by `value`, or with the member added behind the last
// one, on a line of its own that is indented by `spaces`.
std::string set(std::string_view object, std::string_view key, std::string_view value, std::size_t spaces);

// A list of these texts, one a line, each indented by `spaces`.
std::string list(const std::vector<std::string>& elements, std::size_t spaces);

// The pretty form, every line but the first indented by `spaces` more.
std::string pretty(const Json& value, std::size_t spaces);

// Whether the text can be read and written again without a loss: no member is named twice, no string has to
// be mended, no number is spelled as it would not be written.
bool survivesRewriting(std::string_view text);

}  // namespace TextualMember
