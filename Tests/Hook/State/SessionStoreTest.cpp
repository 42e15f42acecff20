#include "Hook/State/SessionStore.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>

#include "Platform/Files.h"
#include "Tests/Support/Sandbox.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* example =
    R"({"cost_overage_emitted":false,"cowork_session_id":"","cwd":"\/Users\/dev\/proj","is_cowork":false,)"
    R"("is_daily_session":false,"model":"claude-sonnet-4-5-20250929","modified_files":["\/Users\/dev\/proj\/a.txt"],)"
    R"("pending_subagent_spans":{"a":{"x":[1,true,null,"s",2.5]}},"recorded_llm_ids":[],"run_id":"run_123",)"
    R"("session_id":"abc-123","span_count":4,"started_at":"2026-01-31T09:15:00.123Z","transcript_offset":0,)"
    R"("workflow_id":""})";

SessionState state(const std::string& sessionID, const std::string& cwd = "",
                   const std::string& runID = "run") {
  SessionState result;
  result.session_id = sessionID;
  result.run_id = runID;
  result.cwd = cwd;
  return result;
}

void age(const std::string& path, std::chrono::hours hours) {
  fs::last_write_time(path, fs::file_time_type::clock::now() - hours);
}

TEST(SessionState, IsWrittenAsItWasRead) {
  auto read = SessionState::fromJSON(parsed(example));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->span_count, 4);
  EXPECT_EQ(read->modified_files, std::vector<std::string>{"/Users/dev/proj/a.txt"});
  EXPECT_EQ(Json(read->toJSON()).compact(), example);
  EXPECT_EQ(SessionState().toJSON().size(), 15u);
}

TEST(SessionState, RequiresEveryFieldOfItsType) {
  const Json::Object whole = parsed(example);
  for (const auto& [key, value] : whole) {
    Json::Object missing = whole, null = whole;
    missing.take(key);
    null.set(key, nullptr);
    EXPECT_FALSE(SessionState::fromJSON(missing)) << "without " << key;
    EXPECT_FALSE(SessionState::fromJSON(null)) << "null " << key;
  }
  const std::pair<const char*, Json> wrong[] = {
      {"span_count", "4"},
      {"span_count", 4.5},
      {"is_cowork", 1},
      {"modified_files", "x"},
      {"modified_files", Json::Array{"x", 1}},
      {"pending_subagent_spans", Json::Array{}},
      {"run_id", 7},
  };
  for (const auto& [key, value] : wrong) {
    Json::Object object = whole;
    object.set(key, value);
    EXPECT_FALSE(SessionState::fromJSON(object)) << key << " " << value.compact();
  }
  Json::Object more = whole;
  more.set("unknown", 1);
  more.set("span_count", 4.0);
  EXPECT_EQ(Json(SessionState::fromJSON(more)->toJSON()).compact(), example);
}

TEST(SessionStore, KnowsItsDirectory) {
  struct Row {
    const char* base;
    const char* key;
    const char* directory;
  };
  const Row rows[] = {
      {"", "", "/tmp/obrisk-cc"},         {"", "  acme \t", "/tmp/obrisk-cc/proj-acme"},
      {"/x y/ ", "", "/x y/ "},           {"/x", " \t ", "/x"},
      {"/x", "a/../b", "/x/proj-a/../b"}, {"/x", "\u00a0a", "/x/proj-\u00a0a"},
  };
  Sandbox sandbox;
  for (const Row& row : rows) {
    sandbox.set("OBRISK_CC_STATE_DIR", row.base);
    sandbox.set("OBRISK_PROJECT_KEY", row.key);
    EXPECT_EQ(SessionStore::scopedStateDir(), row.directory);
  }
  sandbox.unset("OBRISK_CC_STATE_DIR");
  sandbox.unset("OBRISK_PROJECT_KEY");
  EXPECT_EQ(SessionStore::scopedStateDir(), "/tmp/obrisk-cc");
}

