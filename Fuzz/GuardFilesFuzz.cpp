// Any bytes as the four files of the guard's configuration, separated by line feeds, and a tool call under
// whatever comes of them.
#include "Fuzz/Support/Fuzzing.h"
#include "Hook/Guard/HookHandler.h"
#include "Hook/Guard/RuleEvaluator.h"

void fuzz(std::string_view input) {
  const std::string user = sandbox().home() + "/.obrisk/", project = sandbox().project();
  for (const std::string& file : {user + "guard-effective.json", user + "policy.json", user + "guard.json",
                                  project + "/.obrisk/guard.json"}) {
    const std::string_view line = input.substr(0, input.find('\n'));
    input.remove_prefix(std::min(line.size() + 1, input.size()));
    Sandbox::write(file, line);
  }
  const Verdict verdict = RuleEvaluator::checkToolUse("Bash", {{"command", "git push origin main"}},
                                                      HookHandler::loadEffectiveConfig(project), project);
  const bool allowed = verdict.action == Verdict::Action::allow;
  require(allowed == verdict.message.empty() && allowed == verdict.rule.empty(),
          "an objection says what it is about");
}
