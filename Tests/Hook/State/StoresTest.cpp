#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>

#include "Hook/State/SessionStore.h"
#include "Hook/Transcript/LLMCallDedupe.h"
#include "Platform/Files.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

namespace {

namespace fs = std::filesystem;
using Ids = std::set<std::string>;

constexpr const char* example =
    R"({"cost_overage_emitted":false,"cowork_session_id":"","cwd":"\/Users\/dev\/proj","is_cowork":false,)"
    R"("is_daily_session":false,"model":"sonnet","modified_files":["\/Users\/dev\/proj\/a.txt"],)"
    R"("pending_subagent_spans":{"a":{"x":[1,true,null,"s",2.5]}},"recorded_llm_ids":[],"run_id":"run_123",)"
    R"("session_id":"abc-123","span_count":4,"started_at":"2026-01-31T09:15:00.123Z","transcript_offset":0,)"
    R"("workflow_id":""})";

void age(const std::string& path, int hours) {
  fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(hours));
}

TEST(SessionState, IsWrittenAsItWasReadAndRequiresEveryFieldOfItsType) {
  const Json::Object whole = parsed(example);
  const auto read = SessionState::fromJSON(whole);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->span_count, 4);
  EXPECT_EQ(read->modified_files, std::vector<std::string>{"/Users/dev/proj/a.txt"});
  EXPECT_EQ(Json(read->toJSON()).compact(), example);
  EXPECT_EQ(SessionState().toJSON().size(), 15u);
  for (const auto& [key, value] : whole) {
    Json::Object missing = whole, null = whole;
    missing.take(key);
    null.set(key, nullptr);
    EXPECT_FALSE(SessionState::fromJSON(missing)) << "without " << key;
    EXPECT_FALSE(SessionState::fromJSON(null)) << "null " << key;
  }
  for (const std::string member :
       {R"("span_count":"4")", R"("span_count":4.5)", R"("is_cowork":1)", R"("modified_files":"x")",
        R"("modified_files":["x",1])", R"("pending_subagent_spans":[])", R"("run_id":7)"}) {
    Json::Object object = whole;
    for (const auto& [key, value] : parsed("{" + member + "}"))
      object.set(key, value);
    EXPECT_FALSE(SessionState::fromJSON(object)) << member;
  }
  Json::Object more = whole;
  more.set("unknown", 1);
  more.set("span_count", 4.0);
  EXPECT_EQ(Json(SessionState::fromJSON(more)->toJSON()).compact(), example);
}

TEST(Stores, KnowTheirPlaces) {
  Sandbox sandbox;
  // OBRISK_CC_STATE_DIR ¦ OBRISK_PROJECT_KEY ¦ the state directory ¦ the directory of the ids
  for (const auto& row : rows(R"(
               ¦           ¦ /tmp/obrisk-cc           ¦
               ¦ ␠ acme ␉  ¦ /tmp/obrisk-cc/proj-acme ¦ acme/
      /x y/ ␠  ¦           ¦ /x y/ ␠                  ¦
      /x       ¦ ␠␉␠       ¦ /x                       ¦
      /x       ¦ a/../b    ¦ /x/proj-a/../b           ¦ a/../b/
      /x       ¦ ␊a k␊     ¦ /x/proj-␊a k␊            ¦ ␊a k␊/
      )")) {
    sandbox.set("OBRISK_CC_STATE_DIR", row[0]);
    sandbox.set("OBRISK_PROJECT_KEY", row[1]);
    EXPECT_EQ(SessionStore::scopedStateDir(), row[2]);
    EXPECT_EQ(LLMCallDedupe::path("r"), sandbox.home() + "/.obrisk/cc-dedupe/" + row[3] + "r.json");
  }
  sandbox.unset("OBRISK_CC_STATE_DIR");
  sandbox.unset("OBRISK_PROJECT_KEY");
  EXPECT_EQ(SessionStore::scopedStateDir(), "/tmp/obrisk-cc");
}

TEST(SessionStore, SavesOneFileForTheUserAlone) {
  Sandbox sandbox;
  sandbox.set("OBRISK_CC_STATE_DIR", sandbox.state() + "/deep");
  const auto read = *SessionState::fromJSON(parsed(example));
  ASSERT_FALSE(SessionStore::save(read));
  ASSERT_FALSE(SessionStore::save(read));
  EXPECT_EQ(contentOf(sandbox.state() + "/deep/abc-123.json"), example);
  EXPECT_EQ(Sandbox::tree(sandbox.state()), words("deep deep/abc-123.json"));
  EXPECT_EQ(fs::status(sandbox.state()).permissions(), fs::perms::owner_all);
  EXPECT_EQ(Files::mode(sandbox.state() + "/deep/abc-123.json"), 0600u);
  EXPECT_EQ(SessionStore::load("abc-123"), read);
  for (const char* id : {"", "none", "abc-123"})
    SessionStore::remove(id);
  EXPECT_EQ(Sandbox::tree(sandbox.state()), words("deep"));
}

