#include "Hook/ClaudeInstaller.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "Hook/HookFile.h"
#include "Hook/TextualMember.h"
#include "Platform/Json.h"

namespace ClaudeInstaller {
namespace {

constexpr HookFile::File settings{".claude/settings.json", "Claude Code", "hook.claude"};

struct Event {
  std::string_view name;
  bool concernsTools = false;  // its groups match by the tool's name
};

// Not "WorktreeCreate": a hook for it takes the agent's place in creating the worktree and must answer with
// its path.
constexpr auto events = std::to_array<Event>({
    {"SessionStart"},
    {"SessionEnd"},
    {"UserPromptSubmit"},
    {"PreToolUse", true},
    {"PostToolUse", true},
    {"PostToolUseFailure", true},
    {"PermissionRequest", true},
    {"PermissionDenied", true},
    {"Notification"},
    {"SubagentStart"},
    {"SubagentStop"},
    {"Stop"},
    {"StopFailure"},
    {"PreCompact"},
    {"PostCompact"},
    {"TeammateIdle"},
    {"TaskCreated"},
    {"TaskCompleted"},
    {"InstructionsLoaded"},
    {"ConfigChange"},
    {"CwdChanged"},
    {"FileChanged"},
    {"WorktreeRemove"},
    {"Elicitation"},
    {"ElicitationResult"},
});

// Longer than the hook ever takes: an agent that gives up on it lets pass what it was about to deny.
constexpr int timeoutSeconds = 1320;

Json group(const Event& event, const std::string& command) {
  Json::Object group{{"hooks", Json::Array{Json::Object{
                                   {"type", "command"}, {"command", command}, {"timeout", timeoutSeconds}}}}};
  if (event.concernsTools) group.set("matcher", "*");
  return group;
}

// The groups of one event without this hook's commands, and without the groups that had no others.
Json::Array withoutOwn(const Json::Array& groups, const std::string& command) {
  Json::Array kept;
  for (const Json& group : groups) {
    const Json::Object* members = group.asObject();
    const Json::Array& commands = members ? members->list("hooks") : Json::Array{};
    Json::Array others = HookFile::withoutOwn(commands, command);
    if (others.size() == commands.size()) {
      kept.push_back(group);
    } else if (!others.empty()) {
      Json::Object rest = *members;
      rest.set("hooks", std::move(others));
      kept.push_back(std::move(rest));
    }
  }
  return kept;
}

// `hooks` with this hook at the end of every event's list; absent when an event's value is no list.
std::optional<Json::Object> merged(const Json::Object& hooks, const std::string& command) {
  Json::Object result;
  for (const auto& [name, value] : hooks) {
    const Json::Array* groups = value.asList();
    if (!groups) return std::nullopt;
    Json::Array kept = withoutOwn(*groups, command);
    if (groups->empty() || !kept.empty()) result.set(name, std::move(kept));
  }
  for (const Event& event : events) {
    Json::Array groups = result.list(event.name);
    groups.push_back(group(event, command));
    result.set(event.name, std::move(groups));
  }
  return result;
}

}  // namespace

bool install(const std::string& binaryPath) {
  if (!HookFile::accepts(settings, binaryPath)) return false;
  std::string text = "{}\n";
  if (HookFile::exists(settings)) {
    auto present = HookFile::read(settings);
    if (!present) return false;
    text = std::move(*present);
  }
  const auto file = Json::parseObject(text);
  if (!file) return HookFile::refuse(settings, "the present file is not a JSON object");
  const Json* hooks = file->find("hooks");
  if (hooks && !hooks->asObject()) return HookFile::refuse(settings, "its \"hooks\" is not an object");

  const auto result = merged(file->object("hooks"), "'" + binaryPath + "'");
  if (!result) return HookFile::refuse(settings, "an event in its \"hooks\" has no list");
  return HookFile::replace(settings, TextualMember::set(text, "hooks", *result));
}

}  // namespace ClaudeInstaller
