#include "Benchmarks/Stage.h"

#include <filesystem>

#include "Benchmarks/TranscriptAuthor.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"

namespace fs = std::filesystem;

Stage::Stage() {
  const Certificate authority = makeAuthority();
  certificate_ = makeServerCertificate(authority, {"127.0.0.1"});
  Sandbox::write(path("authority.pem"), authority.pem);
  sandbox_.set("SSL_CERT_FILE", path("authority.pem"));
}

void Stage::configure(const std::string& url) const {
  url.empty() ? void(fs::remove(path("home/.obrisk/config"))) : sandbox_.configure(url, "reviewer");
}

void Stage::setRules(const Json::Object& rules) const {
  const std::string file = project() + "/.obrisk/guard.json";
  rules.empty() ? void(fs::remove(file)) : Sandbox::write(file, Json(rules).compact());
}

void Stage::clearSessions() const {
  fs::remove_all(sandbox_.state());
}

void Stage::forgetCalls() const {
  fs::remove_all(path("home/.obrisk/cc-dedupe"));
}

SessionState Stage::session() const {
  SessionState state = sandbox_.started();
  state.session_id = "session";
  state.model = "claude-opus-4-6";
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
  const std::string text = Json(members).compact();
  const std::string file = path("event-" + std::to_string(std::hash<std::string>()(text)));
  Sandbox::write(file, text);
  return file;
}

std::string Stage::transcript(std::int64_t size) const {
  const std::string file = path("transcript-" + std::to_string(size) + ".jsonl");
  if (!fs::exists(file)) TranscriptAuthor(Clock::dateTime()).write(file, size);
  return file;
}

void agree(FakeControlPlane& plane, std::chrono::milliseconds roundTrip, int roundTripsToConnect) {
  // One answer for every request: each finds in it what it looks for.
  FakeControlPlane::Reply reply = FakeControlPlane::json({{"run_id", "run-1"},
                                                          {"workflow_id", "workflow-1"},
                                                          {"started_at", Clock::dateTime()},
                                                          {"date", Clock::date()},
                                                          {"action", "allow"}});
  const auto connection = std::make_shared<int>(0);
  plane.on("*", [=](const FakeControlPlane::Request& request) mutable {
    const bool first = std::exchange(*connection, request.connection) != request.connection;
    reply.delay = roundTrip * (first ? 1 + roundTripsToConnect : 1);
    return reply;
  });
}
