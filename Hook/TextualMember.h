// One top-level member set in the text of a JSON object, every other byte left as it was: order, spacing, the
// spelling of numbers. For files that people keep and only ask us to add to.
#pragma once

#include <string>
#include <string_view>

#include "Platform/Json.h"

namespace TextualMember {

// `text`, which must parse as a JSON object, with the value of its member `key` replaced by `value` (of
// several members of that name the last, which is the one that holds), or with the member added after the
// last one.
std::string set(std::string_view text, std::string_view key, const Json& value);

}  // namespace TextualMember
