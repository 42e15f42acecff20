// Drives the local guard with any tool call under any configuration. An input is one of
// - a JSON object: the tool's name, its input, the configuration's members and the project directory;
// - a tool's name, patterns of every kind, an empty line, and the text to judge, which mutations keep whole;
// - any other text: a shell command, a path and an address under the defaults.
//
// What must hold: no crash, no answer later than two seconds (an instrumented build has twice that), a
// verdict that is whole, and the same answer of every built-in pattern with its parts and without.
#include <chrono>
#include <span>
#include <sstream>
#include <vector>

#include "Fuzz/Support/Fuzzing.h"
#include "Hook/Guard/BuiltInPatterns.h"
#include "Hook/Guard/RuleEvaluator.h"

using namespace std::chrono_literals;

namespace {

void judge(const std::string& tool, const Json::Object& input, const GuardConfig& config,
           const std::string& cwd = "/proj") {
  const auto start = std::chrono::steady_clock::now();
  const Verdict verdict = RuleEvaluator::checkToolUse(tool, input, config, cwd);
  require(std::chrono::steady_clock::now() - start < 4s, "the guard does not take too long");
  const bool allowed = verdict.action == Verdict::Action::allow;
  require(allowed == verdict.rule.empty() && allowed == verdict.message.empty(), "a verdict is whole");
}

// As long as there is time for it.
void requireSameWithoutParts(std::string_view text, std::span<const GuardPattern> patterns) {
  for (const GuardPattern& pattern : patterns) {
    TimeBudget budget(200ms);
    const bool shortcut = PatternSubject(text, budget).matches(pattern);
    const bool whole = PatternSubject(text, budget).matches({pattern.expression});
    require(shortcut == whole || budget.spent(), "a pattern's parts only spare searches");
  }
}

void judgeUnderPatterns(const std::string& head, const std::string& text) {
  std::vector<std::string> patterns;
  std::istringstream lines(head);
  std::string tool;
  std::getline(lines, tool);
  for (std::string line; std::getline(lines, line);)
    patterns.push_back(line);
  GuardConfig config;
  config.blocked_command_patterns = config.warn_command_patterns = config.protected_file_patterns =
      config.warn_file_patterns = config.git_protected_branches = config.blocked_domains =
          config.infra_file_patterns = patterns;
  config.path_boundary_enabled = true;
  judge(tool, {{"command", text}, {"file_path", text}, {"url", text}}, config);
}

void judgeUnderDefaults(const std::string& text) {
  for (const auto& [tool, member] :
       {std::pair("Bash", "command"), {"Write", "file_path"}, {"WebFetch", "url"}})
    judge(tool, {{member, text}}, GuardConfig::defaults());
  requireSameWithoutParts(text, BuiltIn::defaultBlockedCommands);
  requireSameWithoutParts(text, BuiltIn::defaultWarnCommands);
  requireSameWithoutParts(text, BuiltIn::internalURLPatterns);
}

}  // namespace

void fuzz(std::string_view input) {
  const std::string text(input);
  const std::size_t end = text.find("\n\n");
  if (const auto call = Json::parseObject(text)) {
    judge(call->text("tool_name"), call->object("tool_input"), GuardConfig::fromDict(call->object("config")),
          call->text("cwd"));
  } else if (end != text.npos) {
    judgeUnderPatterns(text.substr(0, end), text.substr(end + 2));
  } else {
    judgeUnderDefaults(text);
  }
}
