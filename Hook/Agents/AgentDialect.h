// The two shapes that every adapter for another agent produces: its event in the form the router reads, and
// the router's outcome in the form the agent reads.
#pragma once

#include <cstdint>
#include <string>

#include "Hook/Handlers/Outcome.h"
#include "Platform/Json/Json.h"

struct NormalizedEvent {
  std::string event;  // the "hook_event_name" of `data`
  Json::Object data;
};

struct AgentAnswer {
  std::string body;         // on standard output
  std::int32_t status = 0;  // exit status of the process
};
