#include "Hook/Guard/HookHandler.h"

#include <new>
#include <optional>
#include <utility>

#include "Platform/Json/Json.h"
#include "Platform/Log.h"
#include "Platform/Paths.h"
#include "Platform/SmallFile.h"

namespace HookHandler {
namespace {

constexpr Log::Category logger{"hook"};

std::optional<Json::Object> readObject(const std::optional<std::string>& path) {
  const auto text = path ? SmallFile::read(*path) : std::nullopt;
  return text ? Json::parseObject(*text) : std::nullopt;
}

// A layer that memory does not suffice for is passed over.
GuardConfig applyOverrides(GuardConfig config, const Json::Object& overrides) {
  try {
    GuardConfig changed = config;
    changed.apply(overrides);
    return changed;
  } catch (const std::bad_alloc&) {
    logger.error("guard configuration passed over: out of memory");
    return config;
  }
}

// What the control plane has laid down on this machine; empty when nothing.
Json::Object controlPlaneLayer() {
  if (const auto file = readObject(Paths::inHome(".obrisk/guard-effective.json")))
    if (const Json::Object& effective = file->object("effective"); !effective.empty()) return effective;
  const auto policy = readObject(Paths::inHome(".obrisk/policy.json"));
  if (!policy) return {};
  const Json* config = policy->find("config");
  return policy->object(config && config->asObject() ? "config" : "guard_config");
}

std::optional<Json::Object> userLayer() {
  return readObject(Paths::inHome(".obrisk/guard.json"));
}

std::optional<std::string> projectGuardPath(const std::string& cwd) {
  if (cwd.empty()) return std::nullopt;
  return cwd + "/.obrisk/guard.json";
}

}  // namespace

GuardConfig loadEffectiveConfig(const std::string& cwd) {
  GuardConfig config = applyOverrides(GuardConfig::defaults(), controlPlaneLayer());
  for (const auto& overrides : {userLayer(), readObject(projectGuardPath(cwd))})
    if (overrides) config = applyOverrides(std::move(config), *overrides);
  return config;
}

bool guardsWithoutRun() {
  const auto wantsIt = [](const Json::Object& layer) {
    return applyOverrides(GuardConfig(), layer).guard_without_run;
  };
  return wantsIt(controlPlaneLayer()) || wantsIt(userLayer().value_or(Json::Object()));
}

}  // namespace HookHandler
