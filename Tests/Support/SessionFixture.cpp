#include "Tests/Support/SessionFixture.h"

#include <atomic>
#include <memory>
#include <regex>

#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"
#include "Shared/HardwareID.h"

namespace {

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); !from.empty() && at != text.npos;
       at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

FakeControlPlane::Handler numberedRuns(const std::string& prefix) {
  auto count = std::make_shared<std::atomic<int>>(0);
  return [prefix, count](const FakeControlPlane::Request&) {
    return FakeControlPlane::json({{"run_id", prefix + std::to_string(++*count)},
                                   {"workflow_id", "wf"},
                                   {"started_at", Clock::dateTime()}});
  };
}

std::string readable(const FakeControlPlane::Request& request) {
  static const std::string base = "/api/v1/observe/";
  std::string text = request.path().starts_with(base) ? request.path().substr(base.size()) : request.path();
  text += " " + Json(request.json).compact();
  replaceAll(text, "\\/", "/");
  replaceAll(text, "\"hardware_uuid\":\"" + HardwareID::uuid() + "\"", "\"hardware_uuid\":\"<uuid>\"");
  static const std::regex time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");
  std::string out, today = Clock::date();
  auto last = std::sregex_iterator();
  std::size_t copied = 0;
  for (auto match = std::sregex_iterator(text.begin(), text.end(), time); match != last; ++match) {
    auto at = static_cast<std::size_t>(match->position());
    out += text.substr(copied, at - copied);
    out += match->str().starts_with(today) ? "<now>" : match->str();
    copied = at + match->str().size();
  }
  return out + text.substr(copied);
}

}  // namespace

SessionFixture::SessionFixture() {
  plane.on("/api/v1/observe/runs/start/", numberedRuns("run-"));
  plane.on("/api/v1/observe/runs/daily/", numberedRuns("daily-"));
}

std::vector<std::string> SessionFixture::sent() {
  auto requests = plane.requests();
  std::vector<std::string> lines;
  for (; seen_ < requests.size(); ++seen_)
    lines.push_back(readable(requests[seen_]));
  return lines;
}

SessionState SessionFixture::stored(const std::string& sessionID) {
  auto state = SessionStore::load(sessionID);
  EXPECT_TRUE(state) << "no record of session " << sessionID;
  return state.value_or(SessionState());
}

Json::Object SessionFixture::event(const std::string& name, Json::Object members) {
  members.set("hook_event_name", name);
  members.set("session_id", "s");
  return members;
}
