#include "Hook/Transcript/LLMCallDedupe.h"

#include <vector>

#include "Hook/State/SessionStore.h"
#include "Platform/Files.h"
#include "Platform/Json/Json.h"
#include "Platform/Paths.h"
#include "Platform/SmallFile.h"

namespace LLMCallDedupe {

std::optional<std::string> path(const std::string& runID) {
  if (runID.empty() || !Paths::staysBelow(runID)) return std::nullopt;
  const std::string key = SessionStore::projectKey();
  return Paths::inHome(".obrisk/cc-dedupe/" + (key.empty() ? "" : key + "/") + runID + ".json");
}

std::set<std::string> load(const std::string& runID) {
  const auto file = path(runID);
  const auto content = file ? SmallFile::read(*file, SmallFile::Owner::userOrDirectory) : std::nullopt;
  const auto json = content ? Json::parse(*content) : std::nullopt;
  const auto ids = json ? json->asTexts() : std::nullopt;
  return ids ? std::set<std::string>(ids->begin(), ids->end()) : std::set<std::string>();
}

void save(const std::string& runID, const std::set<std::string>& ids) {
  const auto file = path(runID);
  if (!file) return;
  Files::makeDirectories(file->substr(0, file->rfind('/')));
  Files::save(*file, Json(std::vector<std::string>(ids.begin(), ids.end())).compact());
}

}  // namespace LLMCallDedupe
