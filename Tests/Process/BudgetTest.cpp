// What an event may cost, in user-space instructions of the whole process, the loader's included: unlike time
// they are the same on every run and every machine of a kind. The executable measured is the one that ships.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "Hook/State/SessionStore.h"
#include "Tests/Support/SessionFixture.h"

namespace {

namespace fs = std::filesystem;

// Why the budgets cannot be held against anything here; empty when they can.
std::string obstacle() {
#ifdef __SANITIZE_ADDRESS__
  return "a sanitizer build";
#else
  if (std::system("command -v valgrind > /dev/null") != 0) return "valgrind is not installed";
  const fs::path hook = QUIB_RELEASE_HOOK;
  if (!fs::exists(hook)) return "no release build (make)";
  for (const char* folder : {"Hook", "Shared", "Platform"})
    for (const auto& file : fs::recursive_directory_iterator(fs::path(QUIB_SOURCE_DIR) / folder))
      if (file.is_regular_file() && fs::last_write_time(file) > fs::last_write_time(hook))
        return "the release build is older than " + file.path().filename().string() + " (make)";
  return "";
#endif
}

class Budget : public SessionFixture {
 protected:
  Budget() {
    sandbox.configure(plane.url(), "reviewer");
    EXPECT_FALSE(SessionStore::save(started()));
  }

  void SetUp() override {
    if (const std::string reason = obstacle(); !reason.empty()) GTEST_SKIP() << "not measured: " << reason;
  }

  double instructions(const Json::Object& event) const {
    const std::string input = sandbox.root() + "/event", log = sandbox.root() + "/valgrind";
    sandbox.write(input, Json(event).compact());
    const std::string command = "valgrind --tool=callgrind --callgrind-out-file=/dev/null --log-file=" + log +
                                " " QUIB_RELEASE_HOOK " < " + input + " > /dev/null";
    EXPECT_EQ(std::system(command.c_str()), 0);
    std::ifstream file(log);
    const std::string mark = "Collected : ";
    for (std::string line; std::getline(file, line);)
      if (const auto at = line.find(mark); at != line.npos) return std::stod(line.substr(at + mark.size()));
    ADD_FAILURE() << "valgrind counted nothing: " << contentOf(log);
    return 0;
  }

  double unconfigured() {
    fs::remove(sandbox.home() + "/.obrisk/config");
    return instructions(event("UserPromptSubmit", {{"prompt", "Go on."}}));
  }

  // Before a tool call with these members of its input.
  double gate(const char* tool, const char* member, const char* value) const {
    return instructions(
        event("PreToolUse", {{"tool_name", tool}, {"tool_input", Json::Object{{member, value}}}}));
  }
};

TEST_F(Budget, AnUnconfiguredEventIsLittleMoreThanItsStart) {
  EXPECT_LE(unconfigured(), 2.7e6);
}

TEST_F(Budget, ACallThatNoRuleObjectsToCostsOnePolicyCheck) {
  EXPECT_LE(gate("Read", "file_path", "/p/source/unit.cpp"), 2.9e6);
  EXPECT_LE(gate("Bash", "command", "ls -la source"), 2.9e6);
  EXPECT_LE(gate("Write", "file_path", (sandbox.project() + "/unit.cpp").c_str()), 3.1e6);
  EXPECT_LE(gate("WebFetch", "url", "https://example.com/a"), 2.9e6);
}

TEST_F(Budget, TwoPostsCostLittleAboveTheStart) {
  const double posts = instructions(
      event("PostToolUse", {{"tool_name", "Write"}, {"tool_input", Json::Object{{"file_path", "/p/a"}}}}));
  EXPECT_EQ(plane.requests().size(), 2u);
  EXPECT_LE(posts - unconfigured(), 0.4e6);
}

}  // namespace
