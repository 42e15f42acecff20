#include "Hook/State/SessionState.h"

#include <limits>
#include <string_view>
#include <type_traits>
#include <variant>

namespace {

using Field = std::variant<std::string SessionState::*, std::int64_t SessionState::*, bool SessionState::*,
                           Json::Object SessionState::*, std::vector<std::string> SessionState::*>;

struct FieldRow {
  std::string_view key;
  Field field;
};

constexpr FieldRow fields[] = {
    {"session_id", &SessionState::session_id},
    {"run_id", &SessionState::run_id},
    {"workflow_id", &SessionState::workflow_id},
    {"cowork_session_id", &SessionState::cowork_session_id},
    {"started_at", &SessionState::started_at},
    {"cwd", &SessionState::cwd},
    {"model", &SessionState::model},
    {"span_count", &SessionState::span_count},
    {"is_cowork", &SessionState::is_cowork},
    {"pending_subagent_spans", &SessionState::pending_subagent_spans},
    {"modified_files", &SessionState::modified_files},
    {"recorded_llm_ids", &SessionState::recorded_llm_ids},
    {"is_daily_session", &SessionState::is_daily_session},
    {"transcript_offset", &SessionState::transcript_offset},
    {"cost_overage_emitted", &SessionState::cost_overage_emitted},
};

// Assigns the value when it is of the target's type.
template <typename Source, typename Target>
bool assign(const Source& source, Target& target) {
  if (source) target = *source;
  return static_cast<bool>(source);
}

bool read(const Json& value, std::string& target) {
  return assign(value.asText(), target);
}
bool read(const Json& value, std::int64_t& target) {
  return assign(value.asInteger(), target);
}
bool read(const Json& value, bool& target) {
  return assign(value.asFlag(), target);
}
bool read(const Json& value, Json::Object& target) {
  return assign(value.asObject(), target);
}
bool read(const Json& value, std::vector<std::string>& target) {
  return assign(value.asTexts(), target);
}

}  // namespace

std::optional<SessionState> SessionState::fromJSON(const Json::Object& json) {
  SessionState state;
  for (const auto& [key, field] : fields) {
    const Json* value = json.find(key);
    if (!value || !std::visit([&](auto member) { return read(*value, state.*member); }, field))
      return std::nullopt;
  }
  return state;
}

Json::Object SessionState::toJSON() const {
  std::vector<Json::Member> members;
  for (const auto& [key, field] : fields)
    members.push_back(
        {std::string(key), std::visit([&](auto member) { return Json(this->*member); }, field)});
  return Json::Object(std::move(members));
}

void SessionState::advancePosition() {
  if (span_count < std::numeric_limits<std::int64_t>::max()) ++span_count;
}
