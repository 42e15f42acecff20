// What one event takes: at most so many requests, each of so many attempts, each of so many seconds, as
// Docs/reliability.md has them; memory, and descriptors that it gives back.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <mutex>
#include <random>
#include <regex>

#include "Hook/EventRouter.h"
#include "Hook/Handlers/Handlers.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionFixture.h"

namespace {

using namespace std::chrono_literals;
using namespace EventRouter;
using Fault = FakeControlPlane::Fault;
using Reply = FakeControlPlane::Reply;

// The rows "| event | requests | seconds |" of the document.
std::vector<std::tuple<std::string, int, int>> documented() {
  const std::string document = contentOf(QUIB_SOURCE_DIR "/Docs/reliability.md");
  const std::regex row(R"(\| ([\w ]+) \| (\d+) \| (\d+) \|)");
  std::vector<std::tuple<std::string, int, int>> found;
  for (std::sregex_iterator at(document.begin(), document.end(), row), end; at != end; ++at)
    found.emplace_back((*at)[1], std::stoi((*at)[2]), std::stoi((*at)[3]));
  EXPECT_EQ(found.size(), 11u);
  return found;
}

class Patience : public SessionFixture {
 protected:
  Patience() {
    sandbox.configure(plane.url(), "reviewer");
    sandbox.write(sandbox.root() + "/transcript", transcriptOf(1));
    // One file change is already one too many, so that a write has as much to report as it can have.
    sandbox.write(sandbox.home() + "/.obrisk/guard.json", R"({"warn_file_changes":1})");
  }

  // A session of a group, and of `files`.
  void store(const char* id, const std::string& startedAt, const std::vector<std::string>& files) {
    SessionState state = started();
    state.session_id = id;
    state.started_at = startedAt;
    state.is_cowork = true;
    state.modified_files = files;
    ASSERT_FALSE(SessionStore::save(state));
  }

  // Called by the threads of the server.
  Reply reply(const FakeControlPlane::Request& request) {
    const std::lock_guard lock(mutex_);
    const bool isDaily = request.path().ends_with("/daily/");
    const bool isNone = isDaily && std::exchange(noDailyRunAtFirst_, false);
    return FakeControlPlane::json(
        {{"run_id", isNone ? "" : (isDaily ? "daily-" : "run-") + std::to_string(++runs_)},
         {"started_at", chance() ? stale : Clock::dateTime()},
         {"action", chance() ? "warn" : "allow"},
         {"metadata", Json::Object{{"cost_cap", 0.001}}}});
  }

  // The requests that one event makes. With `atWorst` everything goes as wrong as it can.
  std::size_t requests(const std::string& name, bool isKnown, bool atWorst) {
    const std::string file = sandbox.project() + "/a.txt";
    SessionStore::remove("s");
    store("teammate", Clock::dateTime(), {file});
    std::unique_lock lock(mutex_);
    atWorst_ = atWorst;
    noDailyRunAtFirst_ = !isKnown;
    if (isKnown) store("s", chance() ? stale : Clock::dateTime(), {});
    lock.unlock();
    const std::size_t before = plane.requests().size();
    EventRouter::handle(event(name, {{"cwd", sandbox.project()},
                                     {"tool_name", "Write"},
                                     {"tool_input", Json::Object{{"file_path", file}}},
                                     {"transcript_path", sandbox.root() + "/transcript"}}),
                        std::nullopt, "claude");
    return plane.requests().size() - before;
  }

 private:
  static constexpr const char* stale = "2026-01-01T00:00:00.000Z";
  bool chance() { return atWorst_ || random_() % 2 == 0; }

  std::mutex mutex_;
  std::mt19937 random_{1};
  bool atWorst_ = false;
  bool noDailyRunAtFirst_ = false;
  int runs_ = 0;  // of all events: what is recorded of one must not spare another a request
};

TEST_F(Patience, EveryEventMakesAsManyRequestsAsDocumentedAndNoMore) {
  plane.on("*", [this](const FakeControlPlane::Request& request) { return reply(request); });
  for (const auto& [name, most, seconds] : documented()) {
    EXPECT_EQ(std::max(requests(name, false, true), requests(name, true, true)), most) << name;
    for (int trial = 0; trial < 20; ++trial)
      EXPECT_LE(requests(name, trial % 2 == 0, false), most) << name;
  }
}

TEST_F(Patience, TheDocumentedSecondsFollowFromTheClientsSettings) {
  const ObserveClient client;
  const auto seconds = [](auto time) {
    return std::to_string(std::chrono::round<std::chrono::seconds>(time).count()) + " s";
  };
  const std::string sentence = "An attempt ends after " + seconds(client.timeout.idle) +
                               " without progress, and after " + seconds(client.timeout.overall);
  EXPECT_NE(contentOf(QUIB_SOURCE_DIR "/Docs/reliability.md").find(sentence), std::string::npos) << sentence;
  auto ofOneRequest = client.maxAttempts * client.timeout.overall;
  for (int pause = 0; pause + 1 < client.maxAttempts; ++pause)
    ofOneRequest += client.retryBaseDelay * (1 << pause);
  for (const auto& [name, requests, most] : documented())
    EXPECT_EQ(requests * ofOneRequest + DeviceIdentity::timeout.overall, std::chrono::seconds(most)) << name;
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

class Footprint : public Patience {
 protected:
  std::vector<Json::Object> events() const {
    return everyEvent(sandbox.project(), sandbox.root() + "/transcript");
  }

  // What the system said of the executable, in that file of its, when it made its last request.
  std::string saidAtLastRequest(const Json::Object& event, const char* file) {
    std::promise<pid_t> started;
    std::string text;
    plane.on("*", [&, process = started.get_future().share()](const FakeControlPlane::Request&) {
      std::getline(std::ifstream("/proc/" + std::to_string(process.get()) + "/" + file), text, '\0');
      return Reply();
    });
    sandbox.write(sandbox.root() + "/event", Json(event).compact());
    started.set_value(sandbox.start({}, sandbox.root() + "/event", "/dev/null", "/dev/null"));
    int status = 0;
    ::wait(&status);
    EXPECT_EQ(status, 0);
    return text;
  }
};

#ifdef __linux__
TEST_F(Footprint, AnOrdinaryEventPeaksUnderTwentyMegabytes) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "a sanitizer has memory of its own";
#endif
  int most = 0;
  for (const Json::Object& each : events()) {
    ASSERT_FALSE(SessionStore::save(started()));
    const std::string status = saidAtLastRequest(each, "status");
    std::smatch peak;
    if (std::regex_search(status, peak, std::regex(R"(VmHWM:\s+(\d+) kB)")))
      most = std::max(most, std::stoi(peak[1]));
  }
  EXPECT_GT(most, 1'000) << "or nothing was seen";
  EXPECT_LT(most, 20'000);
  std::cout << "peak memory of an ordinary event: " << most << " kB\n";
}

TEST_F(Footprint, AProcessThatHoldsAKeyLeavesNoCore) {
  sandbox.inChild = [] {
    const rlimit any{RLIM_INFINITY, RLIM_INFINITY};
    ::setrlimit(RLIMIT_CORE, &any);
  };
  const std::string limits = saidAtLastRequest(event("PreToolUse"), "limits");
  EXPECT_TRUE(std::regex_search(limits, std::regex("Max core file size +0 +0 "))) << limits;
}
#endif

TEST_F(Footprint, NoEventKeepsADescriptor) {
  const auto open = [] { return std::distance(std::filesystem::directory_iterator("/dev/fd"), {}); };
  const auto play = [&] {
    for (const Json::Object& each : events())
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
