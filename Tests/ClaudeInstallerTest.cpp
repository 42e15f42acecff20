#include "Hook/ClaudeInstaller.h"

#include <gtest/gtest.h>

#include <set>

#include "Tests/Support/Sandbox.h"

namespace {

const std::string binary = "/opt/tools/quib-hook";

std::string claudeFile(const Sandbox& sandbox) {
  return sandbox.home() + "/.claude/settings.json";
}

Json::Object hooksIn(const Sandbox& sandbox) {
  return parsed(contentOf(claudeFile(sandbox))).object("hooks");
}

std::string text(const Json& value) {
  return value.compact();
}

TEST(ClaudeInstaller, MatchesEveryToolAndNothingElse) {
  Sandbox sandbox;
  ASSERT_TRUE(ClaudeInstaller::install(binary));
  const std::string toolGroup =
      R"([{"hooks":[{"command":"'\/opt\/tools\/quib-hook'","timeout":1320,"type":"command"}],"matcher":"*"}])";
  const std::string group =
      R"([{"hooks":[{"command":"'\/opt\/tools\/quib-hook'","timeout":1320,"type":"command"}]}])";
  const std::set<std::string> toolEvents{"PreToolUse", "PostToolUse", "PostToolUseFailure",
                                         "PermissionRequest", "PermissionDenied"};
  const Json::Object hooks = hooksIn(sandbox);
  EXPECT_EQ(hooks.size(), 25u);
  EXPECT_FALSE(hooks.find("WorktreeCreate")) << "a hook would have to create the worktree itself";
  for (const auto& [event, groups] : hooks)
    EXPECT_EQ(text(groups), toolEvents.contains(event) ? toolGroup : group) << event;
  for (const std::string& event : toolEvents)
    EXPECT_TRUE(hooks.find(event)) << event;
}

// Under an event that this hook does not register, so that only what was there shows.
TEST(ClaudeInstaller, KeepsTheCommandsOfOtherTools) {
  const struct {
    const char* sentence;
    const char* before;
    const char* after;  // empty: the event is dropped
  } rows[] = {
      {"another tool's group stays as it is",
       R"([{"matcher":"Bash","hooks":[{"type":"command","command":"lint","timeout":5}]}])",
       R"([{"hooks":[{"command":"lint","timeout":5,"type":"command"}],"matcher":"Bash"}])"},
      {"an older command leaves its group",
       R"([{"matcher":"*","hooks":[{"command":"quib-hook --x"},{"command":"lint"}]}])",
       R"([{"hooks":[{"command":"lint"}],"matcher":"*"}])"},
      {"a group that it leaves empty goes",
       R"([{"hooks":[{"command":"a"}]},{"matcher":"*","hooks":[{"command":"/a/quib-hook"}]}])",
       R"([{"hooks":[{"command":"a"}]}])"},
      {"an event that it leaves empty goes", R"([{"hooks":[{"command":"/a/quib-hook"}]}])", ""},
      {"what was empty before stays", R"([{"hooks":[]},{}])", R"([{"hooks":[]},{}])"},
      {"an empty event stays", "[]", "[]"},
      {"what is not understood stays",
       R"(["quib-hook",{"hooks":"quib-hook"},{"hooks":["quib-hook",{"command":7}]}])",
       R"(["quib-hook",{"hooks":"quib-hook"},{"hooks":["quib-hook",{"command":7}]}])"},
  };
  for (const auto& row : rows) {
    Sandbox sandbox;
    sandbox.write(claudeFile(sandbox), std::string(R"({"hooks":{"WorktreeCreate":)") + row.before + "}}");
    ASSERT_TRUE(ClaudeInstaller::install(binary)) << row.sentence;
    const Json::Object hooks = hooksIn(sandbox);
    const Json* foreign = hooks.find("WorktreeCreate");
    EXPECT_EQ(foreign ? text(*foreign) : "", row.after) << row.sentence;
    EXPECT_EQ(hooks.size(), foreign ? 26u : 25u) << row.sentence;
  }
}

TEST(ClaudeInstaller, ComesAfterOtherToolsInTheSameEvent) {
  Sandbox sandbox;
  sandbox.write(
      claudeFile(sandbox),
      R"({"hooks":{"Stop":[{"hooks":[{"command":"/old/quib-hook"}]},{"hooks":[{"command":"a"}]}]}})");
  ASSERT_TRUE(ClaudeInstaller::install(binary));
  EXPECT_EQ(
      text(hooksIn(sandbox).list("Stop")),
      R"([{"hooks":[{"command":"a"}]},{"hooks":[{"command":"'\/opt\/tools\/quib-hook'","timeout":1320,"type":"command"}]}])");
}

// "@" stands where the value of "hooks" is written.
TEST(ClaudeInstaller, LeavesEveryOtherByteOfTheFile) {
  const struct {
    const char* before;
    const char* after;
  } rows[] = {
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
  };
  for (const auto& row : rows) {
    Sandbox sandbox;
    sandbox.write(claudeFile(sandbox), row.before);
    ASSERT_TRUE(ClaudeInstaller::install(binary)) << row.before;
    const std::string after = contentOf(claudeFile(sandbox)), expected = row.after;
    const std::size_t at = expected.find('@');
    EXPECT_EQ(after.substr(0, at), expected.substr(0, at));
    EXPECT_TRUE(after.ends_with(expected.substr(at + 1))) << after;
    EXPECT_EQ(parsed(after).object("hooks").size(), 25u) << after;
    EXPECT_TRUE(ClaudeInstaller::install(binary));
    EXPECT_EQ(contentOf(claudeFile(sandbox)), after);
  }
}

TEST(ClaudeInstaller, LeavesAFileAloneThatItCannotUnderstand) {
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
    Sandbox sandbox;
    sandbox.write(claudeFile(sandbox), before);
    EXPECT_FALSE(ClaudeInstaller::install(binary)) << before;
    EXPECT_EQ(contentOf(claudeFile(sandbox)), before);
    const Json::Object record = jsonLines(sandbox.diagnostics()).back();
    EXPECT_EQ(record.text("level") + " " + record.text("category"), "error hook.claude");
    EXPECT_EQ(record.text("message"), std::string("failed to write ~/.claude/settings.json: ") + why);
    EXPECT_EQ(Sandbox::tree(sandbox.home() + "/.claude"), std::vector<std::string>{"settings.json"})
        << before;
  }
}

}  // namespace
