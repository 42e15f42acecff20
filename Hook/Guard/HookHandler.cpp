#include "Hook/Guard/HookHandler.h"

#include <optional>
#include <utility>

#include "Platform/Files.h"
#include "Platform/Json/Json.h"
#include "Platform/Paths.h"

namespace HookHandler {
namespace {

std::optional<Json::Object> readObject(const std::optional<std::string>& path) {
  const auto text = path ? Files::read(*path) : std::nullopt;
  return text ? Json::parseObject(*text) : std::nullopt;
}

GuardConfig applyOverrides(GuardConfig config, const Json::Object& overrides) {
  config.apply(overrides);
  return config;
}

// What the control plane has laid down on this machine.
GuardConfig controlPlaneLayer() {
  if (const auto file = readObject(Paths::inHome(".obrisk/guard-effective.json"))) {
    const Json::Object& effective = file->object("effective");
    if (!effective.empty()) return GuardConfig::fromDict(effective);
  }
  const auto policy = readObject(Paths::inHome(".obrisk/policy.json"));
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
  GuardConfig config = controlPlaneLayer();
  for (const auto& path : {Paths::inHome(".obrisk/guard.json"), projectGuardPath(cwd)})
    if (const auto overrides = readObject(path)) config = applyOverrides(std::move(config), *overrides);
  return config;
}

}  // namespace HookHandler
