// The machine: what the control plane says of it, and its hardware's id.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "Hook/ControlPlane/ObserveClient.h"
#include "Platform/Files.h"
#include "Shared/DeviceIdentity.h"
#include "Shared/HardwareID.h"
#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

namespace {

struct Device : testing::Test {
  // What comes of an identity file with this content, with "URL" for the server's.
  std::string identityOf(std::string content, const std::string& process = "claude") {
    if (const auto at = content.find("URL"); at != content.npos) content.replace(at, 3, server.url());
    sandbox.write(file, content);
    const auto found = DeviceIdentity::resolve(process, file);
    if (!found) return "none";
    const std::string url = found->apiUrl == server.url() ? "URL" : found->apiUrl;
    return url + "," + found->uploadKey + "," + found->agentSlug + "," + found->agentType;
  }

  Sandbox sandbox;
  FakeControlPlane server;
  const std::string file = sandbox.root() + "/device-identity.json";
};

TEST_F(Device, AsksForTheIdentityOfTheCallingAgent) {
  for (const std::string end : {"", "/", "/?x=y"}) {
    identityOf(R"({"device_token":"t-secret","tenant_slug":"acme","api_url":"URL)" + end + "\"}", "Cursor");
    const auto request = server.requests().back();
    EXPECT_EQ(request.method + request.body, "GET");
    EXPECT_EQ(request.target, "/api/obrisk/v1/endpoint/agent-config/?process=Cursor");
    EXPECT_EQ(request.headers, (std::map<std::string, std::string>{{"host", server.url().substr(7)},
                                                                   {"x-quib-device", "t-secret"},
                                                                   {"x-quib-tenant", "acme"}}));
  }
}

TEST_F(Device, OnlyAWholeAnswerWithAKeyGivesAnIdentity) {
  std::size_t asked = 0;
  for (const auto& row : rows(R"(
200 ¦ {"upload_api_key":"k","api_url":"u","agent_slug":"s","agent_type":"t","other":1} ¦ u,k,s,t
200 ¦ {"upload_api_key":"k"}                                                           ¦ URL,k,,
200 ¦ {"upload_api_key":"k","api_url":1,"agent_slug":2,"agent_type":null}              ¦ URL,k,,
200 ¦ {"upload_api_key":"k","api_url":""}                                              ¦ ,k,,
200 ¦ {"upload_api_key":"","agent_slug":"s"}                                           ¦ none
200 ¦ {"upload_api_key":7}                                                             ¦ none
200 ¦ [{"upload_api_key":"k"}]                                                         ¦ none
200 ¦ <html>                                                                           ¦ none
200 ¦ ∅                                                                                ¦ none
201 ¦ {"upload_api_key":"k"}                                                           ¦ none
204 ¦ ∅                                                                                ¦ none
302 ¦ {"upload_api_key":"k"}                                                           ¦ none
403 ¦ {"upload_api_key":"k"}                                                           ¦ none
500 ¦ {"upload_api_key":"k"}                                                           ¦ none
)")) {
    server.next({FakeControlPlane::status(std::stoi(row[0]), row[1])});
    EXPECT_EQ(identityOf(R"({"device_token":"t","tenant_slug":"a","api_url":"URL"})"), row[2])
        << row[0] << row[1];
    EXPECT_EQ(server.requests().size(), ++asked) << "each is asked for once";
  }
}

TEST_F(Device, AnUnusableFileMakesNoRequest) {
  EXPECT_EQ(DeviceIdentity::resolve("claude", file), std::nullopt);
  for (const auto& row : rows(R"(
∅
no JSON
[]
{"device_token":"","tenant_slug":"a","api_url":"URL"}
{"device_token":"t","tenant_slug":"","api_url":"URL"}
{"device_token":1,"tenant_slug":"a","api_url":"URL"}
{"device_token":"t","api_url":"URL"}
{"device_token":"t","tenant_slug":"a"}
{"device_token":"t","tenant_slug":"a","api_url":""}
{"device_token":"t","tenant_slug":"a","api_url":[]}
{"device_token":"t","tenant_slug":"a","api_url":"http://a b"}
{"device_token":"t","tenant_slug":"a","api_url":"http://127.0.0.1:x"}
{"device_token":"t","tenant_slug":"a","api_url":"relative"}
)"))
    EXPECT_EQ(identityOf(row[0]), "none") << row[0];
  EXPECT_EQ(server.connections(), 0);
}

TEST(HardwareID, IsTheFirstQuotedValueOfItsLineOrTheFirstLineOfTheMachinesFile) {
  for (const auto& row : rows(R"(
+-o Root␊  {␊    "IOPlatformUUID" = "1A-2B"␊    "x" = "y"␊                       ¦ 1A-2B
"other" = "no"␊"IOPlatformUUID" = "1A" = "2B"                                    ¦ 1A
"IOPlatformUUID" = 7␊"IOPlatformUUID" = "open␊"IOPlatformUUID" = "1A"␊           ¦ 1A
"IOPlatformUUID"="1A"␊                                                           ¦ ∅
"IOPlatformUUID" = ""␊"IOPlatformUUID" = "1A"␊                                   ¦ ∅
"ioplatformuuid" = "1A"␊                                                         ¦ ∅
∅                                                                                ¦ ∅
)"))
    EXPECT_EQ(HardwareID::uuidIn(row[0]), row[1]) << row[0];
  EXPECT_EQ(HardwareID::uuidIn("\"IOPlatformUUID\" = \"1A\"\n\xff\n"), "");
  for (const auto& row : rows("3d1219c7␊ ¦ 3d1219c7\n1a␊2b␊ ¦ 1a\n1a ¦ 1a\nuninitialized␊ ¦ ∅\n␊ ¦ ∅\n∅ ¦ ∅"))
    EXPECT_EQ(HardwareID::idIn(row[0]), row[1]) << row[0];
}

// Where no file can be opened, looking it up finds nothing, and keeps that.
TEST(HardwareID, IsNotLookedUpWhenNobodyIsToldIt) {
  const std::string id = HardwareID::idIn(Files::read("/etc/machine-id").value_or(""));
  if (id.empty()) GTEST_SKIP() << "this machine has no id that could be looked up";
  EXPECT_TRUE(inChildProcess([&] {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    const ObserveClient unconfigured;
    unconfigured.recordSteps("run", {Json::Object{}});
    unconfigured.recordLLMCalls("run", {Json::Object{}});
    ::setrlimit(RLIMIT_NOFILE, &limit);
    return HardwareID::uuid() == id;
  }));
}

}  // namespace
