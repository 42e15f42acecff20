#include "Hook/Handlers/PreToolUse.h"

#include <algorithm>
#include <optional>

#include "Hook/Guard/HookHandler.h"
#include "Hook/Guard/RuleEvaluator.h"
#include "Hook/Handlers/GuardDecision.h"
#include "Hook/Handlers/SessionStart.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Log.h"
#include "Platform/Paths.h"
#include "Platform/Text.h"

namespace EventRouter {

namespace {

constexpr const char* eventName = "PreToolUse";

using Violations = std::vector<std::string>;

// The file that the call is to write; empty for every other call.
std::string writtenFile(const std::string& toolName, const Json::Object& toolInput) {
  return toolName == "Write" || toolName == "Edit" ? toolInput.text("file_path") : "";
}

std::optional<std::string> coworkConflict(const SessionState& state, const std::string& file) {
  auto peer = SessionStore::findCoworkPeer(state.cwd, state.session_id);
  if (!peer) return std::nullopt;
  std::string standardized = Paths::standardize(file);
  bool conflict =
      std::any_of(peer->modified_files.begin(), peer->modified_files.end(),
                  [&](const std::string& each) { return Paths::standardize(each) == standardized; });
  return conflict ? std::optional("Cowork conflict: teammate already modified " + file) : std::nullopt;
}

// What is to be said when the call would modify one more file.
std::optional<std::string> scopeMessage(const SessionState& state, const GuardConfig& config,
                                        const std::string& file) {
  if (std::find(state.modified_files.begin(), state.modified_files.end(), file) != state.modified_files.end())
    return std::nullopt;
  auto count = static_cast<std::int64_t>(state.modified_files.size());
  std::string next = std::to_string(count + 1);
  if (config.max_file_changes >= 1 && count >= config.max_file_changes)
    return "Session has modified " + next + " files (limit: " + std::to_string(config.max_file_changes) + ")";
  if (config.warn_file_changes >= 1 && count + 1 == config.warn_file_changes)
    return "Session has modified " + next + " files — approaching limit";
  return std::nullopt;
}

// One tool call on its way through the gate.
struct Gate {
  SessionState state;
  std::string toolName;
  const ObserveClient& client;
  Violations violations;

  void report(const std::string& action, const std::string& violation, const std::string& rule) {
    emitGuardDecision(state, toolName, {action, violation, rule}, client);
  }

  void ask(const std::string& message, const std::string& rule) {
    report("ask", message, rule);
    violations.push_back(message);
  }

  void checkFileChange(const GuardConfig& config, const std::string& file) {
    if (file.empty()) return;
    if (state.is_cowork && config.detect_file_conflicts)
      if (auto message = coworkConflict(state, file)) ask(*message, "cowork_conflict");
    if (auto message = scopeMessage(state, config, file)) ask(*message, "session_scope");
  }

  std::optional<Deny> applyFailDefault() {
    const std::string& failDefault = client.config.policyCheckFailDefault;
    Log::error("hook.router", "PreToolUse policy check failed; applying fail-default=" + failDefault);
    if (failDefault == "deny")
      return Deny{eventName,
                  "Obrisk policy check failed and tenant default is deny — controlplane is unreachable. "
                  "Configure [claude-code] policy_check_fail_default=allow to override."};
    if (failDefault == "ask")
      violations.push_back(
          "Policy check failed (controlplane unreachable); proceeding requires confirmation.");
    return std::nullopt;
  }

  std::optional<Deny> checkPolicy() {
    if (!client.config.isConfigured() || client.config.agentSlug.empty()) return std::nullopt;
    auto result = client.checkPolicy("claude-code", "tool:" + toolName, state.run_id);
    if (!result) return applyFailDefault();
    std::string action = Text::lowercased(result->action);
    if (action == "block") {
      std::string reason = result->reason.empty() ? "Policy violation" : result->reason;
      report("policy_block", reason, "server-side");
      return Deny{eventName, "Obrisk policy blocked: " + reason};
    }
    if (action == "warn") {
      std::string reason = result->reason.empty() ? "Policy warning" : result->reason;
      violations.push_back("Policy warning: " + reason);
      report("policy_warn", reason, "server-side");
    }
    return std::nullopt;
  }
};

std::string joined(const Violations& violations) {
  std::string text;
  for (const std::string& each : violations)
    text += (text.empty() ? "" : "; ") + each;
  return text;
}

}  // namespace

Outcome handlePreToolUse(const Json::Object& data, const ObserveClient& client) {
  auto state = loadStarted(data, client);
  if (!state) return Allow{};
  const Json::Object& toolInput = data.object("tool_input");
  Gate gate{std::move(*state), data.text("tool_name"), client, {}};
  GuardConfig config = HookHandler::loadEffectiveConfig(gate.state.cwd);
  Verdict verdict = RuleEvaluator::checkToolUse(gate.toolName, toolInput, config, gate.state.cwd);
  switch (verdict.action) {
    case Verdict::Action::block:
      gate.report("deny", verdict.message, verdict.rule);
      return Deny{eventName, "Obrisk guard: " + verdict.message};
    case Verdict::Action::warn:
      gate.ask(verdict.message, verdict.rule);
      break;
    case Verdict::Action::allow:
      gate.checkFileChange(config, writtenFile(gate.toolName, toolInput));
  }
  if (auto denied = gate.checkPolicy()) return *denied;
  if (gate.violations.empty()) return Allow{};
  return Ask{eventName, "Obrisk: " + joined(gate.violations)};
}

}  // namespace EventRouter
