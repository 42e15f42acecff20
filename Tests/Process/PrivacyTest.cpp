// Secrets leave in the request that they are for and appear nowhere else, whatever goes wrong; what is
// written is the user's alone.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <regex>

#include "Hook/Handlers/Handlers.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Files.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionFixture.h"
#include "Tests/Support/Table.h"

namespace fs = std::filesystem;

namespace {

class Privacy : public SessionFixture {
 protected:
  // Where the control plane is said to be, a proxy, and the key: PLANE answers, SECURE cannot be verified,
  // USER is a user with a password. The plane's answers hold the key, as an error page that repeats the
  // request would.
  const std::vector<std::vector<std::string>> failures = rows(R"(
    http://PLANE/echo         ¦ ∅                           ¦ secret-key
    http://PLANE/raw          ¦ ∅                           ¦ secret-key
    http://PLANE/redirect     ¦ ∅                           ¦ secret-key
    http://USER@PLANE/broken  ¦ ∅                           ¦ secret-key
    http://PLANE/half         ¦ ∅                           ¦ secret-key
    http://USER@127.0.0.1:1   ¦ ∅                           ¦ secret-key
    https://USER@SECURE       ¦ ∅                           ¦ secret-key
    http:/USER@127.0.0.1      ¦ ∅                           ¦ secret-key
    USER@127.0.0.1            ¦ ∅                           ¦ secret-key
    http://PLANE              ¦ ∅                           ¦ secret-key␈more
    http://control.test/echo  ¦ http://USER@PLANE           ¦ secret-key
    https://control.test/echo ¦ http://USER@PLANE           ¦ secret-key
    http://control.test       ¦ http://USER@127.0.0.1:1     ¦ secret-key
    http://control.test       ¦ socks5://USER@127.0.0.1:1   ¦ secret-key
  )");

  Privacy() {
    using Fault = FakeControlPlane::Fault;
    const auto echo = FakeControlPlane::status(403, R"({"error":"secret-key is no key"})");
    plane.on("*/echo/*", echo);
    plane.on("*control.test*", echo);
    plane.on("*/raw/*", {.closeAfter = true, .raw = "secret-key secret-key\r\n\r\n"});
    plane.on("*/redirect/*", {.status = 302, .headers = {{"Location", "http://127.0.0.1:1/?secret-key"}}});
    plane.on("*/broken/*", FakeControlPlane::status(500, "secret-key"));
    plane.on("*/half/*", FakeControlPlane::failing(Fault::closeInBody));
    EXPECT_FALSE(SessionStore::save(started()));
  }

  std::string address(std::string text) const {
    text = std::regex_replace(text, std::regex("PLANE"), plane.url().substr(7));
    text = std::regex_replace(text, std::regex("SECURE"), secure_.url().substr(8));
    return std::regex_replace(text, std::regex("USER"), "user:secret-password");
  }

  void useProxy(const std::string& proxy) {
    for (const char* variable : {"http_proxy", "https_proxy"})
      proxy.empty() ? sandbox.unset(variable) : sandbox.set(variable, address(proxy));
  }

  // A tool call, checked by an enrolled device with that identity; the key that it got.
  std::string checkEnrolled(const std::string& apiUrl) {
    const std::string identity = sandbox.root() + "/identity.json";
    const Json::Object file{
        {"device_token", "secret-token"}, {"tenant_slug", "t"}, {"api_url", address(apiUrl)}};
    sandbox.write(identity, Json(file).compact());
    ObserveClient client = daily();
    client.config = ObriskHookConfig::load(std::nullopt, "claude", identity);
    EventRouter::handlePreToolUse(event("PreToolUse", {{"tool_name", "Read"}}), client);
    return client.config.apiKey;
  }

  // None of the secrets, nor what the Basic scheme makes of one, stands in any file below the sandbox but
  // `known`.
  void expectNoSecret(const std::string& known) {
    for (const std::string& name : Sandbox::tree(sandbox.root())) {
      const std::string content = Files::read(sandbox.root() + "/" + name).value_or("");
      for (const std::string& secret :
           words("secret-key secret-password secret-token dXNlcjpzZWNyZXQtcGFzc3dvcmQ="))
        EXPECT_TRUE(name == known || content.find(secret) == content.npos) << name << ": " << content;
    }
  }

 private:
  FakeControlPlane secure_{{.certificate = makeServerCertificate(makeAuthority(), {"other.test"})}};
};

TEST_F(Privacy, NoFailureOfTheExecutableWritesASecret) {
  const std::string input = sandbox.root() + "/event", out = sandbox.root() + "/out";
  sandbox.write(input, Json(event("PreToolUse", {{"tool_name", "Read"}})).compact());
  std::string profiles;
  for (std::size_t each = 0; each < failures.size(); ++each)
    profiles += "[" + std::to_string(each) + "]\napi_url = " + address(failures[each][0]) +
                "\napi_key = " + failures[each][2] + "\nagent_slug = a\npolicy_check_fail_default = ask\n";
  sandbox.write(sandbox.home() + "/.obrisk/config", profiles);
  std::vector<pid_t> processes;  // all at once: each takes as long as its retries do
  for (const auto& failure : failures) {
    useProxy(failure[1]);
    const std::string id = std::to_string(processes.size());
    processes.push_back(sandbox.start({"--profile", id}, input, out + id, out + id + "-error"));
  }
  for (std::size_t each = 0; each < failures.size(); ++each) {
    int status = -1;
    ::waitpid(processes[each], &status, 0);
    EXPECT_EQ(status, 0) << failures[each][0];
    EXPECT_NE(contentOf(out + std::to_string(each)).find("controlplane unreachable"), std::string::npos)
        << failures[each][0] << " is no failure";
  }
  EXPECT_GT(jsonLines(sandbox.activityLog()).size(), 2 * failures.size());
  expectNoSecret("home/.obrisk/config");
}

TEST_F(Privacy, NoFailureOfAnEnrolledDeviceWritesASecret) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  for (const auto& failure : failures) {
    useProxy(failure[1]);
    checkEnrolled(failure[0]);
  }
  useProxy("");
  plane.on("*/agent-config/",
           Json::Object{
               {"upload_api_key", "secret-key"}, {"agent_slug", "a"}, {"api_url", plane.url() + "/broken"}});
  EXPECT_EQ(checkEnrolled("http://PLANE"), "secret-key")
      << "and of one that gets its key, but no answer with it";
  sandbox.write(sandbox.root() + "/printed",
                testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr());
  EXPECT_FALSE(jsonLines(sandbox.activityLog()).empty());
  expectNoSecret("identity.json");
}

TEST_F(Privacy, EveryFileIsItsUsersAlone) {
  sandbox.configure(plane.url());
  SessionStore::remove("s");
  sandbox.inChild = [] { ::umask(0); };
  const std::string transcript = sandbox.root() + "/transcript";
  sandbox.write(transcript, transcriptOf(2));
  // At the second stop the run has gone from the state directory; the last event puts one there again.
  auto events = everyEvent(sandbox.project(), transcript);
  events.push_back(events.front());
  for (const Json::Object& each : events)
    EXPECT_EQ(sandbox.run({}, each).status, 0);
  sandbox.run({}, std::string("no event"));
  int files = 0;
  for (const std::string& directory : {sandbox.home() + "/.obrisk", sandbox.state()})
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
      const auto expected = entry.is_directory() ? 0700 : 0600;
      EXPECT_EQ(static_cast<int>(entry.status().permissions()), expected) << entry.path();
      files += entry.is_regular_file();
    }
  EXPECT_GE(files, 5) << "a profile, two logs, the record of calls, the session";
}

}  // namespace
