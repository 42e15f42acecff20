// Drives the local guard with any tool call and any configuration. An input is one JSON object: the tool's
// name, its input, the configuration's members and the project directory. An input that is none is taken as a
// shell command, a path and an address under the defaults.
//
// What must hold: no crash, no answer later than two seconds (an instrumented build has twice that), a
// verdict that is whole, the same verdict for the same call, and for a text under the built-in patterns none
// that depends on the shortcut by their parts.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Hook/BuiltInPatterns.h"
#include "Hook/RuleEvaluator.h"
#include "Platform/Json.h"

namespace {

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

Verdict judged(const std::string& tool, const Json::Object& input, const GuardConfig& config,
               const std::string& cwd) {
  using namespace std::chrono_literals;
  const auto start = std::chrono::steady_clock::now();
  const Verdict verdict = RuleEvaluator::checkToolUse(tool, input, config, cwd);
  require(std::chrono::steady_clock::now() - start < 4s, "the guard took too long");
  const bool allowed = verdict.action == Verdict::Action::allow;
  require(allowed == verdict.rule.empty() && allowed == verdict.message.empty(), "the verdict is not whole");
  return verdict;
}

// Without the parts the same must come out, as long as there is time for it.
void requireSameWithoutParts(std::string_view text) {
  const auto check = [&](const GuardPattern& pattern) {
    TimeBudget budget(std::chrono::milliseconds(200));
    const bool shortcut = PatternSubject(text, budget).matches(pattern);
    const bool whole = PatternSubject(text, budget).matches({pattern.expression});
    require(shortcut == whole || budget.spent(), "a pattern matches without its parts");
  };
  for (const GuardPattern& pattern : BuiltIn::blockedCommands)
    check(pattern);
  for (const GuardPattern& pattern : BuiltIn::warnCommands)
    check(pattern);
  for (const GuardPattern& pattern : BuiltIn::internalURLPatterns)
    check(pattern);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (const auto call = Json::parseObject(text)) {
    judged(call->text("tool_name"), call->object("tool_input"), GuardConfig::fromDict(call->object("config")),
           call->text("cwd"));
    return 0;
  }
  const GuardConfig& defaults = GuardConfig::defaults();
  judged("Bash", {{"command", text}}, defaults, "/proj");
  judged("Write", {{"file_path", text}}, defaults, "/proj");
  judged("WebFetch", {{"url", text}}, defaults, "/proj");
  requireSameWithoutParts(text);
  return 0;
}
