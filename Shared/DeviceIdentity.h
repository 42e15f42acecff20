// The enrolled device: which endpoint, key and agent the control plane gives to this machine and to the
// calling agent. Never caches and never logs. Every failure (no file, a bad one, no answer, one without a
// key) gives absence, and the caller falls back to its other sources.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Platform/Http/Http.h"

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

// Of the question.
inline constexpr Http::Timeouts timeout{std::chrono::seconds(12), std::chrono::seconds(15)};

// Asks the control plane named in `file` for the identity that it gives to `process`, the label of the
// calling agent ("claude", "Cursor", "copilot").
std::optional<Resolved> resolve(const std::string& process, const std::string& file = identityFile);

}  // namespace DeviceIdentity
