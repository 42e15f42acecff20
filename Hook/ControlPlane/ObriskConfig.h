// Where the control plane is, which key to present to it, which agent is recorded, and what a policy check
// that cannot be answered means. Gathered afresh by every invocation; a missing or unreadable source
// contributes nothing, and loading never fails.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "Shared/DeviceIdentity.h"

struct ObriskHookConfig {
  std::string apiUrl;                            // base URL; empty: not configured
  std::string apiKey;                            // empty: not configured
  std::string agentSlug;                         // may carry a project suffix; empty: no slug
  std::string policyCheckFailDefault = "allow";  // "allow", "ask" or "deny"

  bool isConfigured() const { return !apiUrl.empty() && !apiKey.empty(); }

  // Section name to key to value.
  using Profiles = std::map<std::string, std::map<std::string, std::string>>;

  // The profiles of `~/.obrisk/config`; empty when it cannot be read or is not UTF-8.
  static Profiles parseConfigFile();

  // `requestedProfile`: the only profile to search, else the default list. `process`: the label of the
  // calling agent ("claude", "Cursor", "copilot"), for the device identity request. `identityFile`: where the
  // enrolment left the device's identity.
  static ObriskHookConfig load(const std::optional<std::string>& requestedProfile, const std::string& process,
                               const std::string& identityFile = DeviceIdentity::identityFile);

  bool operator==(const ObriskHookConfig&) const = default;
};
