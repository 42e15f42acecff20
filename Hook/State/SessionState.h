// What one invocation hands to the next about an agent's session. The fields are the JSON keys themselves.
// Writing always gives all fifteen; reading requires all fifteen, each of its type, and ignores every other
// member.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Json/Json.h"

// A free value: the record keeps it whatever it is.
using AnyCodable = Json;

struct SessionState {
  std::string session_id;         // the agent's identifier, and the state file's name
  std::string run_id;             // control-plane run; empty: not started
  std::string workflow_id;        // may be empty
  std::string cowork_session_id;  // first session of the group in this directory; empty: no group
  std::string started_at;         // of the run, ISO 8601; its date tells when a daily run is over
  std::string cwd;                // at session start
  std::string model;              // may be empty
  std::int64_t span_count = 0;    // position of the next step
  bool is_cowork = false;
  Json::Object pending_subagent_spans;        // agent id to an AnyCodable, recorded at its start
  std::vector<std::string> modified_files;    // as the agent gave them, first modification first, distinct
  std::vector<std::string> recorded_llm_ids;  // carried through, never changed
  bool is_daily_session = false;              // run_id is shared by the agent's sessions of one day
  std::int64_t transcript_offset = 0;         // bytes of the transcript already recorded
  bool cost_overage_emitted = false;

  // Absent when a field is missing or of another type.
  static std::optional<SessionState> fromJSON(const Json::Object& json);
  Json::Object toJSON() const;

  // The position of the next step becomes the one after it.
  void advancePosition();

  bool operator==(const SessionState&) const = default;
};
