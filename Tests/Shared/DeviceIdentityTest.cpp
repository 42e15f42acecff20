#include "Shared/DeviceIdentity.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "Platform/Files.h"
#include "Shared/HardwareID.h"
#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"

using namespace std::chrono_literals;
using DeviceIdentity::Resolved;
using Fault = FakeControlPlane::Fault;

namespace {

class DeviceIdentityTest : public testing::Test {
 protected:
  std::string file() const { return sandbox.root() + "/device-identity.json"; }

  void enrol(const std::string& apiUrl) {
    const Json::Object identity{{"device_token", "t-secret"}, {"tenant_slug", "acme"}, {"api_url", apiUrl}};
    sandbox.write(file(), Json(identity).compact());
  }

  std::optional<Resolved> resolve(const std::string& process = "claude") {
    return DeviceIdentity::resolve(process, file());
  }

  Sandbox sandbox;
  FakeControlPlane server;
};

TEST_F(DeviceIdentityTest, AsksForTheIdentityOfTheCallingAgent) {
  for (const std::string end : {"", "/", "/?x=y"}) {
    enrol(server.url() + end);
    resolve("Cursor");
    const auto request = server.requests().back();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.target, "/api/obrisk/v1/endpoint/agent-config/?process=Cursor");
    const std::map<std::string, std::string> headers{
        {"host", server.url().substr(7)}, {"x-quib-device", "t-secret"}, {"x-quib-tenant", "acme"}};
    EXPECT_EQ(request.headers, headers);
    EXPECT_EQ(request.body, "");
  }
}

struct AnswerRow {
  const char* name;
  FakeControlPlane::Reply reply;
  std::optional<Resolved> expected;
};

TEST_F(DeviceIdentityTest, OnlyAWholeAnswerWithAKeyGivesAnIdentity) {
  enrol(server.url());
  const std::string whole =
      R"({"upload_api_key":"k","api_url":"https://u.test","agent_slug":"s","agent_type":"t","other":1})";
  const AnswerRow rows[] = {
      {"everything", FakeControlPlane::status(200, whole), Resolved{"https://u.test", "k", "s", "t"}},
      {"the key only", FakeControlPlane::status(200, R"({"upload_api_key":"k"})"),
       Resolved{server.url(), "k", "", ""}},
      {"members of other types",
       FakeControlPlane::status(200,
                                R"({"upload_api_key":"k","api_url":1,"agent_slug":2,"agent_type":null})"),
       Resolved{server.url(), "k", "", ""}},
      {"an empty endpoint, which is a string all the same",
       FakeControlPlane::status(200, R"({"upload_api_key":"k","api_url":""})"), Resolved{"", "k", "", ""}},
      {"an empty key", FakeControlPlane::status(200, R"({"upload_api_key":"","agent_slug":"s"})"), {}},
      {"a key that is no string", FakeControlPlane::status(200, R"({"upload_api_key":7})"), {}},
      {"no key", FakeControlPlane::status(200, "{}"), {}},
      {"an array", FakeControlPlane::status(200, "[" + whole + "]"), {}},
      {"no JSON", FakeControlPlane::status(200, "<html>"), {}},
      {"no body", FakeControlPlane::status(200, ""), {}},
      {"201", FakeControlPlane::status(201, whole), {}},
      {"204", FakeControlPlane::status(204), {}},
      {"302", FakeControlPlane::status(302, whole), {}},
      {"403", FakeControlPlane::status(403, whole), {}},
      {"500", FakeControlPlane::status(500, whole), {}},
      {"half an answer",
       [&] {
         auto reply = FakeControlPlane::failing(Fault::closeInBody);
         reply.body = whole;
         return reply;
       }(),
       {}},
  };
  for (const auto& row : rows) {
    server.next({row.reply});
    EXPECT_TRUE(resolve() == row.expected) << row.name;
  }
  EXPECT_EQ(server.requests().size(), std::size(rows)) << "each is asked for once";
}

TEST_F(DeviceIdentityTest, AnUnusableFileMakesNoRequest) {
  const std::string url = server.url();
  EXPECT_EQ(resolve(), std::nullopt) << "no file";
  const std::string rows[] = {
      "",
      "no JSON",
      "[]",
      R"({"device_token":"","tenant_slug":"a","api_url":")" + url + "\"}",
      R"({"device_token":"t","tenant_slug":"","api_url":")" + url + "\"}",
      R"({"device_token":1,"tenant_slug":"a","api_url":")" + url + "\"}",
      R"({"device_token":"t","api_url":")" + url + "\"}",
      R"({"device_token":"t","tenant_slug":"a"})",
      R"({"device_token":"t","tenant_slug":"a","api_url":""})",
      R"({"device_token":"t","tenant_slug":"a","api_url":[]})",
      R"({"device_token":"t","tenant_slug":"a","api_url":"http://a b"})",
      R"({"device_token":"t","tenant_slug":"a","api_url":"relative"})",
  };
  for (const auto& content : rows) {
    sandbox.write(file(), content);
    EXPECT_EQ(resolve(), std::nullopt) << content;
  }
  EXPECT_EQ(server.connections(), 0);
}

TEST(HardwareIDTest, TheUuidIsTheFirstQuotedValueOfItsLine) {
  const std::pair<const char*, const char*> rows[] = {
      {"+-o Root\n  {\n    \"IOPlatformUUID\" = \"1A-2B\"\n    \"x\" = \"y\"\n", "1A-2B"},
      {"\"other\" = \"no\"\n\"IOPlatformUUID\" = \"1A\" = \"2B\"", "1A"},
      {"\"IOPlatformUUID\" = 7\n\"IOPlatformUUID\" = \"open\n\"IOPlatformUUID\" = \"1A\"\n", "1A"},
      {"\"IOPlatformUUID\"=\"1A\"\n", ""},
      {"\"IOPlatformUUID\" = \"\"\n\"IOPlatformUUID\" = \"1A\"\n", ""},
      {"\"ioplatformuuid\" = \"1A\"\n", ""},
      {"\"IOPlatformUUID\" = \"1A\"\n\xff\n", ""},
      {"", ""},
  };
  for (const auto& [output, uuid] : rows)
    EXPECT_EQ(HardwareID::uuidIn(output), uuid) << output;
}

TEST(HardwareIDTest, AnInstallationThatHasNoIdYetHasNone) {
  const std::pair<const char*, const char*> rows[] = {
      {"3d1219c7\n", "3d1219c7"}, {"1a\n2b\n", "1a"}, {"1a", "1a"},
      {"uninitialized\n", ""},    {"\n", ""},         {"", ""},
  };
  for (const auto& [content, id] : rows)
    EXPECT_EQ(HardwareID::idIn(content), id) << content;
}

// Where no file can be opened, looking it up finds nothing, and keeps that.
TEST(HardwareIDTest, NobodyLooksUpAnIdThatNobodyIsTold) {
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

TEST(HardwareIDTest, TheMachineKeepsItsId) {
  const auto& uuid = HardwareID::uuid();
  EXPECT_EQ(uuid.find('\n'), std::string::npos);
  EXPECT_EQ(&HardwareID::uuid(), &uuid);
}

}  // namespace
