// What one event takes: at most so many requests, each of so many attempts, each of so many seconds, as
// Docs/reliability.md has them; memory, and descriptors that it gives back.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <random>
#include <sstream>

#include "Hook/EventRouter.h"
#include "Hook/Handlers/Handlers.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Shared/DeviceIdentity.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionFixture.h"

namespace {

using namespace std::chrono_literals;
using namespace EventRouter;
using Fault = FakeControlPlane::Fault;
using Reply = FakeControlPlane::Reply;

Outcome handleOther(const Json::Object& data, const ObserveClient& client) {
  return handleGeneric(data, "other", {}, client);
}

struct Row {
  const char* event;
  Outcome (*handler)(const Json::Object& data, const ObserveClient& client);
};

constexpr Row handlers[] = {
    {"SessionStart", handleSessionStart},
    {"PreToolUse", handlePreToolUse},
    {"PostToolUse", handlePostToolUse},
    {"PostToolUseFailure", handlePostToolUseFailure},
    {"SubagentStart", handleSubagentStart},
    {"SubagentStop", handleSubagentStop},
    {"TeammateIdle", handleTeammateIdle},
    {"PreCompact", handlePreCompact},
    {"Stop", handleStop},
    {"SessionEnd", handleSessionEnd},
    {"every other", handleOther},
};

struct Limit {
  int requests = 0;
  int seconds = 0;
};

// The row "| event | requests | seconds |" of the document.
Limit documented(const std::string& event) {
  std::ifstream document(QUIB_SOURCE_DIR "/Docs/reliability.md");
  Limit limit;
  for (std::string line, start = "| " + event + " | "; std::getline(document, line);) {
    char bar = 0;
    if (line.starts_with(start))
      std::istringstream(line.substr(start.size())) >> limit.requests >> bar >> limit.seconds;
  }
  EXPECT_GT(limit.requests, 0) << "no row for " << event;
  return limit;
}

class Patience : public SessionFixture {
 protected:
  Patience() {
    sandbox.write(sandbox.root() + "/transcript", transcriptOf(1));
    // One file change is already one too many, so that a write has as much to report as it can have.
    sandbox.write(sandbox.home() + "/.obrisk/guard.json", R"({"warn_file_changes":1})");
  }

  Json::Object eventOf(const char* name) const {
    return event(name, {{"cwd", sandbox.project()},
                        {"tool_name", "Write"},
                        {"tool_input", Json::Object{{"file_path", sandbox.project() + "/a.txt"}}},
                        {"agent_id", "a"},
                        {"transcript_path", sandbox.root() + "/transcript"}});
  }

  // A session that has just modified the file to be written, in a group.
  void store(const char* id, const std::string& startedAt) {
    SessionState state = started();
    state.session_id = id;
    state.started_at = startedAt;
    state.is_cowork = true;
    if (id != std::string("s")) state.modified_files = {sandbox.project() + "/a.txt"};
    ASSERT_FALSE(SessionStore::save(state));
  }

  // Called by the threads of the server.
  Reply reply(const FakeControlPlane::Request& request) {
    const std::lock_guard lock(mutex_);
    if (++attempts_ % 3 != 0 && (atWorst_ || random_() % 8 == 0)) return FakeControlPlane::status(503);
    const bool isDaily = request.path().ends_with("/daily/");
    const bool none = isDaily && noDailyRunAtFirst_ && dailyRuns_++ == 0;
    return FakeControlPlane::json(
        {{"run_id", none ? "" : (isDaily ? "daily-" : "run-") + std::to_string(++runs_)},
         {"started_at", chance() ? stale : Clock::dateTime()},
         {"action", chance() ? "warn" : "allow"},
         {"metadata", Json::Object{{"cost_cap", 0.001}}}});
  }

  // The attempts that one event makes. With `atWorst` everything goes as wrong as it can.
  int attempts(const Row& row, bool known, bool atWorst) {
    std::unique_lock lock(mutex_);
    SessionStore::remove("s");
    store("teammate", Clock::dateTime());
    atWorst_ = atWorst;
    if (known) store("s", chance() ? stale : Clock::dateTime());
    attempts_ = dailyRuns_ = 0;
    noDailyRunAtFirst_ = !known;
    lock.unlock();
    row.handler(eventOf(row.event), daily());
    lock.lock();
    return attempts_;
  }

 private:
  static constexpr const char* stale = "2026-01-01T00:00:00.000Z";
  bool chance() { return atWorst_ || random_() % 2 == 0; }

