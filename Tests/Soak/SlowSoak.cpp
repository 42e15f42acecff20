// Answers without end, at the length that ships: an attempt ends five seconds after the timeout.
#include <gtest/gtest.h>

#include <iostream>

#include "Hook/Handlers/Handlers.h"
#include "Hook/State/SessionStore.h"
#include "Tests/Support/SessionFixture.h"

namespace {

using namespace std::chrono_literals;
using Fault = FakeControlPlane::Fault;

class SlowSoak : public SessionFixture {};

TEST_F(SlowSoak, AnAnswerWithoutEndHoldsAnEventForItsLimitOnly) {
  const std::pair<const char*, FakeControlPlane::Reply> answers[] = {
      {"a head that drips", {.headers = {{"X", std::string(1'000, 'x')}}, .drip = 20ms}},
      {"a body that drips", {.body = std::string(100'000, ' '), .dripBody = 20ms}},
      {"a body larger than any answer", FakeControlPlane::failing(Fault::endlessBody)},
      {"a head without end", {.drip = 5ms, .raw = "HTTP/1.1 200 OK\r\nX: " + std::string(50'000, 'x')}},
  };
  ObserveClient client = daily("deny");
  client.timeout = {.idle = 200ms, .overall = 5200ms};
  client.maxAttempts = 2;
  for (const auto& [name, answer] : answers) {
    ASSERT_FALSE(SessionStore::save(started()));
    plane.on("*", answer);
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome =
        EventRouter::handlePreToolUse(event("PreToolUse", {{"tool_name", "Read"}}), client);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(std::holds_alternative<Deny>(outcome)) << name;
    EXPECT_LT(took, 2 * client.timeout.overall + 1s) << name;
    std::cout << name << ": " << took.count() << " s\n";
  }
}

}  // namespace
