// Any bytes as the profile file. The first byte chooses the profile that is asked for.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "Fuzz/Support/FuzzHome.h"
#include "Hook/ControlPlane/ObriskConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const FuzzHome home;
  if (size == 0) return 0;
  FuzzHome::write(home.home() + "/.obrisk/config", {reinterpret_cast<const char*>(data) + 1, size - 1});
  const std::optional<std::string> requested =
      data[0] % 2 ? std::optional<std::string>("claude-code") : std::nullopt;
  const ObriskHookConfig config = ObriskHookConfig::load(requested, "claude", home.home() + "/none");
  const std::string& word = config.policyCheckFailDefault;
  require(word == "allow" || word == "ask" || word == "deny", "the fail default is one of three words");
  require(config.isConfigured() == (!config.apiUrl.empty() && !config.apiKey.empty()),
          "only endpoint and key together configure");
  for (const std::string& value : {config.apiUrl, config.apiKey, config.agentSlug})
    require(value.find('\n') == value.npos, "no value goes on in the next line");
  return 0;
}
