#include "Hook/Agents/ClaudeInstaller.h"

#include <gtest/gtest.h>

#include <set>

#include "Tests/Support/Sandbox.h"

namespace {

const std::string binary = "/opt/tools/quib-hook";

class ClaudeSettings : public testing::Test {
 protected:
  std::string file() const { return sandbox.home() + "/.claude/settings.json"; }
  std::string settings() const { return contentOf(file()); }
  Json::Object hooks() const { return parsed(settings()).object("hooks"); }

  Sandbox sandbox;
};

TEST_F(ClaudeSettings, MatchesEveryToolAndNothingElse) {
  ASSERT_TRUE(ClaudeInstaller::install(binary));
  const std::string command =
      R"([{"hooks":[{"command":"'\/opt\/tools\/quib-hook'","timeout":1320,"type":"command"}])";
  const std::set<std::string> toolEvents{"PreToolUse", "PostToolUse", "PostToolUseFailure",
                                         "PermissionRequest", "PermissionDenied"};
  EXPECT_EQ(hooks().size(), 25u);
  EXPECT_FALSE(hooks().find("WorktreeCreate")) << "a hook would have to create the worktree itself";
  for (const auto& [event, groups] : hooks())
    EXPECT_EQ(groups.compact(), command + (toolEvents.contains(event) ? R"(,"matcher":"*"}])" : "}]"))
        << event;
  for (const std::string& event : toolEvents)
    EXPECT_TRUE(hooks().find(event)) << event;
  EXPECT_EQ(settings(), Json(parsed(settings())).pretty() + "\n") << "a new file is laid out like any other";
}

// Under an event that this hook does not register, so that only what was there shows.
TEST_F(ClaudeSettings, KeepsTheCommandsOfOtherToolsAsTheyAreSpelled) {
  const char* same = nullptr;
  const struct {
    const char* sentence;
    const char* before;
    const char* after;
  } rows[] = {
      {"another tool's group", R"([{"matcher":"Bash","hooks":[{"type":"command","command":"/lint"}]}])",
       same},
      {"an older command leaves its group",
       R"([{"matcher":"*","hooks":[{"command":"quib-hook --x"},{"command":"l","n":1e400}],"n":1.50}])",
       R"([
      {"matcher":"*","hooks":[
          {"command":"l","n":1e400}
        ],"n":1.50}
    ])"},
      {"a group that it leaves empty goes",
       R"([{"hooks":[{"command":"a"}]} , {"matcher":"*","hooks":[{"command":"/a/quib-hook"}]}])",
       R"([
      {"hooks":[{"command":"a"}]}
    ])"},
      {"an event that it leaves empty", R"([{"hooks":[{"command":"/a/quib-hook"}]}])", "[]"},
      {"what was empty before", R"([{"hooks":[]},{}])", same},
      {"an empty event", "[ ]", same},
      {"what is not understood",
       R"(["quib-hook",{"hooks":"quib-hook"},{"hooks":["quib-hook",{"command":7}]}])", same},
      {"what would not survive rewriting",
       R"([{"n":[9223372036854775808,1e400,0.10],"s":"\ud800\/ ]}\"","d":1, "d":[{}, 2]}])", same},
      {"what another event of the same name hides", R"([1,[],"WorktreeCreate"],"WorktreeCreate":[])", same},
  };
  for (const auto& [sentence, before, after] : rows) {
    const std::string start = R"({"hooks":{"WorktreeCreate":)";
    sandbox.write(file(), start + before + "}}");
    ASSERT_TRUE(ClaudeInstaller::install(binary)) << sentence;
    EXPECT_TRUE(settings().starts_with(start + (after ? after : before) + ",\n")) << sentence << settings();
    EXPECT_EQ(hooks().size(), 26u) << sentence;
  }
}

