// What other users of the machine, and hostile names, cannot do to the stores. Root alone can play a second
// user: elsewhere those cases are skipped.
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "Hook/State/SessionStore.h"
#include "Hook/Transcript/LLMCallDedupe.h"
#include "Platform/Files.h"
#include "Platform/SmallFile.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/SessionFixture.h"
#include "Tests/Support/Table.h"

namespace {

namespace fs = std::filesystem;

// Shows this process a "/tmp" of its own, with a home in it.
bool hasOwnTmp(const std::string& directory) {
  fs::create_directories(directory + "/home");
  ::setenv("HOME", "/tmp/home", 1);
  ::unsetenv("OBRISK_CC_STATE_DIR");
  return ::unshare(CLONE_NEWNS) == 0 && ::mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount(directory.c_str(), "/tmp", nullptr, MS_BIND, nullptr) == 0;
}

bool savesAndLoads() {
  SessionState state;
  state.session_id = "s";
  return !SessionStore::save(state) && SessionStore::load("s") == state;
}

TEST(Ownership, OfTheDefaultDirectoryDecidesWhetherItIsUsed) {
  if (::geteuid() != 0 || !inChildProcess([] { return ::unshare(CLONE_NEWNS) == 0; }))
    GTEST_SKIP() << "needs root and a mount namespace";
  // What somebody has done in "/tmp" ¦ the project's key ¦ where records then go
  for (const auto& row : rows(R"(
      true                                                            ¦   ¦ /tmp/obrisk-cc
      mkdir -m 777 obrisk-cc                                          ¦   ¦ /tmp/obrisk-cc
      mkdir obrisk-cc && chown 1 obrisk-cc                            ¦   ¦ /tmp/obrisk-cc-0
      mkdir x && ln -s x obrisk-cc                                    ¦   ¦ /tmp/obrisk-cc-0
      ln -s nowhere obrisk-cc                                         ¦   ¦ /tmp/obrisk-cc-0
      touch obrisk-cc                                                 ¦   ¦ /tmp/obrisk-cc-0
      mkdir obrisk-cc obrisk-cc-0 && chown 1 obrisk-cc obrisk-cc-0    ¦   ¦ /tmp/home/.obrisk/state
      mkdir -p obrisk-cc/proj-k                                       ¦ k ¦ /tmp/obrisk-cc/proj-k
      mkdir -p obrisk-cc/proj-k && chown 1 obrisk-cc/proj-k           ¦ k ¦ /tmp/obrisk-cc-0/proj-k
      mkdir -p obrisk-cc/proj-k && chown 1 obrisk-cc                  ¦ k ¦ /tmp/obrisk-cc-0/proj-k
      mkdir -p obrisk-cc x && ln -s ../x obrisk-cc/proj-k             ¦ k ¦ /tmp/obrisk-cc-0/proj-k
      )")) {
    Sandbox sandbox;
    sandbox.set("OBRISK_PROJECT_KEY", row[1]);
    EXPECT_TRUE(inChildProcess([&] {
      return hasOwnTmp(sandbox.root() + "/tmp") && std::system(("cd /tmp && " + row[0]).c_str()) == 0 &&
             SessionStore::scopedStateDir() == row[2] && savesAndLoads() &&
             (Files::claimDirectory(row[2]) == Files::Directory::own) &&
             (fs::status(row[2]).permissions() & fs::perms::others_write) == fs::perms::none;
    })) << row[0]
        << " " << row[2];
  }
}

TEST(Ownership, OfAFileDecidesWhetherItIsBelieved) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  Sandbox sandbox;
  const std::string directory = sandbox.root() + "/d", file = directory + "/f";
  sandbox.write(file, "x");
  fs::create_symlink("f", directory + "/link");
  using enum SmallFile::Owner;
  const auto readers = [&] {
    std::string found;
    for (const auto owner : {anybody, user, userOrDirectory})
      found += SmallFile::read(file, owner) ? "y" : "-";
    return found;
  };
  EXPECT_EQ(readers(), "yyy");
  ASSERT_EQ(::chown(file.c_str(), 1, 1), 0);
  EXPECT_EQ(readers(), "y--");
  ASSERT_EQ(::chown(directory.c_str(), 1, 1), 0);
  EXPECT_EQ(readers(), "y-y");
  ASSERT_EQ(::chown(file.c_str(), 2, 2), 0);
  EXPECT_EQ(readers(), "y--");
  ASSERT_EQ(::chown(file.c_str(), 0, 0), 0);
  EXPECT_TRUE(SmallFile::read(directory + "/link"));
  EXPECT_FALSE(SmallFile::read(directory + "/link", userOrDirectory));
}

TEST(Ownership, OfRecordsAndListsIsAsked) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  Sandbox sandbox;
  ASSERT_FALSE(SessionStore::save(sandbox.started()));
  LLMCallDedupe::save("r", {"id"});
  EXPECT_TRUE(SessionStore::findCoworkPeer(sandbox.project(), "other"));
  for (const std::string& file : {sandbox.stateFile("s"), *LLMCallDedupe::path("r")})
    ASSERT_EQ(::chown(file.c_str(), 1, 1), 0);
  EXPECT_FALSE(SessionStore::load("s"));
  EXPECT_FALSE(SessionStore::findCoworkPeer(sandbox.project(), "other"));
  EXPECT_TRUE(LLMCallDedupe::load("r").empty());
}

