#include "Hook/Agents/ClaudeInstaller.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

#include "Hook/Agents/HookFile.h"
#include "Hook/Agents/TextualMember.h"
#include "Platform/Json/Json.h"
#include "Platform/Text.h"

namespace ClaudeInstaller {
namespace {

constexpr Log::Category logger{"hook.claude"};
constexpr HookFile::File settings{".claude/settings.json", "Claude Code", "", logger};

// Not "WorktreeCreate": a hook for it takes the agent's place in creating the worktree and must answer with
// its path.
constexpr std::string_view events =
    "ConfigChange CwdChanged Elicitation ElicitationResult FileChanged InstructionsLoaded Notification "
    "PermissionDenied PermissionRequest PostCompact PostToolUse PostToolUseFailure PreCompact PreToolUse "
    "SessionEnd SessionStart Stop StopFailure SubagentStart SubagentStop TaskCompleted TaskCreated TeammateIdle "
    "UserPromptSubmit WorktreeRemove";
// Their groups match by the tool's name.
constexpr std::string_view toolEvents[] = {"PermissionDenied", "PermissionRequest", "PostToolUse",
                                           "PostToolUseFailure", "PreToolUse"};

// Longer than the hook ever takes: an agent that gives up on it lets pass what it was about to deny.
constexpr int timeoutSeconds = 1320;

Json group(std::string_view event, const std::string& command) {
  Json::Object group{{"hooks", Json::Array{Json::Object{
                                   {"type", "command"}, {"command", command}, {"timeout", timeoutSeconds}}}}};
  if (std::ranges::count(toolEvents, event) > 0) group.set("matcher", "*");
  return group;
}

// Levels of two spaces each.
constexpr std::size_t ofHooks = 2, ofEvent = 4, ofGroup = 6, ofCommand = 10;

// The groups of one event without this hook's commands, and without the groups that had no others.
std::vector<std::string> withoutOwn(const std::vector<std::string>& groups, const std::string& command) {
  std::vector<std::string> kept;
  for (const std::string& group : groups) {
    auto commands = TextualMember::elements(TextualMember::find(group, "hooks").value_or(""));
    const auto own = std::erase_if(commands, [&](const std::string& each) {
      const auto entry = Json::parse(each);
      return entry && HookFile::isOwn(*entry, command);
    });
    if (own == 0) {
      kept.push_back(group);
    } else if (!commands.empty()) {
      kept.push_back(TextualMember::set(group, "hooks", TextualMember::list(commands, ofCommand), ofCommand));
    }
  }
  return kept;
}

// `hooks` with this hook at the end of every event's list; absent when an event's value is no list.
std::optional<std::string> merged(std::string hooks, const std::string& command) {
  const auto groupsOf = [&](std::string_view event) {
    return TextualMember::elements(TextualMember::find(hooks, event).value_or(""));
  };
  const auto setGroups = [&](std::string_view event, const std::vector<std::string>& groups) {
    hooks = TextualMember::set(hooks, event, TextualMember::list(groups, ofGroup), ofEvent);
  };
  const auto present = Json::parseObject(hooks);
  if (!present) return std::nullopt;
  for (const auto& [name, value] : *present) {
    if (!value.asList()) return std::nullopt;
    const auto groups = groupsOf(name), others = withoutOwn(groups, command);
    if (others != groups) setGroups(name, others);
  }
  for (std::string_view rest = events; !rest.empty();) {
    const std::string_view event = Text::takePart(rest, " ");
    auto groups = groupsOf(event);
    groups.push_back(TextualMember::pretty(group(event, command), ofGroup));
    setGroups(event, groups);
  }
  return hooks;
}

}  // namespace

bool install(const std::string& binaryPath) {
  const auto command = HookFile::command(settings, binaryPath);
  if (!command) return false;
  std::string text = "{}\n";
  if (HookFile::exists(settings)) {
    auto present = HookFile::read(settings);
    if (!present) return HookFile::refuse(settings, "the present file cannot be read");
    text = std::move(*present);
  }
  if (!Json::parseObject(text)) return HookFile::refuse(settings, "the present file is not a JSON object");
  const auto hooks = TextualMember::find(text, "hooks").value_or("{}");
  if (!hooks.starts_with('{')) return HookFile::refuse(settings, "its \"hooks\" is not an object");

  const auto result = merged(std::string(hooks), *command);
  if (!result) return HookFile::refuse(settings, "an event in its \"hooks\" has no list");
  return HookFile::replace(settings, TextualMember::set(text, "hooks", *result, ofHooks));
}

}  // namespace ClaudeInstaller
