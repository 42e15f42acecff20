#include "Hook/Guard/HookHandler.h"

#include <optional>

#include "Platform/Files.h"
#include "Platform/Json/Json.h"
#include "Platform/Paths.h"

namespace HookHandler {
namespace {

std::optional<Json::Object> readObject(const std::string& path) {
  const std::optional<std::string> text = Files::read(path);
  return text ? Json::parseObject(*text) : std::nullopt;
}

GuardConfig applyOverrides(GuardConfig config, const Json::Object& overrides) {
  config.apply(overrides);
  return config;
}

// What the control plane has laid down on this machine.
GuardConfig controlPlaneLayer(const std::string& userDirectory) {
  if (const auto file = readObject(userDirectory + "/guard-effective.json")) {
    if (const Json::Object& effective = file->object("effective"); !effective.empty()) {
      return GuardConfig::fromDict(effective);
    }
  }
  const auto policy = readObject(userDirectory + "/policy.json");
  if (!policy) return GuardConfig::defaults();
  const Json* config = policy->find("config");
  const bool isObject = config != nullptr && config->asObject() != nullptr;
  return applyOverrides(GuardConfig::defaults(), policy->object(isObject ? "config" : "guard_config"));
}

std::optional<std::string> projectGuardPath(const std::string& cwd) {
  if (cwd.empty()) return std::nullopt;
  return cwd + "/.obrisk/guard.json";
}

}  // namespace

GuardConfig loadEffectiveConfig(const std::string& cwd) {
  const std::string userDirectory = Paths::inHome(".obrisk");
  GuardConfig config = controlPlaneLayer(userDirectory);
  if (const auto user = readObject(userDirectory + "/guard.json")) config = applyOverrides(config, *user);
  if (const auto path = projectGuardPath(cwd)) {
    if (const auto project = readObject(*path)) config = applyOverrides(config, *project);
  }
  return config;
}

}  // namespace HookHandler