TEST(Identifiers, ThatLeadOutOfTheDirectoryHaveNoFile) {
  Sandbox sandbox;
  for (const std::string& id : words("../victim a/../../victim .. x/.. /victim")) {
    sandbox.write(sandbox.root() + "/victim.json", "theirs");
    SessionState state = sandbox.started();
    state.session_id = id;
    EXPECT_TRUE(SessionStore::save(state)) << id;
    SessionStore::remove(id);
    LLMCallDedupe::save(id, {"x"});
    EXPECT_FALSE(SessionStore::load(id) || LLMCallDedupe::path(id)) << id;
    EXPECT_EQ(contentOf(sandbox.root() + "/victim.json"), "theirs") << id;
  }
  EXPECT_EQ(Sandbox::tree(sandbox.home() + "/.obrisk"), words("logs logs/hook.diagnostics.jsonl"));
}

TEST(SmallFiles, AreNoLargerThanTheirLimit) {
  Sandbox sandbox;
  const std::string file = sandbox.root() + "/f";
  sandbox.write(file, "x");
  fs::resize_file(file, SmallFile::limit);
  EXPECT_EQ(SmallFile::read(file)->size(), SmallFile::limit);
  fs::resize_file(file, SmallFile::limit + 1);
  EXPECT_FALSE(SmallFile::read(file));
  EXPECT_EQ(jsonLines(sandbox.diagnostics()).at(0).text("message"), "too large to read: " + file);
}

TEST(Lines, ThatAreTooLongArePassedOver) {
  Sandbox sandbox;
  const std::string file = sandbox.root() + "/f";
  sandbox.write(file, "first\n");
  fs::resize_file(file, Files::longestLine + 1'000'000);
  ASSERT_EQ(std::system(("printf 'end of it\\nlast' >> " + file).c_str()), 0);
  std::vector<std::string> lines;
  EXPECT_TRUE(Files::forEachLine(file, 0, [&](std::string_view line) {
    lines.emplace_back(line.substr(0, 10));
    return true;
  }));
  EXPECT_EQ(lines, words("first last"));
}

class WithoutARun : public SessionFixture {};

TEST_F(WithoutARun, TheRulesAndTheFailDefaultDecideWhereTheyAreToldTo) {
  // ~/.obrisk/guard.json ¦ the project's guard.json ¦ fail default ¦ command ¦ the decision
  for (const auto& row : rows(R"(
                                     ¦                            ¦ deny  ¦ rm -rf / ¦ continue
                                     ¦ {"guard_without_run":true} ¦ deny  ¦ rm -rf / ¦ continue
      {"guard_without_run":false}    ¦                            ¦ deny  ¦ rm -rf / ¦ continue
      {"guard_without_run":true}     ¦                            ¦ allow ¦ rm -rf / ¦ deny
      {"guard_without_run":true}     ¦                            ¦ allow ¦ rm -rf x ¦ ask
      {"guard_without_run":true}     ¦                            ¦ allow ¦ ls       ¦ continue
      {"guard_without_run":true}     ¦                            ¦ ask   ¦ ls       ¦ ask
      {"guard_without_run":true}     ¦                            ¦ deny  ¦ ls       ¦ deny
      {"guard_without_run":true}     ¦ {"warn_command_patterns":["ls"]} ¦ allow ¦ ls ¦ ask
      )")) {
    if (!row[0].empty()) sandbox.write(sandbox.home() + "/.obrisk/guard.json", row[0]);
    sandbox.write(sandbox.project() + "/.obrisk/guard.json", row[1]);
    sandbox.set("OBRISK_POLICY_CHECK_FAIL_DEFAULT", row[2]);
    const auto result =
        sandbox.run({}, event("PreToolUse", {{"cwd", sandbox.project()},
                                             {"tool_name", "Bash"},
                                             {"tool_input", Json::Object{{"command", row[3]}}}}));
    EXPECT_NE(
        result.output.find(row[4] == "continue" ? "continue" : "\"permissionDecision\":\"" + row[4] + "\""),
        std::string::npos)
        << row[0] << row[1] << row[2] << row[3] << " " << result.output;
  }
}

TEST_F(WithoutARun, ARunWhoseRecordCannotBeSavedIsGoneOnWith) {
  sandbox.configure(plane.url(), "reviewer");
  sandbox.write(sandbox.home() + "/.obrisk/guard.json", R"({"guard_without_run":true})");
  sandbox.write(sandbox.state(), "a file in place of the directory");
  plane.on("*/policy-check/", Json::Object{{"action", "block"}});
  const auto call =
      event("PreToolUse", {{"tool_name", "Bash"}, {"tool_input", Json::Object{{"command", "ls"}}}});
  EXPECT_NE(sandbox.run({}, call).output.find("Obrisk policy blocked"), std::string::npos);
  EXPECT_EQ(jsonLines(sandbox.diagnostics()).size(), 1u) << "what prevents a save is said once";
}

TEST_F(WithoutARun, ARefusedStartIsSaidOnce) {
  sandbox.configure(plane.url(), "reviewer");
  for (const int status : {401, 403, 404}) {
    plane.on("*", FakeControlPlane::status(status));
    EXPECT_EQ(sandbox.run({}, event("SessionStart")).error.empty(), status == 404);
    EXPECT_EQ(sandbox.run({}, event("UserPromptSubmit")).error, "");
  }
  EXPECT_EQ(jsonLines(sandbox.diagnostics()).size(), 2u);
}

}  // namespace
