// The configuration: profile file, environment, device.
#include <gtest/gtest.h>

#include "Hook/ControlPlane/ObriskConfig.h"
#include "Platform/Files.h"
#include "Platform/Text.h"
#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

namespace {

struct Config : testing::Test {
  void profile(const std::string& content) { sandbox.write(sandbox.home() + "/.obrisk/config", content); }

  // The sections of a profile file with this content, as "[section]key=value;".
  std::string sections(const std::string& content) {
    profile(content);
    std::string text;
    for (const auto& [name, values] : ObriskHookConfig::parseConfigFile()) {
      text += "[" + name + "]";
      for (const auto& [key, value] : values)
        text.append(key).append("=").append(value).append(";");
    }
    return text;
  }

  // The four values as loaded, each followed by a comma.
  std::string load(const std::optional<std::string>& requested = std::nullopt) {
    const auto config = ObriskHookConfig::load(requested, "claude", sandbox.root() + "/identity.json");
    return config.apiUrl + "," + config.apiKey + "," + config.agentSlug + "," + config.policyCheckFailDefault;
  }

  Sandbox sandbox;
};

TEST_F(Config, TheProfileFileIsReadByItsGrammar) {
  EXPECT_EQ(ObriskHookConfig::parseConfigFile(), ObriskHookConfig::Profiles{});
  for (const auto& row : rows(R"(
∅                                ¦ ∅
[a]␊k=v␊[b]␊k=w␊l=x              ¦ [a]k=v;[b]k=w;l=x;
␉ [ a ] ␊ ␉k␉ = ␉v ␊             ¦ [a]k=v;
[a]␊# k=v␊  #k=w␊l=x             ¦ [a]l=x;
[a]␊k=v # no                     ¦ [a]k=v # no;
k=v␊[a]␊                         ¦ [a]
[a]␊key␊[a␊b]␊                   ¦ [a]
[a]␊k=v=w␊                       ¦ [a]k=v=w;
[a]␊=v␊k=␊                       ¦ [a]=v;k=;
[]␊k=v␊                          ¦ []k=v;
[a=b]␊k=v␊                       ¦ [a=b]k=v;
[a]]␊k=v␊                        ¦ [a]]k=v;
[␊k=v␊                           ¦ ∅
[a]␊[b] x␊k=v␊                   ¦ [a]k=v;
[a]␊k=""v"␊l='w'␊m=""␊n="␊       ¦ [a]k=v;l='w';m=;n=;
[a]␊k="v"w"␊                     ¦ [a]k=v"w;
[a]␊k="  v  "␊                   ¦ [a]k=  v  ;
[a]␊"k"=v␊                       ¦ [a]"k"=v;
[a]␊k=v␊k=w␊                     ¦ [a]k=w;
[a]␊k=v␊[b]␊[a]␊l=w␊             ¦ [a]l=w;[b]
[a]␊k=v␊K=w␊[A]␊                 ¦ [A][a]K=w;k=v;
[a]␍␊k=v␍␊␍␊                     ¦ [a]k=v;
[é]␊k=日␊                        ¦ [é]k=日;
)"))
    EXPECT_EQ(sections(row[0]), row[1]) << row[0];
  EXPECT_EQ(sections("\u3000[\u00a0a\u2003]\nk\u2009=\u00a0v\u3000"), "[a]k=v;");
  EXPECT_EQ(sections("[a]\nk=v\n#\xff\n"), "") << "not UTF-8";
  Files::remove(sandbox.home() + "/.obrisk/config");
  Files::makeDirectories(sandbox.home() + "/.obrisk/config");
  EXPECT_EQ(ObriskHookConfig::parseConfigFile(), ObriskHookConfig::Profiles{});
}

TEST_F(Config, EachValueComesFromTheFirstSourceThatHasIt) {
  const std::string whole = "[default]\napi_url=u\napi_key=k\nagent_slug=s\npolicy_check_fail_default=ask\n";
  for (const auto& row : rows(R"(
∅                                             ¦ ,,,allow      ¦ ∅ ¦ ∅
WHOLE                                         ¦ u,k,s,ask
WHOLE                                         ¦ ,,,allow      ¦ ∅ ¦ cursor
WHOLE                                         ¦ u,k,s,ask     ¦ ∅ ¦ empty
WHOLE[x]␊api_url=v                            ¦ v,,,allow     ¦ ∅ ¦ x
[default]␊api_url=4␊[connect]␊api_key=3␊[claude-cowork]␊api_key=2␊[claude-code]␊agent_slug=1 ¦ 4,2,1,allow
[connect]␊agent_slug=3␊[default]␊agent_slug=4 ¦ ,,3,allow
[claude-code]␊api_url=1␊api_key=2␊WHOLE       ¦ 1,2,,allow
[claude-code]␊api_url=""␊WHOLE                ¦ u,k,s,ask
[default]␊api_url=" u "␊api_key="  k1␉"       ¦ u,k1,,allow
[default]␊policy_check_fail_default=DENY      ¦ ,,,deny
[default]␊policy_check_fail_default=never     ¦ ,,,allow
[default]␊policy_check_fail_default=" deny"   ¦ ,,,allow
WHOLE                                         ¦ v,l,t,ask     ¦ OBRISK_API_URL= v ;OBRISK_API_KEY=␉l ;OBRISK_AGENT_SLUG= t␠
WHOLE                                         ¦ u,k,s,ask     ¦ OBRISK_API_URL=;OBRISK_API_KEY=
WHOLE                                         ¦ ,,s,ask       ¦ OBRISK_API_URL= ;OBRISK_API_KEY=␠
WHOLE                                         ¦ u,k,c,ask     ¦ CLAUDE_CODE_AGENT_SLUG=c;OBRISK_AGENT_SLUG=o
WHOLE                                         ¦ u,k,s,ask     ¦ CLAUDE_CODE_AGENT_SLUG=;OBRISK_AGENT_SLUG=o
WHOLE                                         ¦ u,k,s,ask     ¦ OBRISK_AGENT_SLUG= ␉
WHOLE                                         ¦ u,k,s-proj-a1,ask        ¦ OBRISK_PROJECT_KEY= a1␠
WHOLE                                         ¦ u,k,s-proj-a1b2,ask      ¦ OBRISK_PROJECT_KEY=a1;OBRISK_AGENT_SLUG=s-proj-a1b2
WHOLE                                         ¦ u,k,proj-a1-proj-A1,ask  ¦ OBRISK_PROJECT_KEY=A1;OBRISK_AGENT_SLUG=proj-a1
WHOLE                                         ¦ u,k,s,ask     ¦ OBRISK_PROJECT_KEY=␠
[default]␊api_url=u                           ¦ u,,,allow     ¦ OBRISK_PROJECT_KEY=a1
WHOLE                                         ¦ u,k,s,deny    ¦ OBRISK_POLICY_CHECK_FAIL_DEFAULT= Deny␉
WHOLE                                         ¦ u,k,s,allow   ¦ OBRISK_POLICY_CHECK_FAIL_DEFAULT=allow
WHOLE                                         ¦ u,k,s,ask     ¦ OBRISK_POLICY_CHECK_FAIL_DEFAULT=block
)")) {
    const auto at = row[0].find("WHOLE");
    profile(at == row[0].npos ? row[0] : std::string(row[0]).replace(at, 5, whole));
    std::vector<std::string> set;
    for (std::string_view rest = row[2]; !rest.empty();) {
      auto value = Text::takePart(rest, ";");
      set.emplace_back(Text::takePart(value, "="));
      sandbox.set(set.back(), std::string(value));
    }
    EXPECT_EQ(load(row[3].empty() ? std::nullopt : std::optional(row[3] == "empty" ? "" : row[3])), row[1])
        << row[0] << row[2];
    for (const auto& name : set)
      sandbox.unset(name);
  }
  EXPECT_TRUE((ObriskHookConfig{"u", "k", "", ""}).isConfigured());
  EXPECT_FALSE((ObriskHookConfig{"u", "", "s", "allow"}).isConfigured());
  EXPECT_FALSE((ObriskHookConfig{"", "k", "s", "allow"}).isConfigured());
}

TEST_F(Config, TheDevicesIdentityStandsAloneAndAsItIs) {
  FakeControlPlane server;
  sandbox.write(sandbox.root() + "/identity.json",
                R"({"device_token":"t","tenant_slug":"a","api_url":")" + server.url() + "\"}");
  profile("[default]\napi_url=u\napi_key=k\nagent_slug=s\npolicy_check_fail_default=deny\n");
  server.next({FakeControlPlane::json({{"upload_api_key", "key"}})});
  EXPECT_EQ(load(), "u,k,s,deny") << "it has no slug";
  server.on("*", Json::Object{{"upload_api_key", " key "}, {"agent_slug", " slug "}, {"api_url", " url "}});
  for (const char* name : {"OBRISK_API_URL", "OBRISK_AGENT_SLUG", "OBRISK_PROJECT_KEY"})
    sandbox.set(name, "other");
  sandbox.set("OBRISK_POLICY_CHECK_FAIL_DEFAULT", "ask");
  sandbox.set("OBRISK_API_KEY", "");
  EXPECT_EQ(load(), " url , key , slug ,allow");
  EXPECT_EQ(load("default"), " url , key , slug ,allow") << "a requested profile does not go around it";
  sandbox.set("OBRISK_API_KEY", "e");
  EXPECT_EQ(load(), "other,e,other-proj-other,ask");
  EXPECT_EQ(server.requests("/api/obrisk/v1/endpoint/agent-config/").size(), 3u) << "a key leaves it alone";
}

}  // namespace
