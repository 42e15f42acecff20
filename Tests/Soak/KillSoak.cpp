// Two thousand processes, of every event, killed at any instant.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <random>

#include "Hook/State/SessionStore.h"
#include "Hook/Transcript/LLMCallDedupe.h"
#include "Platform/Files.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionFixture.h"

namespace {

constexpr int kills = 2'000;
constexpr unsigned atOnce = 16;  // at most

class KillSoak : public SessionFixture {
 protected:
  // Every file that a hook left is whole: a record, a list of ids, lines of objects; what is torn are only
  // temporary files, which nobody reads.
  void expectWholeFiles() {
    for (const std::string& name : Sandbox::tree(sandbox.state())) {
      if (!name.ends_with(".json")) continue;
      const auto content = Files::read(sandbox.state() + "/" + name);
      if (!content) continue;  // a stop has removed it meanwhile
      const auto object = Json::parseObject(*content);
      EXPECT_TRUE(object && SessionState::fromJSON(*object)) << name << ": " << *content;
    }
    const std::string calls = sandbox.home() + "/.obrisk/cc-dedupe";
    for (const std::string& name : Sandbox::tree(calls)) {
      if (!name.ends_with(".json")) continue;
      const auto list = Json::parse(contentOf(calls + "/" + name));
      EXPECT_TRUE(list && list->asTexts() && list->asTexts()->size() == 3) << name;
    }
  }
};

TEST_F(KillSoak, TwoThousandKillsOverAllEventsTearNoFile) {
  sandbox.configure(plane.url());
  const std::string transcript = sandbox.root() + "/transcript", null = "/dev/null";
  sandbox.write(transcript, transcriptOf(3));
  std::vector<std::string> inputs;
  for (const Json::Object& each : everyEvent(sandbox.project(), transcript)) {
    inputs.push_back(sandbox.root() + "/event-" + std::to_string(inputs.size()));
    sandbox.write(inputs.back(), Json(each).compact());
  }
  std::mt19937 random(1);
  int killed = 0, ended = 0;
  unsigned longestWait = 2'000;  // microseconds; follows how long events take here
  for (int started = 0; started < kills && !HasFailure();) {
    std::vector<pid_t> children;
    for (auto child = random() % atOnce + 1; child > 0; --child, ++started)
      children.push_back(sandbox.start({}, inputs[random() % inputs.size()], null, null));
    for (const pid_t child : children) {
      ::usleep(random() % longestWait);
      ::kill(child, SIGKILL);
    }
    for (const pid_t child : children) {
      int status = 0;
      ::waitpid(child, &status, 0);
      ++(WIFSIGNALED(status) ? killed : ended);
    }
    longestWait = killed > ended ? longestWait * 9 / 8 : longestWait * 7 / 8 + 8;
    expectWholeFiles();
  }
  EXPECT_GT(killed, kills / 3) << "the kills come too late to mean anything";
  EXPECT_FALSE(jsonLines(sandbox.activityLog()).empty()) << "and each of its lines is one object";
  // What was left lying about is in nobody's way.
  for (const std::string& input : inputs)
    EXPECT_EQ(sandbox.run({}, contentOf(input)).status, 0);
  EXPECT_FALSE(SessionStore::load("s")) << "the session ends as it would have";
  std::cout << killed << " killed, " << ended
            << " had ended before; left lying: " << Sandbox::tree(sandbox.state()).size()
            << " temporary files\n";
}

}  // namespace
