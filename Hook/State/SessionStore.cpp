#include "Hook/State/SessionStore.h"

#include <chrono>
#include <string_view>

#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Platform/Json/JsonReader.h"
#include "Platform/Log.h"
#include "Platform/Process.h"
#include "Platform/Text.h"

namespace SessionStore {

namespace {

constexpr Log::Category logger{"hook.router"};

constexpr std::string_view extension = ".json";
constexpr auto staleAfter = std::chrono::hours(24);

std::string stateFile(const std::string& sessionID) {
  return scopedStateDir() + "/" + sessionID + std::string(extension);
}

// A name that is nothing but ".json" is a hidden file without an extension.
bool isStateFile(std::string_view name) {
  return name.size() > extension.size() && name.ends_with(extension);
}

}  // namespace

std::string projectKey() {
  return std::string(
      Text::trim(Process::environment("OBRISK_PROJECT_KEY").value_or(""), Text::Space::blanks));
}

std::string scopedStateDir() {
  std::string base = Process::environment("OBRISK_CC_STATE_DIR").value_or("");
  if (base.empty()) base = "/tmp/obrisk-cc";
  const std::string key = projectKey();
  return key.empty() ? base : base + "/proj-" + key;
}

std::optional<SessionState> load(const std::string& sessionID) {
  const auto content = Files::read(stateFile(sessionID));
  const auto json = content ? Json::parseObject(*content) : std::nullopt;
  return json ? SessionState::fromJSON(*json) : std::nullopt;
}

std::error_code save(const SessionState& state) {
  const std::string target = stateFile(state.session_id);
  std::error_code error = Files::makeDirectories(scopedStateDir());
  if (!error) error = Files::save(target, Json(state.toJSON()).compact());
  // Another process of the session may have moved the file into place first; its record or ours is there
  // then.
  if (error && error != std::errc::no_such_file_or_directory)
    logger.error("session record not saved: " + target + ": " + error.message());
  return error;
}

void remove(const std::string& sessionID) {
  if (!sessionID.empty()) Files::remove(stateFile(sessionID));
}

int cleanupStale() {
  int count = 0;
  const std::string directory = scopedStateDir();
  const auto cutoff = Clock::now() - staleAfter;
  for (const std::string& name : Files::list(directory)) {
    if (!isStateFile(name) && !name.starts_with(Files::temporaryPrefix)) continue;
    const std::string path = directory + "/" + name;
    const auto modified = Files::modified(path);
    if (!modified || *modified >= cutoff) continue;
    Files::remove(path);
    count += isStateFile(name);
  }
  return count;
}

std::optional<SessionState> findCoworkPeer(const std::string& cwd, const std::string& excludeSessionID) {
  if (cwd.empty()) return std::nullopt;
  const std::string directory = scopedStateDir();
  JsonReader reader;
  for (const std::string& name : Files::list(directory)) {
    if (!isStateFile(name) || name.substr(0, name.size() - extension.size()) == excludeSessionID) continue;
    const auto content = Files::read(directory + "/" + name);
    if (!content) continue;
    // Builds no more of a record than is needed to pass it by: there may be thousands.
    const JsonView record = reader.read(*content);
    const auto [place, run] = record.members({"cwd", "run_id"});
    if (place.text() != cwd || run.text().value_or("").empty()) continue;
    if (auto state = SessionState::fromJSON(*record.value().asObject())) return state;
  }
  return std::nullopt;
}

}  // namespace SessionStore
