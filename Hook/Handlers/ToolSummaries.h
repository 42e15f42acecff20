// What of a tool's input and output is recorded. Lengths count user-perceived characters.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Platform/Json/Json.h"

namespace EventRouter {

// One short line that says what a tool was asked; empty when there is nothing to say. Of a tool that is not
// known, the first member of its input in sorted order.
std::string summarizeToolInput(std::string_view toolName, const Json::Object& input);

// One short line that says what a tool answered; empty when there is nothing to say.
std::string summarizeToolOutput(const Json::Object& response);

// The object with every string in it cut to `maxChars` characters and every array to 50 elements, at any
// depth.
Json::Object truncateJSON(const Json::Object& object, std::size_t maxChars);

}  // namespace EventRouter
