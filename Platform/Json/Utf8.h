// The encoding of texts that come from outside.
#pragma once

#include <string_view>

namespace Utf8 {

// Whether `bytes` as a whole are valid UTF-8: no stray, overlong, cut or surrogate sequence.
bool isValid(std::string_view bytes);

}  // namespace Utf8
