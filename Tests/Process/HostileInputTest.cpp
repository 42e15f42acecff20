// Whatever arrives on standard input, the executable answers with one JSON object, status 0, and nothing
// else.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <random>

#include "Hook/State/SessionStore.h"
#include "Platform/Files.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionFixture.h"

namespace {

class HostileInput : public SessionFixture {
 protected:
  void expectOneObject(const Sandbox::Result& result, const std::string& about) {
    EXPECT_EQ(result.status, 0) << about;
    EXPECT_EQ(result.error, "") << about;
    auto object = Json::parseObject(result.output);
    ASSERT_TRUE(object) << about << ": " << result.output;
    EXPECT_EQ(Json(*object).compact(), result.output) << about << ": not one compact object";
  }

  void ensureSession() {
    if (!SessionStore::load("s")) {
      ASSERT_FALSE(SessionStore::save(started()));
    }
  }

  std::vector<std::string> seeds() {
    std::vector<std::string> texts;
    for (const Json::Object& each : everyEvent(sandbox.project(), sandbox.root() + "/transcript"))
      texts.push_back(Json(each).compact());
    const std::string corpus = std::string(QUIB_SOURCE_DIR) + "/Fuzz/Corpus/Event";
    for (const std::string& name : Files::list(corpus))
      texts.push_back(contentOf(corpus + "/" + name).substr(1));
    return texts;
  }

  std::string damaged(std::string text) {
    switch (random() % 4) {
      case 0:
        return text.substr(0, random() % (text.size() + 1));
      case 1:
        text[random() % text.size()] = static_cast<char>(random());
        return text;
      case 2:
        return text.insert(random() % text.size(),
                           std::string(1 + random() % 3, static_cast<char>(random())));
      default:  // a value of another kind in place of a string
        static constexpr const char* values[] = {"null", "[]", "{}", "1e999", "-9223372036854775809", "true"};
        const auto colon = text.find(":\"", random() % text.size());
        const auto end = colon == text.npos ? text.npos : text.find('"', colon + 2);
        return end == text.npos ? text : text.replace(colon + 1, end - colon, values[random() % 6]);
    }
  }

  std::mt19937 random{1};
};

TEST_F(HostileInput, EveryDamagedEventOfEveryAgentHasItsAnswer) {
  const std::string apps[] = {"claude", "cursor", "copilot"};
  for (const std::string& seed : seeds())
    for (const std::string& app : apps) {
      const std::string input = damaged(seed);
      ensureSession();
      expectOneObject(sandbox.run({"--app", app}, input), app + " " + input);
    }
}

TEST_F(HostileInput, AProcessThatMayOpenNoFileStillAnswers) {
  sandbox.configure(plane.url(), "reviewer");
  const auto events = everyEvent(sandbox.project(), sandbox.root() + "/transcript");
  ensureSession();
  std::vector<pid_t> processes;  // all at once: they wait for their retries
  const std::string base = sandbox.root() + "/process-";
  for (rlim_t files = 3; files < 15; ++files) {
    sandbox.inChild = [files] {
      const rlimit limit{files, files};
      ::setrlimit(RLIMIT_NOFILE, &limit);
    };
    const std::string path = base + std::to_string(files);
    sandbox.write(path, Json(events[files % events.size()]).compact());
    processes.push_back(sandbox.start({}, path, path + "-out", path + "-err"));
  }
  for (rlim_t files = 3; files < 15; ++files) {
    const std::string path = base + std::to_string(files);
    int status = 0;
    ::waitpid(processes[files - 3], &status, 0);
    // Below what the loader needs no program starts.
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127 && files < 5) continue;
    expectOneObject({status, contentOf(path + "-out"), contentOf(path + "-err")},
                    std::to_string(files) + " descriptors");
  }
}

TEST_F(HostileInput, AnIdentifierThatIsAPathLeavesEveryFileAloneThatIsNoSession) {
  const std::string precious = sandbox.home() + "/precious.json";
  sandbox.write(precious, R"({"precious":true})");
  for (const char* id : {"../home/precious", "/etc/passwd", ".", "..", "a/../../home/precious", "\x01", ""})
    for (const char* name : {"Stop", "SessionEnd", "SessionStart", "SubagentStart"}) {
      auto each = event(name);
      each.set("session_id", id);
      expectOneObject(sandbox.run({}, each), id);
    }
  EXPECT_EQ(contentOf(precious), R"({"precious":true})");
}

}  // namespace
