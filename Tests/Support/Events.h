// One event of every kind that the product handles, of session "s".
#pragma once

#include <string>
#include <vector>

#include "Platform/Json/Json.h"

// In the order of a session's life; those of tools name files in the directory `project`, and the stop names
// `transcript`.
std::vector<Json::Object> everyEvent(const std::string& project, const std::string& transcript);

// A transcript of `calls` LLM calls of today, each of a message of its own.
std::string transcriptOf(int calls);