TEST(SessionStore, SavesOneFileForTheUserAlone) {
  Sandbox sandbox;
  sandbox.set("OBRISK_CC_STATE_DIR", sandbox.state() + "/deep");
  auto read = *SessionState::fromJSON(parsed(example));
  ASSERT_FALSE(SessionStore::save(read));
  ASSERT_FALSE(SessionStore::save(read));
  EXPECT_EQ(contentOf(sandbox.state() + "/deep/abc-123.json"), example);
  EXPECT_EQ(Sandbox::tree(sandbox.state()), (std::vector<std::string>{"deep", "deep/abc-123.json"}));
  EXPECT_EQ(fs::status(sandbox.state()).permissions(), fs::perms::owner_all);
  EXPECT_EQ(Files::mode(sandbox.state() + "/deep/abc-123.json"), 0600u);
  EXPECT_EQ(SessionStore::load("abc-123"), read);

  SessionStore::remove("");
  SessionStore::remove("none");
  SessionStore::remove("abc-123");
  EXPECT_EQ(Sandbox::tree(sandbox.state()), std::vector<std::string>{"deep"});
}

TEST(SessionStore, ReportsWhatPreventedASave) {
  Sandbox sandbox;
  sandbox.write(sandbox.state(), "a file");
  EXPECT_TRUE(SessionStore::save(state("s")));
  EXPECT_NE(jsonLines(sandbox.diagnostics()).at(0).text("message").find("session record not saved: "),
            std::string::npos);
  fs::remove(sandbox.state());
  fs::create_directories(sandbox.stateFile("s"));
  EXPECT_TRUE(SessionStore::save(state("s")));
  EXPECT_TRUE(SessionStore::save(state("no/such/directory")));
}

TEST(SessionStore, CleansUpWhatWasNotTouchedForADay) {
  Sandbox sandbox;
  EXPECT_EQ(SessionStore::cleanupStale(), 0);
  for (const char* name : {"old.json", "young.json", "old.jsonl", "old.json.tmp", "old.JSON", ".json",
                           ".quib-old", ".quib-young"}) {
    std::string path = sandbox.state() + "/" + name;
    sandbox.write(path, "anything");
    age(path, std::chrono::hours(std::string(name).find("young") != std::string::npos ? 23 : 25));
  }
  sandbox.write(sandbox.state() + "/future.json", "");
  timespec future[2] = {{10'413'792'000, 0}, {10'413'792'000, 0}};  // the year 2300
  ASSERT_EQ(::utimensat(AT_FDCWD, (sandbox.state() + "/future.json").c_str(), future, 0), 0);
  sandbox.write(sandbox.state() + "/proj-x/old.json", "");
  age(sandbox.state() + "/proj-x/old.json", std::chrono::hours(25));
  fs::create_directories(sandbox.state() + "/held.json/inside");
  age(sandbox.state() + "/held.json", std::chrono::hours(25));
  EXPECT_EQ(SessionStore::cleanupStale(), 2) << "one that cannot be removed counts";
  EXPECT_EQ(Files::list(sandbox.state()),
            (std::vector<std::string>{".json", ".quib-young", "future.json", "held.json", "old.JSON",
                                      "old.json.tmp", "old.jsonl", "proj-x", "young.json"}));
}

TEST(SessionStore, FindsThePeerInTheDirectory) {
  Sandbox sandbox;
  EXPECT_FALSE(SessionStore::findCoworkPeer("/w", "me"));
  for (const SessionState& each : {state("a", "/w/"), state("b", "/w", ""), state("me", "/w"),
                                   state("y", "/w"), state("z", "/w"), state("e", "")})
    ASSERT_FALSE(SessionStore::save(each));
  sandbox.write(sandbox.state() + "/broken.json", "{");
  sandbox.write(sandbox.state() + "/c.jsonl", contentOf(sandbox.stateFile("z")));
  EXPECT_EQ(SessionStore::findCoworkPeer("/w", "me")->session_id, "y");
  EXPECT_EQ(SessionStore::findCoworkPeer("/w", "y")->session_id, "me");
  EXPECT_FALSE(SessionStore::findCoworkPeer("/W", "me"));
  EXPECT_FALSE(SessionStore::findCoworkPeer("", "me"));
}

}  // namespace