  std::mutex mutex_;
  std::mt19937 random_{1};
  bool atWorst_ = false;
  bool noDailyRunAtFirst_ = false;
  int attempts_ = 0;
  int dailyRuns_ = 0;
  int runs_ = 0;  // of all events: what is recorded of one must not spare another a request
};

TEST_F(Patience, EveryEventMakesAsManyRequestsAsDocumentedAndNoMore) {
  plane.on("*", [this](const FakeControlPlane::Request& request) { return reply(request); });
  for (const Row& row : handlers) {
    const int most = documented(row.event).requests * ObserveClient{}.maxAttempts;
    EXPECT_EQ(std::max(attempts(row, false, true), attempts(row, true, true)), most) << row.event;
    for (int trial = 0; trial < 20; ++trial)
      EXPECT_LE(attempts(row, trial % 2 == 0, false), most) << row.event;
  }
}

TEST_F(Patience, TheDocumentedSecondsFollowFromTheClientsSettings) {
  const ObserveClient client;
  auto ofOneRequest = client.maxAttempts * client.timeout.overall;
  for (int pause = 0; pause + 1 < client.maxAttempts; ++pause)
    ofOneRequest += client.retryBaseDelay * (1 << pause);
  for (const Row& row : handlers) {
    const Limit limit = documented(row.event);
    EXPECT_EQ(limit.requests * ofOneRequest + DeviceIdentity::timeout.overall,
              std::chrono::seconds(limit.seconds))
        << row.event;
  }
}

// Every attempt is given up, in the step that it was in, and without computing while it waits; the fail
// default decides.
TEST_F(Patience, EveryKindOfSilenceEndsWithTheTimeout) {
  FakeControlPlane deaf({.deaf = true}), unaccepting({.unaccepting = true});
  const std::tuple<const FakeControlPlane&, Reply, const char*> silences[] = {
      {plane, FakeControlPlane::failing(Fault::silence), "asking"},
      {plane, FakeControlPlane::failing(Fault::silenceInBody), "asking"},
      {plane, {.delay = 1h}, "asking"},
      {plane, {.raw = "HTTP/1.1 100 Continue\r\n\r\n"}, "asking"},
      {plane, {.drip = 1h}, "asking"},
      {plane, {.body = std::string(100'000, ' '), .drip = 1ms}, ""},  // trickles to the end of the attempt
      {deaf, {}, "asking"},
      {unaccepting, {}, "connecting to"},
  };
  const std::clock_t start = std::clock();
  for (const auto& [server, silence, step] : silences) {
    ObserveClient client = Sandbox::client(server.url(), "reviewer", "deny");
    client.timeout =
        *step ? Http::Timeouts{.idle = 50ms, .overall = 1h} : Http::Timeouts{.idle = 1h, .overall = 100ms};
    client.maxAttempts = 2;
    ASSERT_FALSE(SessionStore::save(started()));
    Files::remove(sandbox.activityLog());
    plane.on("*", silence);
    const Outcome outcome = handlePreToolUse(event("PreToolUse", {{"tool_name", "Read"}}), client);
    EXPECT_TRUE(std::holds_alternative<Deny>(outcome)) << step;
    const auto log = jsonLines(sandbox.activityLog());
    EXPECT_EQ(log.size(), 2u);
    const std::string error = *step ? step + (" " + server.url().substr(7)) + ": timed out" : "";
    for (const Json::Object& line : log)
      EXPECT_EQ(line.text("error"), error);
  }
  EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC);
}

using Footprint = Patience;

// Kilobytes that the process has had at most since it became the hook, looked at until it ends. What the
// system says afterwards begins with what this process had when it forked.
long peakOf(pid_t process) {
  long peak = 0;
  siginfo_t ended{};
  do {
    std::ifstream file("/proc/" + std::to_string(process) + "/status");
    std::string key, name;
    while (file >> key) {
      long kilobytes = 0;
      if (key == "Name:") file >> name;
      if (key == "VmHWM:" && name == "quib-hook" && file >> kilobytes) peak = std::max(peak, kilobytes);
      file.ignore(1000, '\n');
    }
    ::usleep(200);
  } while (::waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOHANG) == 0 && ended.si_pid == 0);
  EXPECT_EQ(ended.si_status, 0);
  return peak;
}

TEST_F(Footprint, AnOrdinaryEventPeaksUnderTwentyMegabytes) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "a sanitizer has memory of its own";
#endif
  sandbox.configure(plane.url(), "reviewer");
  plane.on("*", {.delay = std::chrono::milliseconds(20)});  // time to look
  long most = 0;
  for (const Json::Object& each : everyEvent(sandbox.project(), sandbox.root() + "/transcript")) {
    sandbox.write(sandbox.root() + "/event", Json(each).compact());
    const long peak = peakOf(sandbox.start({}, sandbox.root() + "/event", "/dev/null", "/dev/null"));
    EXPECT_LT(peak, 20'000) << "kilobytes for " << each.text("hook_event_name");
    most = std::max(most, peak);
  }
  EXPECT_GT(most, 1'000) << "or nothing was seen";
  std::cout << "peak memory of an ordinary event: " << most << " kB\n";
}

TEST_F(Footprint, NoEventKeepsADescriptor) {
  const auto open = [] { return std::distance(std::filesystem::directory_iterator("/dev/fd"), {}); };
  const auto play = [&] {
    for (const Json::Object& each : everyEvent(sandbox.project(), sandbox.root() + "/transcript"))
      EventRouter::handle(each, std::nullopt, "claude");
    ObserveClient client = daily();
    client.maxAttempts = 1;
    for (Fault fault : {Fault::closeBeforeHead, Fault::resetBeforeHead, Fault::closeInBody, Fault::none}) {
      plane.next({FakeControlPlane::failing(fault)});
      client.checkPolicy("a", "w", "r");
    }
  };
  play();  // the first round opens what is kept: one connection, the event queue
  const auto before = open();
  for (int round = 0; round < 20; ++round)
    play();
  // The server, in this process too, closes its ends a little later.
  for (int tries = 0; tries < 200 && open() > before; ++tries)
    ::usleep(10'000);
  EXPECT_LE(open(), before);
}

}  // namespace
