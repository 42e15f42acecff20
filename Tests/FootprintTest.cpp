// What one event takes of the machine: memory, and descriptors that it gives back.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
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

TEST_F(Footprint, AnOrdinaryEventPeaksUnderTwentyMegabytes) {
#ifdef QUIB_SANITIZED
  GTEST_SKIP() << "a sanitizer has memory of its own";
#endif
  sandbox.configure(plane.url(), "reviewer");
  long most = 0;
  const std::string input = sandbox.root() + "/event", null = "/dev/null";
  for (const Json::Object& each : events()) {
    sandbox.write(input, Json(each).compact());
    int status = 0;
    rusage used{};
    ::wait4(sandbox.start({}, input, null, null), &status, 0, &used);
    EXPECT_EQ(status, 0);
    EXPECT_LT(used.ru_maxrss, 20'000) << "kilobytes for " << each.text("hook_event_name");
    most = std::max(most, used.ru_maxrss);
  }
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
