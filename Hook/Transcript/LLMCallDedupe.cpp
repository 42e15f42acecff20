#include "Hook/Transcript/LLMCallDedupe.h"

#include <vector>

#include "Hook/State/SessionStore.h"
#include "Platform/Files.h"
#include "Platform/Json/Json.h"
#include "Platform/Paths.h"

namespace LLMCallDedupe {

namespace {

std::string directory() {
  std::string base = Paths::inHome(".obrisk/cc-dedupe");
  const std::string key = SessionStore::projectKey();
  return key.empty() ? base : base + "/" + key;
}

}  // namespace

std::string path(const std::string& runID) {
  return directory() + "/" + runID + ".json";
}

std::set<std::string> load(const std::string& runID) {
  if (runID.empty()) return {};
  auto content = Files::read(path(runID));
  auto json = content ? Json::parse(*content) : std::nullopt;
  auto ids = json ? json->asTexts() : std::nullopt;
  return ids ? std::set<std::string>(ids->begin(), ids->end()) : std::set<std::string>();
}

void save(const std::string& runID, const std::set<std::string>& ids) {
  if (runID.empty()) return;
  std::string file = path(runID);
  std::string temporary = file + ".tmp";
  Files::makeDirectories(file.substr(0, file.rfind('/')));
  std::string bytes = Json(std::vector<std::string>(ids.begin(), ids.end())).compact();
  if (Files::write(temporary, bytes)) return;
  // The move takes the old file away in the same step, so that a kill in between loses no ids.
  Files::move(temporary, file);
}

}  // namespace LLMCallDedupe
