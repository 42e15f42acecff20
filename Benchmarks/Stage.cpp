#include "Benchmarks/Stage.h"

#include <stdlib.h>

#include <fstream>
#include <stdexcept>

#include "Benchmarks/TranscriptAuthor.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"

namespace fs = std::filesystem;

namespace {

// What would lead a measured process elsewhere.
constexpr const char* foreignVariables[] = {
    "OBRISK_API_KEY",     "OBRISK_API_URL", "CLAUDE_CODE_AGENT_SLUG",
    "OBRISK_AGENT_SLUG",  "HTTP_PROXY",     "OBRISK_POLICY_CHECK_FAIL_DEFAULT",
    "OBRISK_PROJECT_KEY", "HTTPS_PROXY",    "NO_PROXY",
    "http_proxy",         "https_proxy",    "no_proxy",
    "SSL_CERT_FILE",      "SSL_CERT_DIR",
};

}  // namespace

Stage::Stage() {
  std::string pattern = (fs::temp_directory_path() / "quib-bench-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("no temporary directory");
  root_ = pattern;
  fs::create_directories(path("home/.obrisk"));
  fs::create_directories(project() + "/.obrisk");
  for (const char* name : foreignVariables)
    ::unsetenv(name);
  ::setenv("HOME", path("home").c_str(), 1);
  ::setenv("OBRISK_CC_STATE_DIR", path("state").c_str(), 1);
  ::setenv("SSL_CERT_FILE", path("authority.pem").c_str(), 1);
}

Stage::~Stage() {
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

void Stage::configure(const std::string& url) const {
  const std::string file = path("home/.obrisk/config");
  fs::remove(file);
  if (url.empty()) return;
  Files::write(file, "[claude-code]\napi_url = " + url + "\napi_key = key\nagent_slug = reviewer\n");
}

void Stage::setRules(const Json::Object& rules) const {
  const std::string file = project() + "/.obrisk/guard.json";
  fs::remove(file);
  if (!rules.empty()) Files::write(file, Json(rules).compact());
}

void Stage::clearSessions() const {
  fs::remove_all(path("state"));
}

SessionState Stage::session() const {
  SessionState state;
  state.session_id = "session";
  state.run_id = "run-1";
  state.workflow_id = "workflow-1";
  state.cwd = project();
  state.model = "claude-opus-4-6";
  state.started_at = Clock::dateTime();
  state.span_count = 1;
  return state;
}

void Stage::save(const SessionState& state) const {
  if (const std::error_code error = SessionStore::save(state)) throw std::system_error(error);
}

std::string Stage::event(const std::string& name, Json::Object members) const {
  members.set("hook_event_name", name);
  members.set("session_id", "session");
  members.set("cwd", project());
  members.set("transcript_path", members.text("transcript_path"));
  const std::string file = path("event-" + std::to_string(std::hash<std::string>()(Json(members).compact())));
  Files::write(file, Json(members).compact());
  return file;
}

std::string Stage::transcript(std::int64_t size) const {
  const std::string file = path("transcript-" + std::to_string(size) + ".jsonl");
  if (!fs::exists(file)) TranscriptAuthor(Clock::dateTime()).write(file, size);
  return file;
}

void Stage::drop(const std::string& path) const {
  fs::remove(path);
}
