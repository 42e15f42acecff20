// Any bytes as the four files of the guard's configuration, separated by line feeds, and a tool call under
// whatever comes of them.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Fuzz/Support/FuzzHome.h"
#include "Hook/Guard/HookHandler.h"
#include "Hook/Guard/RuleEvaluator.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const FuzzHome home;
  const std::string user = home.home() + "/.obrisk/";
  const std::string files[] = {user + "guard-effective.json", user + "policy.json", user + "guard.json",
                               home.project() + "/.obrisk/guard.json"};
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  for (const std::string& file : files) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    FuzzHome::write(file, line);
  }
  const GuardConfig config = HookHandler::loadEffectiveConfig(home.project());
  const Verdict verdict =
      RuleEvaluator::checkToolUse("Bash", {{"command", "git push origin main"}}, config, home.project());
  const bool allowed = verdict.action == Verdict::Action::allow;
  require(allowed == verdict.message.empty() && allowed == verdict.rule.empty(),
          "an objection says what it is about");
  return 0;
}