// "@" stands for what is written; in the last row for the group of this hook, after those of other tools.
TEST_F(ClaudeSettings, LeavesEveryOtherByteOfTheFile) {
  const std::pair<const char*, const char*> rows[] = {
      {"{}", "{\n  \"hooks\": @\n}"},
      {" { \n } \n", " {\n  \"hooks\": @\n} \n"},
      {"{\"a\":1}", "{\"a\":1,\n  \"hooks\": @}"},
      {"{\n\t\"z\": 1.0,\n\t\"a\": [1e5, 12345678901234567890, 0.10]\n}\n",
       "{\n\t\"z\": 1.0,\n\t\"a\": [1e5, 12345678901234567890, 0.10],\n  \"hooks\": @\n}\n"},
      {"{\"a\":\"\\ud800 \\\"}\",\"hooks\" : { } ,\"b\":\"x\\\\\"}",
       "{\"a\":\"\\ud800 \\\"}\",\"hooks\" : @ ,\"b\":\"x\\\\\"}"},
      {"{\"hooks\":{},\"b\":-1E400 , \"c\":{\"hooks\":{\"Stop\":5}}}",
       "{\"hooks\":@,\"b\":-1E400 , \"c\":{\"hooks\":{\"Stop\":5}}}"},
      {"{\"a\":{\"b\":[\"]}\",{}]},\"h\\u006foks\":{}}", "{\"a\":{\"b\":[\"]}\",{}]},\"h\\u006foks\":@}"},
      {"{\"hooks\":1,\"a\":null,\"hooks\":{}}", "{\"hooks\":1,\"a\":null,\"hooks\":@}"},
      {"{\"a\":true\n,\"b\":false}", "{\"a\":true\n,\"b\":false,\n  \"hooks\": @}"},
      {"{\"hooks\":{\"Stop\":[{\"hooks\":[{\"command\":\"/old/quib-hook\"}]},{\"hooks\" : []}]}}",
       "{\"hooks\":{\"Stop\":[\n      {\"hooks\" : []},\n      @\n    ],\n    \"ConfigChange\": @}}"},
  };
  for (const auto& [before, after] : rows) {
    sandbox.write(file(), before);
    ASSERT_TRUE(ClaudeInstaller::install(binary)) << before;
    const std::string first = settings(), expected = after;
    EXPECT_TRUE(first.starts_with(expected.substr(0, expected.find('@')))) << first;
    EXPECT_TRUE(first.ends_with(expected.substr(expected.rfind('@') + 1))) << first;
    EXPECT_EQ(hooks().size(), 25u) << first;
    EXPECT_TRUE(ClaudeInstaller::install(binary));
    EXPECT_EQ(settings(), first);
  }
}

TEST_F(ClaudeSettings, LeavesAFileAloneThatItCannotUnderstand) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "the present file is not a JSON object"},
      {R"({"hooks":{},})", "the present file is not a JSON object"},
      {R"([{"hooks":{}}])", "the present file is not a JSON object"},
      {"{\"a\":\"\xFF\"}", "the present file is not a JSON object"},
      {R"({"hooks":[]})", "its \"hooks\" is not an object"},
      {R"({"hooks":null})", "its \"hooks\" is not an object"},
      {R"({"hooks":{"Stop":{"command":"a"}}})", "an event in its \"hooks\" has no list"},
      {R"({"hooks":{"NoSuchEvent":"a"}})", "an event in its \"hooks\" has no list"},
  };
  for (const auto& [before, why] : rows) {
    sandbox.write(file(), before);
    EXPECT_FALSE(ClaudeInstaller::install(binary)) << before;
    EXPECT_EQ(settings(), before);
    const Json::Object record = jsonLines(sandbox.diagnostics()).back();
    EXPECT_EQ(record.text("level") + " " + record.text("category"), "error hook.claude");
    EXPECT_EQ(record.text("message"), std::string("failed to write ~/.claude/settings.json: ") + why);
    EXPECT_EQ(Sandbox::tree(sandbox.home() + "/.claude"), std::vector<std::string>{"settings.json"})
        << before;
  }
}

}  // namespace
