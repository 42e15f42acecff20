// 64 processes at once, of 8 sessions, for 30 seconds, against the control plane that ships.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <mutex>
#include <thread>

#include "Hook/State/SessionStore.h"
#include "Platform/Files.h"
#include "Platform/Http/Http.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/Sandbox.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int processes = 64;
constexpr int sessions = 8;
constexpr auto duration = 30s;

// The control plane in a process of its own, as a user starts it.
class LocalProcess {
 public:
  explicit LocalProcess(const std::string& data) {
    int output[2];
    EXPECT_EQ(::pipe2(output, O_CLOEXEC), 0);
    id_ = ::fork();
    if (id_ == 0) {
      ::dup2(output[1], STDOUT_FILENO);
      ::execl(OBRISK_LOCAL_EXECUTABLE, OBRISK_LOCAL_EXECUTABLE, "--port", "0", "--data", data.c_str(),
              nullptr);
      ::_exit(127);
    }
    ::close(output[1]);
    for (char c; ::read(output[0], &c, 1) == 1 && said_.find("agent_slug") == said_.npos;)
      said_ += c;
    ::close(output[0]);
  }
  ~LocalProcess() {
    ::kill(id_, SIGTERM);
    ::waitpid(id_, nullptr, 0);
  }
  LocalProcess(const LocalProcess&) = delete;
  LocalProcess& operator=(const LocalProcess&) = delete;

  std::string url() const { return after("api_url = "); }
  std::string key() const { return after("api_key = "); }

 private:
  std::string after(const std::string& words) const {
    const auto at = said_.find(words) + words.size();
    return said_.substr(at, said_.find('\n', at) - at);
  }

  pid_t id_ = 0;
  std::string said_;
};

struct Tally {
  std::mutex mutex;
  std::vector<double> milliseconds;
  int failed = 0;
  int bad = 0;  // answers that are not one object
};

class LoadSoak : public testing::Test {
 protected:
  // The events of one process slot, one after the other until the time is up. Stop and session end are left
  // to the end, so that there always is a session.
  void work(int slot, Clock::time_point until, Tally& tally) {
    const std::string base = sandbox.root() + "/slot-" + std::to_string(slot);
    auto events = everyEvent(sandbox.project(), base + "-transcript");
    std::erase_if(events, [](const Json::Object& each) {
      const std::string& name = each.text("hook_event_name");
      return name == "Stop" || name == "SessionEnd";
    });
    for (std::size_t turn = 0; Clock::now() < until; ++turn) {
      Json::Object event = events[(turn + static_cast<std::size_t>(slot)) % events.size()];
      event.set("session_id", "session-" + std::to_string(slot % sessions));
      sandbox.write(base, Json(event).compact());
      const auto start = Clock::now();
      int status = 0;
      ::waitpid(sandbox.start({}, base, base + "-out", base + "-err"), &status, 0);
      const std::chrono::duration<double, std::milli> took = Clock::now() - start;
      const bool whole = Json::parseObject(Files::read(base + "-out").value_or("")).has_value() &&
                         Files::read(base + "-err") == "";
      const std::lock_guard lock(tally.mutex);
      tally.milliseconds.push_back(took.count());
      tally.failed += status != 0;
      tally.bad += !whole;
    }
  }

  // The steps that the control plane shows for all runs.
  static std::int64_t stepsReceived(const std::string& url) {
    const auto answer = Http::exchange({"GET", url + "/ui/overview", {}, ""}, {10s, 10s});
    return parsed(answer.body).object("store").object("totals").integer("steps");
  }

  Sandbox sandbox;
};

double quantile(const std::vector<double>& sorted, double part) {
  return sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))];
}

TEST_F(LoadSoak, SixtyFourProcessesOfEightSessions) {
  const LocalProcess plane(sandbox.root() + "/data.db");
  sandbox.write(sandbox.home() + "/.obrisk/config", "[default]\napi_url = " + plane.url() + "\napi_key = " +
                                                        plane.key() + "\nagent_slug = load\n");
  Tally tally;
  const auto start = Clock::now();
  std::vector<std::thread> slots;
  for (int slot = 0; slot < processes; ++slot)
    slots.emplace_back([&, slot] { work(slot, start + duration, tally); });
  for (std::thread& slot : slots)
    slot.join();
  const std::chrono::duration<double> took = Clock::now() - start;

  EXPECT_EQ(tally.failed, 0) << "an event failed";
  EXPECT_EQ(tally.bad, 0) << "an answer was not one object";
  std::int64_t taken = 0, refused = 0;
  for (const Json::Object& line : jsonLines(sandbox.activityLog())) {
    if (!line.text("url").ends_with("/steps/")) continue;
    ++(line.integer("status") / 100 == 2 ? taken : refused);
  }
  EXPECT_EQ(stepsReceived(plane.url()), taken) << "steps received, and steps logged as taken";
  for (int session = 0; session < sessions; ++session)
    EXPECT_TRUE(SessionStore::load("session-" + std::to_string(session))) << session;
  for (const std::string& name : Sandbox::tree(sandbox.state()))
    EXPECT_TRUE(name.ends_with(".json")) << "a temporary file was left: " << name;

  auto& times = tally.milliseconds;
  ASSERT_FALSE(times.empty());
  std::sort(times.begin(), times.end());
  std::cout << times.size() << " events in " << took.count()
            << " s: " << static_cast<double>(times.size()) / took.count() << " a second; p50 "
            << quantile(times, 0.5) << " ms, p99 " << quantile(times, 0.99) << " ms, longest " << times.back()
            << " ms; " << taken << " steps taken, " << refused << " attempts that failed and were logged\n";
}

}  // namespace