TEST(SessionStore, ReportsWhatPreventedASave) {
  Sandbox sandbox;
  SessionState state;
  state.session_id = "s";
  sandbox.write(sandbox.state(), "a file");
  EXPECT_TRUE(SessionStore::save(state));
  EXPECT_TRUE(
      jsonLines(sandbox.diagnostics()).at(0).text("message").starts_with("session record not saved: "));
  fs::remove(sandbox.state());
  fs::create_directories(sandbox.stateFile("s"));
  EXPECT_TRUE(SessionStore::save(state));
  EXPECT_EQ(Sandbox::tree(sandbox.state()), words("s.json s.json.tmp")) << "what cannot be moved stays";
  EXPECT_EQ(jsonLines(sandbox.diagnostics()).size(), 2u);
  state.session_id = "no/such/directory";
  EXPECT_TRUE(SessionStore::save(state));
  EXPECT_TRUE(SessionStore::save(state));
  EXPECT_EQ(jsonLines(sandbox.diagnostics()).size(), 3u) << "said once";
}

TEST(SessionStore, CleansUpWhatWasNotTouchedForADay) {
  Sandbox sandbox;
  EXPECT_EQ(SessionStore::cleanupStale(), 0);
  for (const std::string& name : words("old.json young.json old.jsonl old.json.tmp old.JSON .json .quib-old "
                                       ".quib-young proj-x/old.json held.json/inside")) {
    sandbox.write(sandbox.state() + "/" + name, "anything");
    age(sandbox.state() + "/" + name, name.find("young") != name.npos ? 23 : 25);
  }
  age(sandbox.state() + "/held.json", 25);
  sandbox.write(sandbox.state() + "/future.json", "");
  const timespec future[2] = {{10'413'792'000, 0}, {10'413'792'000, 0}};  // the year 2300
  ASSERT_EQ(::utimensat(AT_FDCWD, (sandbox.state() + "/future.json").c_str(), future, 0), 0);
  EXPECT_EQ(SessionStore::cleanupStale(), 2) << "one that cannot be removed counts";
  EXPECT_EQ(
      Files::list(sandbox.state()),
      words(".json .quib-young future.json held.json old.JSON old.json.tmp old.jsonl proj-x young.json"));
}

TEST(SessionStore, FindsThePeerInTheDirectory) {
  Sandbox sandbox;
  EXPECT_FALSE(SessionStore::findCoworkPeer("/w", "me"));
  for (const auto& row : rows(R"(
      a  ¦ /w/ ¦ run
      b  ¦ /w  ¦
      me ¦ /w  ¦ run
      y  ¦ /w  ¦ run
      z  ¦ /w  ¦ run
      e  ¦     ¦ run
      )")) {
    SessionState state;
    std::tie(state.session_id, state.cwd, state.run_id) = std::tie(row[0], row[1], row[2]);
    ASSERT_FALSE(SessionStore::save(state));
  }
  sandbox.write(sandbox.state() + "/broken.json", "{");
  sandbox.write(sandbox.state() + "/c.jsonl", contentOf(sandbox.stateFile("z")));
  EXPECT_EQ(SessionStore::findCoworkPeer("/w", "me")->session_id, "y");
  EXPECT_EQ(SessionStore::findCoworkPeer("/w", "y")->session_id, "me");
  EXPECT_FALSE(SessionStore::findCoworkPeer("/W", "me"));
  EXPECT_FALSE(SessionStore::findCoworkPeer("", "me"));
}

TEST(LLMCallDedupe, KeepsTheIdsOfARunSortedInAFileOfItsOwn) {
  Sandbox sandbox;
  const std::string directory = sandbox.home() + "/.obrisk/cc-dedupe";
  EXPECT_EQ(LLMCallDedupe::load("run_1"), Ids());
  LLMCallDedupe::save("run_1", {"b", "a", "B", "x/y", "é"});
  LLMCallDedupe::save("run_2", {"c"});
  EXPECT_EQ(contentOf(directory + "/run_1.json"), R"(["B","a","b","x\/y","é"])");
  LLMCallDedupe::save("run_1", {"z"});
  EXPECT_EQ(LLMCallDedupe::load("run_1"), Ids{"z"}) << "a save replaces what was there";
  EXPECT_EQ(Sandbox::tree(directory), words("run_1.json run_2.json"));
  sandbox.write(directory + "/.json", R"(["a"])");
  LLMCallDedupe::save("", {"b"});
  EXPECT_EQ(contentOf(directory + "/.json"), R"(["a"])") << "the empty run has no ids";
  EXPECT_EQ(LLMCallDedupe::load(""), Ids());
}

TEST(LLMCallDedupe, ReadsADamagedFileAsNoIdsAndKeepsAFileThatItCannotReplace) {
  Sandbox sandbox;
  const std::string path = LLMCallDedupe::path("r").value();
  for (const std::string content :
       {"", R"(["a",1])", R"(["a")", R"({"a":1})", R"("a")", "[\"\xFF\"]", "[]"}) {
    sandbox.write(path, content);
    EXPECT_EQ(LLMCallDedupe::load("r"), Ids()) << content;
  }
  sandbox.write(path, R"(["b","a","b"])");
  fs::create_directories(path + ".tmp/full");
  LLMCallDedupe::save("r", {"c"});
  EXPECT_EQ(LLMCallDedupe::load("r"), (Ids{"a", "b"}));
  fs::remove_all(path + ".tmp");
  sandbox.write(path + ".tmp", "left behind by a kill");
  LLMCallDedupe::save("r", {"c"});
  EXPECT_EQ(LLMCallDedupe::load("r"), Ids{"c"});
  EXPECT_FALSE(fs::exists(path + ".tmp"));
  sandbox.set("OBRISK_PROJECT_KEY", "r.json");
  LLMCallDedupe::save("r", {"a"});
  EXPECT_EQ(LLMCallDedupe::load("r"), Ids()) << "a file where the directory should be";
}

}  // namespace
