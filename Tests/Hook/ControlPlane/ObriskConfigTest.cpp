#include "Hook/ControlPlane/ObriskConfig.h"

#include <gtest/gtest.h>

#include "Platform/Files.h"
#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"

namespace {

using Profiles = ObriskHookConfig::Profiles;
using Environment = std::map<std::string, std::string>;

class ObriskConfigTest : public testing::Test {
 protected:
  void profile(const std::string& content) { sandbox.write(sandbox.home() + "/.obrisk/config", content); }

  ObriskHookConfig load(const std::optional<std::string>& requested = std::nullopt) {
    return ObriskHookConfig::load(requested, "claude", sandbox.root() + "/identity.json");
  }

  Sandbox sandbox;
};

struct GrammarRow {
  const char* name;
  std::string content;
  Profiles profiles;
};

TEST_F(ObriskConfigTest, TheProfileFileIsReadByItsGrammar) {
  const GrammarRow rows[] = {
      {"nothing", "", {}},
      {"sections and keys",
       "[a]\nk=v\n[b]\nk=w\nl=x",
       {{"a", {{"k", "v"}}}, {"b", {{"k", "w"}, {"l", "x"}}}}},
      {"white space around everything", "\t [ a ] \n \tk\t = \tv \n", {{"a", {{"k", "v"}}}}},
      {"Unicode space separators", "\u3000[\u00a0a\u2003]\nk\u2009=\u00a0v\u3000", {{"a", {{"k", "v"}}}}},
      {"a comment line", "[a]\n# k=v\n  #k=w\nl=x", {{"a", {{"l", "x"}}}}},
      {"no trailing comment", "[a]\nk=v # no", {{"a", {{"k", "v # no"}}}}},
      {"keys before a section", "k=v\n[a]\n", {{"a", {}}}},
      {"lines without an equals sign", "[a]\nkey\n[a\nb]\n", {{"a", {}}}},
      {"the first equals sign splits", "[a]\nk=v=w\n", {{"a", {{"k", "v=w"}}}}},
      {"an empty key and an empty value", "[a]\n=v\nk=\n", {{"a", {{"", "v"}, {"k", ""}}}}},
      {"an empty section name", "[]\nk=v\n", {{"", {{"k", "v"}}}}},
      {"a header with an equals sign", "[a=b]\nk=v\n", {{"a=b", {{"k", "v"}}}}},
      {"a bracket within", "[a]]\nk=v\n", {{"a]", {{"k", "v"}}}}},
      {"a header with text after it", "[a]\n[b] x\nk=v\n", {{"a", {{"k", "v"}}}}},
      {"all double quotes go",
       "[a]\nk=\"\"v\"\nl='w'\nm=\"\"\n",
       {{"a", {{"k", "v"}, {"l", "'w'"}, {"m", ""}}}}},
      {"quotes within stay", "[a]\nk=\"v\"w\"\n", {{"a", {{"k", "v\"w"}}}}},
      {"space inside quotes stays", "[a]\nk=\"  v  \"\n", {{"a", {{"k", "  v  "}}}}},
      {"keys in quotes keep them", "[a]\n\"k\"=v\n", {{"a", {{"\"k\"", "v"}}}}},
      {"the later key holds", "[a]\nk=v\nk=w\n", {{"a", {{"k", "w"}}}}},
      {"the later section discards", "[a]\nk=v\n[b]\n[a]\nl=w\n", {{"a", {{"l", "w"}}}, {"b", {}}}},
      {"names differ in case", "[a]\nk=v\nK=w\n[A]\n", {{"a", {{"K", "w"}, {"k", "v"}}}, {"A", {}}}},
      {"line ends of Windows", "[a]\r\nk=v\r\n\r\n", {{"a", {{"k", "v"}}}}},
      {"bytes that are not UTF-8", "[a]\nk=v\n#\xff\n", {}},
      {"beyond ASCII", "[\u00e9]\nk=\u65e5\n", {{"\u00e9", {{"k", "\u65e5"}}}}},
  };
  for (const auto& row : rows) {
    profile(row.content);
    EXPECT_EQ(ObriskHookConfig::parseConfigFile(), row.profiles) << row.name;
  }
}

TEST_F(ObriskConfigTest, AProfileFileThatCannotBeReadHasNoSections) {
  EXPECT_EQ(ObriskHookConfig::parseConfigFile(), Profiles{});
  Files::makeDirectories(sandbox.home() + "/.obrisk/config");
  EXPECT_EQ(ObriskHookConfig::parseConfigFile(), Profiles{});
}

struct LoadRow {
  const char* name;
  Environment environment;
  std::string profile;
  std::optional<std::string> requested;
  ObriskHookConfig expected;
};

TEST_F(ObriskConfigTest, EachValueComesFromTheFirstSourceThatHasIt) {
  const std::string whole = "[default]\napi_url=u\napi_key=k\nagent_slug=s\npolicy_check_fail_default=ask\n";
  const LoadRow rows[] = {
      {"no source", {}, "", {}, {"", "", "", "allow"}},
      {"one profile", {}, whole, {}, {"u", "k", "s", "ask"}},
      {"a requested profile that is not there", {}, whole, "cursor", {"", "", "", "allow"}},
      {"an empty requested profile", {}, whole, "", {"u", "k", "s", "ask"}},
      {"a requested profile hides the others", {}, whole + "[x]\napi_url=v\n", "x", {"v", "", "", "allow"}},
      {"the default profiles in their order",
       {},
       "[default]\napi_url=4\nagent_slug=s4\n[connect]\napi_key=3\nagent_slug=s3\n[claude-cowork]\napi_key=2\n"
       "[claude-code]\nagent_slug=s1\n",
       {},
       {"4", "2", "s1", "allow"}},
      {"no further profile once endpoint and key are known",
       {},
       "[claude-code]\napi_url=1\napi_key=k1\n" + whole,
       {},
       {"1", "k1", "", "allow"}},
      {"an empty value does not count",
       {},
       "[claude-code]\napi_url=\"\"\n" + whole,
       {},
       {"u", "k", "s", "ask"}},
      {"endpoint and key are trimmed at the end",
       {},
       "[default]\napi_url=\" u \"\napi_key=\"  k1\t\"\n",
       {},
       {"u", "k1", "", "allow"}},
      {"the environment stands over the file",
       {{"OBRISK_API_URL", " v "}, {"OBRISK_API_KEY", "\tl "}, {"OBRISK_AGENT_SLUG", " t "}},
       whole,
       {},
       {"v", "l", "t", "ask"}},
      {"empty variables do not count",
       {{"OBRISK_API_URL", ""}, {"OBRISK_API_KEY", ""}},
       whole,
       {},
       {"u", "k", "s", "ask"}},
      {"a blank variable counts and is trimmed away",
       {{"OBRISK_API_URL", " "}, {"OBRISK_API_KEY", " "}},
       whole,
       {},
       {"", "", "s", "ask"}},
      {"the agent's own slug comes first",
       {{"CLAUDE_CODE_AGENT_SLUG", "c"}, {"OBRISK_AGENT_SLUG", "o"}},
       whole,
       {},
       {"u", "k", "c", "ask"}},
      {"an empty slug of its own hides the other",
       {{"CLAUDE_CODE_AGENT_SLUG", ""}, {"OBRISK_AGENT_SLUG", "o"}},
       whole,
       {},
       {"u", "k", "s", "ask"}},
      {"a blank slug replaces nothing", {{"OBRISK_AGENT_SLUG", " \t"}}, whole, {}, {"u", "k", "s", "ask"}},
      {"a project is added", {{"OBRISK_PROJECT_KEY", " a1b2 "}}, whole, {}, {"u", "k", "s-proj-a1b2", "ask"}},
      {"a project that is there already is not",
       {{"OBRISK_PROJECT_KEY", "a1"}, {"OBRISK_AGENT_SLUG", "s-proj-a1b2"}},
       whole,
       {},
       {"u", "k", "s-proj-a1b2", "ask"}},
      {"a project in other letters is another",
       {{"OBRISK_PROJECT_KEY", "A1"}, {"OBRISK_AGENT_SLUG", "s-proj-a1"}},
       whole,
       {},
       {"u", "k", "s-proj-a1-proj-A1", "ask"}},
      {"no project without a slug",
       {{"OBRISK_PROJECT_KEY", "a1"}},
       "[default]\napi_url=u\n",
       {},
       {"u", "", "", "allow"}},
      {"a blank project is none", {{"OBRISK_PROJECT_KEY", " "}}, whole, {}, {"u", "k", "s", "ask"}},
      {"the fail default of the environment",
       {{"OBRISK_POLICY_CHECK_FAIL_DEFAULT", " Deny\t"}},
       whole,
       {},
       {"u", "k", "s", "deny"}},
      {"an unknown one is ignored",
       {{"OBRISK_POLICY_CHECK_FAIL_DEFAULT", "block"}},
       whole,
       {},
       {"u", "k", "s", "ask"}},
      {"an unknown one of the file too",
       {{"OBRISK_POLICY_CHECK_FAIL_DEFAULT", "block"}},
       "[default]\npolicy_check_fail_default=never\n",
       {},
       {"", "", "", "allow"}},
      {"the file's in capitals", {}, "[default]\npolicy_check_fail_default=DENY\n", {}, {"", "", "", "deny"}},
      {"the file's with space in its quotes",
       {},
       "[default]\npolicy_check_fail_default=\" deny\"\n",
       {},
       {"", "", "", "allow"}},
  };
  for (const auto& row : rows) {
    for (const auto& [name, value] : row.environment)
      sandbox.set(name, value);
    profile(row.profile);
    const auto config = load(row.requested);
    EXPECT_EQ(config.apiUrl, row.expected.apiUrl) << row.name;
    EXPECT_EQ(config.apiKey, row.expected.apiKey) << row.name;
    EXPECT_EQ(config.agentSlug, row.expected.agentSlug) << row.name;
    EXPECT_EQ(config.policyCheckFailDefault, row.expected.policyCheckFailDefault) << row.name;
    for (const auto& [name, value] : row.environment)
      sandbox.unset(name);
  }
}

TEST_F(ObriskConfigTest, OnlyEndpointAndKeyTogetherConfigure) {
  EXPECT_TRUE((ObriskHookConfig{"u", "k", "", ""}).isConfigured());
  EXPECT_FALSE((ObriskHookConfig{"u", "", "s", "allow"}).isConfigured());
  EXPECT_FALSE((ObriskHookConfig{"", "k", "s", "allow"}).isConfigured());
}

class EnrolledTest : public ObriskConfigTest {
 protected:
  EnrolledTest() {
    sandbox.write(sandbox.root() + "/identity.json",
                  R"({"device_token":"t","tenant_slug":"a","api_url":")" + server.url() + "\"}");
    profile("[default]\napi_url=u\napi_key=k\nagent_slug=s\npolicy_check_fail_default=deny\n");
    answer(" slug ");
  }

