#include "Hook/ControlPlane/ObriskConfig.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include "Platform/Json/Utf8.h"
#include "Platform/Paths.h"
#include "Platform/Process.h"
#include "Platform/SmallFile.h"
#include "Platform/Text.h"

namespace {

constexpr std::array<const char*, 4> defaultProfiles{"claude-code", "claude-cowork", "connect", "default"};

constexpr std::array<std::string_view, 3> failDefaults{"allow", "ask", "deny"};

struct ProfileKey {
  const char* key;
  std::string ObriskHookConfig::*field;
};
constexpr std::array<ProfileKey, 4> profileKeys{{
    {"api_url", &ObriskHookConfig::apiUrl},
    {"api_key", &ObriskHookConfig::apiKey},
    {"agent_slug", &ObriskHookConfig::agentSlug},
    {"policy_check_fail_default", &ObriskHookConfig::policyCheckFailDefault},
}};

std::string_view trim(std::string_view text) {
  return Text::trim(text, Text::Space::horizontal);
}

// The variable's value, trimmed; empty when it is not set.
std::string trimmedVariable(const char* name) {
  return std::string(trim(Process::environment(name).value_or("")));
}

void replaceByVariable(std::string& field, const char* name) {
  if (auto value = Process::environment(name); value && !value->empty()) field = *value;
}

// All four fields from the profiles searched, each from the first that supplies it.
ObriskHookConfig fromProfiles(const std::optional<std::string>& requestedProfile) {
  ObriskHookConfig config;
  config.policyCheckFailDefault.clear();
  const auto profiles = ObriskHookConfig::parseConfigFile();
  std::vector<std::string> searched(defaultProfiles.begin(), defaultProfiles.end());
  if (requestedProfile && !requestedProfile->empty()) searched = {*requestedProfile};
  for (const auto& name : searched) {
    const auto profile = profiles.find(name);
    if (profile == profiles.end()) continue;
    for (const auto& [key, field] : profileKeys) {
      const auto value = profile->second.find(key);
      if (value != profile->second.end() && (config.*field).empty()) config.*field = value->second;
    }
    if (config.isConfigured()) break;
  }
  return config;
}

// A variable that exists hides the ones after it, even when it is empty.
std::string slugFromEnvironment() {
  const bool own = Process::environment("CLAUDE_CODE_AGENT_SLUG").has_value();
  return trimmedVariable(own ? "CLAUDE_CODE_AGENT_SLUG" : "OBRISK_AGENT_SLUG");
}

void addProject(std::string& slug) {
  const std::string suffix = "proj-" + trimmedVariable("OBRISK_PROJECT_KEY");
  if (suffix == "proj-" || slug.empty() || slug.find(suffix) != slug.npos) return;
  slug += "-" + suffix;
}

std::string failDefault(const std::string& fromProfile) {
  for (const auto& candidate : {trimmedVariable("OBRISK_POLICY_CHECK_FAIL_DEFAULT"), fromProfile}) {
    auto word = Text::lowercased(candidate);
    if (std::find(failDefaults.begin(), failDefaults.end(), word) != failDefaults.end()) return word;
  }
  return "allow";
}

}  // namespace

ObriskHookConfig::Profiles ObriskHookConfig::parseConfigFile() {
  Profiles profiles;
  const auto path = Paths::inHome(".obrisk/config");
  const auto content = path ? SmallFile::read(*path) : std::nullopt;
  if (!content || !Utf8::isValid(*content)) return profiles;
  std::map<std::string, std::string>* section = nullptr;
  for (std::string_view rest = *content; !rest.empty();) {
    auto line = Text::takePart(rest, "\n");
    if (line.ends_with('\r')) line.remove_suffix(1);
    line = trim(line);
    if (line.empty() || line.front() == '#') continue;
    const auto equals = line.find('=');
    if (line.front() == '[' && line.back() == ']') {
      section = &profiles[std::string(trim(line.substr(1, line.size() - 2)))];
      section->clear();
    } else if (section && equals != line.npos) {
      (*section)[std::string(trim(line.substr(0, equals)))] = Text::trim(trim(line.substr(equals + 1)), "\"");
    }
  }
  return profiles;
}

ObriskHookConfig ObriskHookConfig::load(const std::optional<std::string>& requestedProfile,
                                        const std::string& process, const std::string& identityFile) {
  if (Process::environment("OBRISK_API_KEY").value_or("").empty()) {
    const auto device = DeviceIdentity::resolve(process, identityFile);
    if (device && !device->agentSlug.empty()) {
      return {device->apiUrl, device->uploadKey, device->agentSlug, "allow"};
    }
  }
  ObriskHookConfig config = fromProfiles(requestedProfile);
  replaceByVariable(config.apiUrl, "OBRISK_API_URL");
  replaceByVariable(config.apiKey, "OBRISK_API_KEY");
  if (auto slug = slugFromEnvironment(); !slug.empty()) config.agentSlug = slug;
  addProject(config.agentSlug);
  config.policyCheckFailDefault = failDefault(config.policyCheckFailDefault);
  config.apiUrl = trim(config.apiUrl);
  config.apiKey = trim(config.apiKey);
  return config;
}
