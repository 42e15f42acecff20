// How long one event can take at most: so many requests, each of so many attempts, each of so many seconds.
// Docs/reliability.md says how many; the numbers are read from there.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>

#include "Hook/Handlers/Handlers.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"
#include "Shared/DeviceIdentity.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionFixture.h"

namespace {

using namespace std::chrono_literals;
using Fault = FakeControlPlane::Fault;
using Reply = FakeControlPlane::Reply;
using Handler = Outcome (*)(const Json::Object& data, const ObserveClient& client);

Outcome handleOther(const Json::Object& data, const ObserveClient& client) {
  return EventRouter::handleGeneric(data, "other", {}, client);
}

struct Row {
  const char* event;
  Handler handler;
};

constexpr Row rows[] = {
    {"SessionStart", EventRouter::handleSessionStart},
    {"PreToolUse", EventRouter::handlePreToolUse},
    {"PostToolUse", EventRouter::handlePostToolUse},
    {"PostToolUseFailure", EventRouter::handlePostToolUseFailure},
    {"SubagentStart", EventRouter::handleSubagentStart},
    {"SubagentStop", EventRouter::handleSubagentStop},
    {"TeammateIdle", EventRouter::handleTeammateIdle},
    {"PreCompact", EventRouter::handlePreCompact},
    {"Stop", EventRouter::handleStop},
    {"SessionEnd", EventRouter::handleSessionEnd},
    {"every other", handleOther},
};

struct Limit {
  int requests = 0;
  int seconds = 0;
};

// The row "| event | requests | seconds |" of the document.
Limit documented(const std::string& event) {
  std::ifstream document(std::string(QUIB_SOURCE_DIR) + "/Docs/reliability.md");
  for (std::string line; std::getline(document, line);) {
    const std::string start = "| " + event + " | ";
    if (!line.starts_with(start)) continue;
    Limit limit;
    char bar = 0;
    std::istringstream(line.substr(start.size())) >> limit.requests >> bar >> limit.seconds;
    return limit;
  }
  ADD_FAILURE() << "no row for " << event;
  return {};
}

class Patience : public SessionFixture {
 protected:
  Patience() {
    sandbox.write(sandbox.root() + "/transcript", transcriptOf(1));
    // One file change is already one too many, so that a write has as much to report as it can have.
    sandbox.write(sandbox.home() + "/.obrisk/guard.json", R"({"warn_file_changes":1})");
    plane.on("*", [this](const FakeControlPlane::Request& request) { return reply(request); });
  }

  Json::Object eventOf(const char* name) const {
    return event(name, {{"cwd", sandbox.project()},
                        {"tool_name", "Write"},
                        {"tool_input", Json::Object{{"file_path", sandbox.project() + "/a.txt"}}},
                        {"agent_id", "a"},
                        {"transcript_path", sandbox.root() + "/transcript"}});
  }

  // A session in the same directory that has just modified the file to be written.
  void storeTeammate() {
    SessionState teammate = started();
    teammate.session_id = "teammate";
    teammate.modified_files = {sandbox.project() + "/a.txt"};
    ASSERT_FALSE(SessionStore::save(teammate));
  }

  void storeSession(const std::string& startedAt) {
    SessionState state = started();
    state.started_at = startedAt;
    state.is_cowork = true;
    ASSERT_FALSE(SessionStore::save(state));
  }

  Reply reply(const FakeControlPlane::Request& request) {
    if (++attempts_ % 3 != 0 && fails()) return FakeControlPlane::status(503);
    const std::string stale = "2026-01-01T00:00:00.000Z";
    if (request.path().ends_with("/daily/")) {
      const bool none = noDailyRunAtFirst_ && dailyRuns_++ == 0;
      return FakeControlPlane::json({{"run_id", none ? "" : "daily-" + std::to_string(++runs_)},
                                     {"started_at", chance() ? stale : Clock::dateTime()}});
    }
    return FakeControlPlane::json({{"run_id", "run-" + std::to_string(++runs_)},
                                   {"started_at", chance() ? stale : Clock::dateTime()},
                                   {"action", chance() ? "warn" : "allow"},
                                   {"metadata", Json::Object{{"cost_cap", 0.001}}}});
  }