  void answer(const std::string& slug) {
    server.on("*", Json::Object{{"upload_api_key", " key "}, {"agent_slug", slug}, {"api_url", " url "}});
  }

  FakeControlPlane server;
};

TEST_F(EnrolledTest, TheDevicesIdentityStandsAloneAndAsItIs) {
  sandbox.set("OBRISK_API_KEY", "");
  sandbox.set("OBRISK_API_URL", "other");
  sandbox.set("OBRISK_AGENT_SLUG", "other");
  sandbox.set("OBRISK_PROJECT_KEY", "a1");
  sandbox.set("OBRISK_POLICY_CHECK_FAIL_DEFAULT", "ask");
  const ObriskHookConfig expected{" url ", " key ", " slug ", "allow"};
  EXPECT_EQ(load(), expected);
  EXPECT_EQ(load("default"), expected) << "a requested profile does not go around it";
  EXPECT_EQ(server.requests().at(0).target, "/api/obrisk/v1/endpoint/agent-config/?process=claude");
}

TEST_F(EnrolledTest, AnIdentityWithoutASlugIsNotUsed) {
  answer("");
  EXPECT_EQ(load(), (ObriskHookConfig{"u", "k", "s", "deny"}));
}

TEST_F(EnrolledTest, AKeyInTheEnvironmentLeavesTheDeviceAlone) {
  sandbox.set("OBRISK_API_KEY", "e");
  EXPECT_EQ(load(), (ObriskHookConfig{"u", "e", "s", "deny"}));
  EXPECT_EQ(server.connections(), 0);
}

}  // namespace
