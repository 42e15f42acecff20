// Drives the local guard with any tool call under any configuration. An input is one of
// - a JSON object: the tool's name, its input, the configuration's members and the project directory;
// - a tool's name, patterns of every kind, an empty line, and the text to judge, which mutations keep whole;
// - any other text: a shell command, a path and an address under the defaults.
//
// What must hold: no crash, no answer later than two seconds (an instrumented build has twice that), a
// verdict that is whole, and the same answer of every built-in pattern with its parts and without.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Hook/Guard/BuiltInPatterns.h"
#include "Hook/Guard/RuleEvaluator.h"
#include "Platform/Json/Json.h"

namespace {

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

void judge(const std::string& tool, const Json::Object& input, const GuardConfig& config,
           const std::string& cwd) {
  using namespace std::chrono_literals;
  const auto start = std::chrono::steady_clock::now();
  const Verdict verdict = RuleEvaluator::checkToolUse(tool, input, config, cwd);
  require(std::chrono::steady_clock::now() - start < 4s, "the guard took too long");
  const bool allowed = verdict.action == Verdict::Action::allow;
  require(allowed == verdict.rule.empty() && allowed == verdict.message.empty(), "the verdict is not whole");
}

// Without the parts the same must come out, as long as there is time for it.
void requireSameWithoutParts(std::string_view text) {
  const auto check = [&](const GuardPattern& pattern) {
    TimeBudget budget(std::chrono::milliseconds(200));
    const bool shortcut = PatternSubject(text, budget).matches(pattern);
    const bool whole = PatternSubject(text, budget).matches({pattern.expression});
    require(shortcut == whole || budget.spent(), "a pattern matches without its parts");
  };
  for (const GuardPattern& pattern : BuiltIn::defaultBlockedCommands)
    check(pattern);
  for (const GuardPattern& pattern : BuiltIn::defaultWarnCommands)
    check(pattern);
  for (const GuardPattern& pattern : BuiltIn::internalURLPatterns)
    check(pattern);
}

void judgeCall(const Json::Object& call) {
  judge(call.text("tool_name"), call.object("tool_input"), GuardConfig::fromDict(call.object("config")),
        call.text("cwd"));
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
  judge(tool, {{"command", text}, {"file_path", text}, {"url", text}}, config, "/proj");
}

void judgeUnderDefaults(const std::string& text) {
  const GuardConfig& defaults = GuardConfig::defaults();
  judge("Bash", {{"command", text}}, defaults, "/proj");
  judge("Write", {{"file_path", text}}, defaults, "/proj");
  judge("WebFetch", {{"url", text}}, defaults, "/proj");
  requireSameWithoutParts(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::size_t end = text.find("\n\n");
  if (const auto call = Json::parseObject(text)) {
    judgeCall(*call);
  } else if (end != text.npos) {
    judgeUnderPatterns(text.substr(0, end), text.substr(end + 2));
  } else {
    judgeUnderDefaults(text);
  }
  return 0;
}
