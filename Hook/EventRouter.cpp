#include "Hook/EventRouter.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

#include "Hook/ControlPlane/ObriskConfig.h"
#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/Handlers/Handlers.h"

namespace EventRouter {

namespace {

struct HandlerRow {
  std::string_view event;
  Outcome (*handler)(const Json::Object& data, const ObserveClient& client);
};

constexpr HandlerRow handlers[] = {
    {"SessionStart", handleSessionStart},   {"PreToolUse", handlePreToolUse},
    {"PostToolUse", handlePostToolUse},     {"PostToolUseFailure", handlePostToolUseFailure},
    {"SubagentStart", handleSubagentStart}, {"SubagentStop", handleSubagentStop},
    {"TeammateIdle", handleTeammateIdle},   {"Stop", handleStop},
    {"SessionEnd", handleSessionEnd},       {"PreCompact", handlePreCompact},
};

// Events that are recorded as a step and nothing more: its kind, and the event's members that it carries.
struct GenericRow {
  std::string_view event;
  std::string_view kind;
  std::array<std::string_view, 3> keys;  // unused ones empty, at the end

  std::span<const std::string_view> includeKeys() const {
    return {keys.begin(), std::ranges::find(keys, "")};
  }
};

constexpr GenericRow generics[] = {
    {"StopFailure", "stop_failure", {"error"}},
    {"PostCompact", "post_compact", {"pre_tokens", "post_tokens"}},
    {"UserPromptSubmit", "user_prompt", {"prompt"}},
    {"Notification", "notification", {"message", "notification_type"}},
    {"TaskCreated", "task_created", {"task_id", "content", "status"}},
    {"TaskCompleted", "task_completed", {"task_id", "content", "status"}},
    {"PermissionRequest", "permission_request", {"tool_name", "tool_input", "reason"}},
    {"PermissionDenied", "permission_denied", {"tool_name", "tool_input", "reason"}},
    {"InstructionsLoaded", "instructions_loaded", {"file_path", "source"}},
    {"CwdChanged", "cwd_changed", {"old_cwd", "new_cwd", "cwd"}},
    {"ConfigChange", "config_change", {"file_path", "config_type"}},
    {"FileChanged", "file_changed", {"file_path", "event_type"}},
    {"WorktreeCreate", "worktree_create", {"worktree_path"}},
    {"WorktreeRemove", "worktree_remove", {"worktree_path"}},
    {"Elicitation", "elicitation", {"server_name", "prompt"}},
    {"ElicitationResult", "elicitation_result", {"server_name", "response"}},
};

}  // namespace

Outcome handle(const Json::Object& data, const std::optional<std::string>& requestedProfile,
               const std::string& process) {
  const std::string& event = data.text("hook_event_name");
  ObserveClient client{.config = ObriskHookConfig::load(requestedProfile, process)};
  if (const auto* row = std::ranges::find(handlers, event, &HandlerRow::event); row != std::end(handlers))
    return row->handler(data, client);
  if (const auto* row = std::ranges::find(generics, event, &GenericRow::event); row != std::end(generics))
    return handleGeneric(data, std::string(row->kind), row->includeKeys(), client);
  return handleGeneric(data, "unknown:" + event, {}, client);
}

}  // namespace EventRouter
