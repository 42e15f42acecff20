#include <algorithm>
#include <exception>

#include "Hook/Guard/HookHandler.h"
#include "Hook/Guard/RuleEvaluator.h"
#include "Hook/Handlers/Handlers.h"
#include "Hook/Handlers/Session.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Paths.h"

namespace EventRouter {

namespace {

constexpr const char* eventName = "PreToolUse";

constexpr PolicyAnswer blocked{"policy_block", "Policy violation",
                               "Obrisk policy blocked: ", "Policy violation"};
constexpr PolicyAnswer warned{"policy_warn", "Policy warning", "Policy warning: ", "Policy warning"};

// The file that the call is to write; empty for every other call.
std::string writtenFile(const std::string& toolName, const Json::Object& toolInput) {
  return toolName == "Write" || toolName == "Edit" ? toolInput.text("file_path") : "";
}

// What the rules say; a question when they fail, as for lack of memory.
Verdict checked(const std::string& toolName, const Json::Object& toolInput, const GuardConfig& config,
                const std::string& cwd) {
  try {
    return RuleEvaluator::checkToolUse(toolName, toolInput, config, cwd);
  } catch (const std::exception&) {
    return {Verdict::Action::warn, "Tool call '" + toolName + "' (cannot be checked)", "unchecked"};
  }
}

std::optional<std::string> coworkConflict(const SessionState& state, const std::string& file) {
  const auto peer = SessionStore::findCoworkPeer(state.cwd, state.session_id);
  if (!peer) return std::nullopt;
  const std::string standardized = Paths::standardize(file);
  const bool conflict = std::ranges::any_of(peer->modified_files, [&](const std::string& each) {
    return Paths::standardize(each) == standardized;
  });
  return conflict ? std::optional("Cowork conflict: teammate already modified " + file) : std::nullopt;
}

// The message for a call that modifies one more file, when that reaches a limit.
std::optional<std::string> scopeMessage(const SessionState& state, const GuardConfig& config,
                                        const std::string& file) {
  if (std::ranges::find(state.modified_files, file) != state.modified_files.end()) return std::nullopt;
  const auto count = static_cast<std::int64_t>(state.modified_files.size());
  const std::string start = "Session has modified " + std::to_string(count + 1) + " files ";
  if (config.max_file_changes >= 1 && count >= config.max_file_changes)
    return start + "(limit: " + std::to_string(config.max_file_changes) + ")";
  if (config.warn_file_changes >= 1 && count + 1 == config.warn_file_changes)
    return start + "— approaching limit";
  return std::nullopt;
}

// One tool call and the objections to it so far.
struct Gate {
  Session session;
  std::string toolName;
  std::string violations = {};  // joined with "; "

  void add(const std::string& violation) { violations += (violations.empty() ? "" : "; ") + violation; }

  void ask(const std::string& message, const std::string& rule) {
    session.emitGuardDecision(toolName, {"ask", message, rule});
    add(message);
  }

  void checkFileChange(const GuardConfig& config, const std::string& file) {
    if (file.empty()) return;
    if (session.state.is_cowork && config.detect_file_conflicts)
      if (const auto message = coworkConflict(session.state, file)) ask(*message, "cowork_conflict");
    if (const auto message = scopeMessage(session.state, config, file)) ask(*message, "session_scope");
  }

  std::optional<Deny> applyFailDefault() {
    const std::string& failDefault = session.client.config.policyCheckFailDefault;
    logger.error("PreToolUse policy check failed; applying fail-default=" + failDefault);
    if (failDefault == "deny")
      return Deny{eventName,
                  "Obrisk policy check failed and tenant default is deny — controlplane is unreachable. "
                  "Configure [claude-code] policy_check_fail_default=allow to override."};
    if (failDefault == "ask")
      add("Policy check failed (controlplane unreachable); proceeding requires confirmation.");
    return std::nullopt;
  }

  Outcome outcome() const {
    if (violations.empty()) return Allow{};
    return Ask{eventName, "Obrisk: " + violations};
  }

  std::optional<Deny> checkPolicy() {
    if (!session.hasAgentSlug()) return std::nullopt;
    const auto result = session.checkPolicy("tool:" + toolName);
    if (!result) return applyFailDefault();
    if (result->action == "block") return Deny{eventName, session.report(toolName, blocked, result->reason)};
    if (result->action == "warn") add(session.report(toolName, warned, result->reason));
    return std::nullopt;
  }
};

// A session without a run has nowhere to report to, and no policy of its own: the rules decide, and for the
// policy the fail default.
Outcome judgeWithoutRun(const Json::Object& data, const ObserveClient& client) {
  const std::string& cwd = data.text("cwd");
  Gate gate{{{}, client}, data.text("tool_name")};
  const Verdict verdict =
      checked(gate.toolName, data.object("tool_input"), HookHandler::loadEffectiveConfig(cwd), cwd);
  if (verdict.action == Verdict::Action::block) return Deny{eventName, "Obrisk guard: " + verdict.message};
  if (verdict.action == Verdict::Action::warn) gate.add(verdict.message);
  if (auto denied = gate.applyFailDefault()) return *denied;
  return gate.outcome();
}

}  // namespace

Outcome handlePreToolUse(const Json::Object& data, const ObserveClient& client) {
  auto session = loadStarted(data, client, Unsaved::kept);
  if ((!session || !session->hasRecord) && !HookHandler::guardsWithoutRun()) return Allow{};
  if (!session) return judgeWithoutRun(data, client);
  Gate gate{std::move(*session), data.text("tool_name")};
  const std::string& cwd = gate.session.state.cwd;
  const Json::Object& toolInput = data.object("tool_input");
  const GuardConfig config = HookHandler::loadEffectiveConfig(cwd);
  const Verdict verdict = checked(gate.toolName, toolInput, config, cwd);
  switch (verdict.action) {
    case Verdict::Action::block:
      gate.session.emitGuardDecision(gate.toolName, {"deny", verdict.message, verdict.rule});
      return Deny{eventName, "Obrisk guard: " + verdict.message};
    case Verdict::Action::warn:
      gate.ask(verdict.message, verdict.rule);
      break;
    case Verdict::Action::allow:
      gate.checkFileChange(config, writtenFile(gate.toolName, toolInput));
  }
  if (auto denied = gate.checkPolicy()) return *denied;
  return gate.outcome();
}

}  // namespace EventRouter
