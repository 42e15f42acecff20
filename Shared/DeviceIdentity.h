// The enrolled device: which endpoint, key and agent the control plane gives to this machine and to the
// calling agent. Never caches and never logs. Every failure (no file, a bad one, no answer, one without a
// key) gives absence, and the caller falls back to its other sources.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace DeviceIdentity {

struct Resolved {
  std::string apiUrl;
  std::string uploadKey;  // never empty
  std::string agentSlug;  // may be empty
  std::string agentType;  // may be empty

  bool operator==(const Resolved&) const = default;
};

// Left by the enrolment.
inline constexpr const char* identityFile = "/private/tmp/dev.obrisk.setup/device-identity.json";

struct Patience {
  std::chrono::milliseconds request{12'000};  // without progress
  std::chrono::milliseconds overall{15'000};
};

// Asks the control plane named in `file` for the identity that it gives to `process`, the label of the
// calling agent ("claude", "Cursor", "copilot").
std::optional<Resolved> resolve(const std::string& process, const std::string& file = identityFile,
                                Patience patience = {});

}  // namespace DeviceIdentity
