// Any bytes as the profile file. The first byte chooses the profile that is asked for.
#include "Fuzz/Support/Fuzzing.h"
#include "Hook/ControlPlane/ObriskConfig.h"

void fuzz(std::string_view input) {
  if (input.empty()) return;
  const std::string home = sandbox().home();
  Sandbox::write(home + "/.obrisk/config", input.substr(1));
  const auto requested = input[0] % 2 ? std::optional<std::string>("claude-code") : std::nullopt;
  const ObriskHookConfig config = ObriskHookConfig::load(requested, "claude", home + "/none");
  const std::string& word = config.policyCheckFailDefault;
  require(word == "allow" || word == "ask" || word == "deny", "the fail default is one of three words");
  require(config.isConfigured() == (!config.apiUrl.empty() && !config.apiKey.empty()),
          "only endpoint and key together configure");
  for (const std::string& value : {config.apiUrl, config.apiKey, config.agentSlug})
    require(value.find('\n') == value.npos, "no value goes on in the next line");
}
