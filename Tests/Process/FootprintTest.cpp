// What one event takes of the machine: memory, and descriptors that it gives back.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "Hook/EventRouter.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionFixture.h"

#if defined(__SANITIZE_ADDRESS__)
#define QUIB_SANITIZED 1
#endif

namespace {

using Fault = FakeControlPlane::Fault;

class Footprint : public SessionFixture {
 protected:
  Footprint() { sandbox.write(sandbox.root() + "/transcript", transcriptOf(3)); }
  std::vector<Json::Object> events() const {
    return everyEvent(sandbox.project(), sandbox.root() + "/transcript");
  }
};

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
  } while (::waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == 0);
  return peak;
}

TEST_F(Footprint, AnOrdinaryEventPeaksUnderTwentyMegabytes) {
#ifdef QUIB_SANITIZED
  GTEST_SKIP() << "a sanitizer has memory of its own";
#endif
  sandbox.configure(plane.url(), "reviewer");
  plane.on("*", {.delay = std::chrono::milliseconds(20)});  // time to look
  long most = 0;
  const std::string input = sandbox.root() + "/event", null = "/dev/null";
  for (const Json::Object& each : events()) {
    sandbox.write(input, Json(each).compact());
    const pid_t process = sandbox.start({}, input, null, null);
    const long peak = peakOf(process);
    int status = 0;
    ::waitpid(process, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_LT(peak, 20'000) << "kilobytes for " << each.text("hook_event_name");
    most = std::max(most, peak);
  }
  EXPECT_GT(most, 1'000) << "or nothing was seen";
  std::cout << "peak memory of an ordinary event: " << most << " kB\n";
}

TEST_F(Footprint, NoEventKeepsADescriptor) {
  const auto open = [] {
    const std::filesystem::directory_iterator all("/dev/fd");
    return std::distance(begin(all), end(all));
  };
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
