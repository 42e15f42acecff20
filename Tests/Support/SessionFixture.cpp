#include "Tests/Support/SessionFixture.h"

#include <atomic>
#include <memory>

#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"

namespace {

FakeControlPlane::Handler numberedRuns(const std::string& prefix) {
  auto count = std::make_shared<std::atomic<int>>(0);
  return [prefix, count](const FakeControlPlane::Request&) {
    return FakeControlPlane::json({{"run_id", prefix + std::to_string(++*count)},
                                   {"workflow_id", "wf"},
                                   {"started_at", Clock::dateTime()}});
  };
}

}  // namespace

void SessionFixture::agree() {
  plane.on("*", FakeControlPlane::Reply());
  plane.on("/api/v1/observe/runs/start/", numberedRuns("run-"));
  plane.on("/api/v1/observe/runs/daily/", numberedRuns("daily-"));
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