  // The attempts that one event makes. With `atWorst` everything goes as wrong as it can.
  int attempts(const Row& row, bool known, bool atWorst) {
    for (const char* id : {"s", "teammate"})
      SessionStore::remove(id);
    storeTeammate();
    atWorst_ = atWorst;
    const bool stale = chance();
    if (known) storeSession(stale ? "2026-01-01T00:00:00.000Z" : Clock::dateTime());
    attempts_ = dailyRuns_ = 0;
    noDailyRunAtFirst_ = !known;
    row.handler(eventOf(row.event), daily());
    return attempts_;
  }

 private:
  bool chance() { return atWorst_ || random_() % 2 == 0; }
  bool fails() { return atWorst_ || random_() % 8 == 0; }

  std::mt19937 random_{1};
  bool atWorst_ = false;
  bool noDailyRunAtFirst_ = false;
  int attempts_ = 0;
  int dailyRuns_ = 0;
  int runs_ = 0;  // of all events: what is recorded of one must not spare another a request
};

TEST_F(Patience, EveryEventMakesAsManyRequestsAsDocumentedAndNoMore) {
  const int attemptsOfOne = ObserveClient{}.maxAttempts;
  for (const Row& row : rows) {
    const int most = documented(row.event).requests * attemptsOfOne;
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
  for (const Row& row : rows) {
    const Limit limit = documented(row.event);
    EXPECT_EQ(limit.requests * ofOneRequest + DeviceIdentity::timeout.overall,
              std::chrono::seconds(limit.seconds))
        << row.event;
  }
}

TEST_F(Patience, EveryKindOfSilenceEndsWithTheTimeout) {
  ObserveClient client = daily("deny");
  client.timeout.idle = 20ms;
  client.maxAttempts = 2;
  client.retryBaseDelay = 5ms;
  const auto ofOneRequest = 2 * client.timeout.idle + client.retryBaseDelay;
  const std::pair<const char*, Reply> silences[] = {
      {"no answer", FakeControlPlane::failing(Fault::silence)},
      {"half an answer", FakeControlPlane::failing(Fault::silenceInBody)},
      {"a late answer", {.delay = 10s}},
      {"interim answers and then none", {.raw = "HTTP/1.1 100 Continue\r\n\r\n"}},
      {"an answer that trickles too slowly", {.drip = 10s}},
  };
  for (const Row& row : rows)
    for (const auto& [name, silence] : silences) {
      ASSERT_FALSE(SessionStore::save(started()));
      plane.on("*", silence);
      const auto start = std::chrono::steady_clock::now();
      row.handler(eventOf(row.event), client);
      EXPECT_LT(std::chrono::steady_clock::now() - start, documented(row.event).requests * ofOneRequest + 1s)
          << row.event << ": " << name;
    }
}

TEST_F(Patience, AnAnswerThatKeepsTricklingEndsAllTheSame) {
  ObserveClient client = daily("deny");
  client.timeout = {.idle = 100ms, .overall = 200ms};
  client.maxAttempts = 1;
  plane.on("*", {.body = std::string(10'000, ' '), .drip = 10ms});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(client.checkPolicy("a", "w", "r"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST_F(Patience, AControlPlaneThatCannotBeReachedIsNotWaitedForBeyondTheTimeout) {
  FakeControlPlane deaf({.deaf = true}), unaccepting({.unaccepting = true});
  for (const std::string& url : {deaf.url(), unaccepting.url()}) {
    ObserveClient client = Sandbox::client(url, "reviewer", "deny");
    client.timeout.idle = 60ms;
    ASSERT_FALSE(SessionStore::save(started()));
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = EventRouter::handlePreToolUse(
        event("PreToolUse", {{"tool_name", "Read"}, {"tool_input", Json::Object{}}}), client);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3 * client.timeout.idle + 1s) << url;
    EXPECT_TRUE(std::holds_alternative<Deny>(outcome)) << "and the fail default decides";
  }
}

}  // namespace
