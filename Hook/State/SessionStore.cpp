#include "Hook/State/SessionStore.h"

#include <chrono>
#include <string_view>
#include <utility>

#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Platform/Json/JsonReader.h"
#include "Platform/Log.h"
#include "Platform/Paths.h"
#include "Platform/Process.h"
#include "Platform/SmallFile.h"
#include "Platform/Text.h"

namespace SessionStore {

namespace {

constexpr Log::Category logger{"hook.router"};

constexpr std::string_view extension = ".json";
constexpr auto staleAfter = std::chrono::hours(24);

constexpr const char* defaultDirectory = "/tmp/obrisk-cc";

// The directory that the user named; empty when none.
std::string namedDirectory() {
  return Process::environment("OBRISK_CC_STATE_DIR").value_or("");
}

std::string projectScope() {
  const std::string key = projectKey();
  return key.empty() ? "" : "/proj-" + key;
}

bool isUsable(const std::string& directory) {
  return Files::claimDirectory(directory) != Files::Directory::foreign;
}

// The first of the directories, when the user names none, that nobody else has a hand in.
std::string unnamedDirectory(const std::string& scope) {
  const std::string own = "-" + std::to_string(Process::user());
  for (const std::string& base : {std::string(defaultDirectory), defaultDirectory + own})
    if (isUsable(base) && (scope.empty() || isUsable(base + scope))) return base + scope;
  return Paths::inHome(".obrisk/state").value_or("/dev/null") + scope;  // below the latter there is nothing
}

std::optional<std::string> readRecord(const std::string& path) {
  using enum SmallFile::Owner;
  return SmallFile::read(path, namedDirectory().empty() ? user : userOrDirectory);
}

// Makes the state directory. Somebody may have put something in its place meanwhile: then another one is it.
std::error_code makeStateDirectory() {
  std::error_code error;
  for (std::string directory, next = scopedStateDir(); !error && directory != next; next = scopedStateDir())
    error = Files::makeDirectories(directory = next);
  return error;
}

// Logs what prevented a save, once for all the saves of an event.
void reportFailure(const std::string& what) {
  static std::string reported;
  if (std::exchange(reported, what) != what) logger.error("session record not saved: " + what);
}

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
  const std::string named = namedDirectory(), scope = projectScope();
  return named.empty() ? unnamedDirectory(scope) : named + scope;
}

void reportDirectory() {
  const std::string wanted = defaultDirectory + projectScope(), used = scopedStateDir();
  if (namedDirectory().empty() && used != wanted)
    logger.error("session records go to " + used + ": " + wanted + " is not this user's own directory");
}

std::optional<SessionState> load(const std::string& sessionID) {
  const auto content = Paths::staysBelow(sessionID) ? readRecord(stateFile(sessionID)) : std::nullopt;
  const auto json = content ? Json::parseObject(*content) : std::nullopt;
  return json ? SessionState::fromJSON(*json) : std::nullopt;
}

std::error_code save(const SessionState& state) {
  const bool hasFile = Paths::staysBelow(state.session_id);
  std::error_code error = hasFile ? makeStateDirectory() : make_error_code(std::errc::invalid_argument);
  const std::string target = stateFile(state.session_id);
  if (!error) error = Files::save(target, Json(state.toJSON()).compact());
  if (error) reportFailure(target + ": " + error.message());
  return error;
}

void remove(const std::string& sessionID) {
  if (!sessionID.empty() && Paths::staysBelow(sessionID)) Files::remove(stateFile(sessionID));
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
    const auto content = readRecord(directory + "/" + name);
    if (!content) continue;
    // Builds no more of a record than is needed to pass it by: there may be thousands.
    const JsonView record = reader.read(*content);
    const auto [place, run] = record.members({"cwd", "run_id"});
    if (place.text() != cwd || run.text().value_or("").empty()) continue;
    if (auto state = SessionState::fromJSON(*Json::of(record).asObject())) return state;
  }
  return std::nullopt;
}

}  // namespace SessionStore
