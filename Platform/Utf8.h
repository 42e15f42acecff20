// Whether bytes are text.
#pragma once

#include <string_view>

namespace Utf8 {

bool isValid(std::string_view bytes);

}  // namespace Utf8
