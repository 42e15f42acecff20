// The page in a real browser: what it shows, and that nothing which came from outside becomes part of it.
#include <gtest/gtest.h>

#include <thread>

#include "Platform/Files.h"
#include "Platform/Process.h"
#include "Server/Server.h"
#include "Tests/Support/Sandbox.h"

namespace {

using namespace LocalControlPlane;

std::string browser() {
  for (const char* directory : {"/usr/bin/", "/usr/local/bin/", "/snap/bin/"}) {
    for (const char* name : {"chromium", "chromium-browser", "google-chrome"}) {
      if (Files::exists(std::string(directory) + name)) return std::string(directory) + name;
    }
  }
  return "";
}

class LocalPageTest : public testing::Test {
 protected:
  void SetUp() override {
    if (browser().empty()) GTEST_SKIP() << "no Chromium is installed";
  }

  // The document as it stands when the page has been followed for a while.
  std::string document(const std::string& fragment = "") {
    Server server(plane, "127.0.0.1", 0);
    std::thread serving([&server] { server.run(); });
    const std::optional<std::string> text = Process::run(
        "/usr/bin/timeout", {"90", browser(), "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
                             "--user-data-dir=" + sandbox.root() + "/browser", "--window-size=1200,750",
                             "--virtual-time-budget=3500", "--dump-dom", server.url() + "/" + fragment});
    server.stop();
    serving.join();
    return text.value_or("");
  }

  Json::Object post(const std::string& path, const Json::Object& body) {
    Request request;
    request.method = "POST";
    request.target = "/api/v1/observe/" + path;
    request.body = Json(body).compact();
    return parsed(plane.answer(request).body);
  }

  Sandbox sandbox;
  std::string policy =
      (sandbox.write(sandbox.project() + "/policy.json", "{}"), sandbox.project() + "/policy.json");
  ControlPlane plane{sandbox.home() + "/data.db", "right", policy};
};

// The part of the document that the element of that id begins.
std::string from(const std::string& document, const std::string& id) {
  return document.substr(std::min(document.find("id=\"" + id + "\""), document.size()));
}

TEST_F(LocalPageTest, SaysWhatToDoWhileThereIsNothing) {
  const std::string shown = document();
  EXPECT_NE(shown.find("api_url = http://127.0.0.1:"), std::string::npos) << shown;
  EXPECT_EQ(from(shown, "empty").substr(0, 60).find("hidden"), std::string::npos);
  EXPECT_NE(shown.find("<main hidden"), std::string::npos);
}

TEST_F(LocalPageTest, ShowsARunAndTakesNothingInItForMarkup) {
  const std::string hostile =
      R"(<img src=x onerror="document.title='owned'"><script>document.title='owned'</script>)";
  const std::string run = post("runs/start/", {{"agent_name", hostile},
                                               {"workflow_name", hostile},
                                               {"session_id", hostile},
                                               {"agent_slug", hostile}})
                              .text("run_id");
  Json::Array steps;
  for (const char* kind : {"guard_decision", "tool_use", "tool_failure", "user_prompt", "__proto__"}) {
    steps.push_back(Json::Object{{"step_name", "hook:" + hostile},
                                 {"output", Json::Object{{"kind", kind},
                                                         {"action", "deny"},
                                                         {"tool_name", hostile},
                                                         {"prompt", hostile},
                                                         {"violations", Json::Array{hostile}},
                                                         {"timestamp", hostile}}}});
  }
  steps.push_back(
      Json::Object{{"step_name", hostile}, {"output", Json::Object{{"kind", hostile}, {"action", hostile}}}});
  post("runs/" + run + "/steps/", {{"steps", steps}});
  post("runs/" + run + "/spans/",
       {{"spans", Json::Array{Json::Object{{"name", hostile}, {"kind", "agent"}, {"start_time", hostile}}}}});
  post("runs/" + run + "/llm-calls/",
       {{"calls",
         Json::Array{Json::Object{
             {"model", hostile}, {"response_preview", hostile}, {"tokens_in", 1200}, {"cost", 0.25}}}}});
  post("policy-check/", {{"agent_id", run}, {"workflow_name", hostile}});
  post("runs/" + run + "/complete/", {{"status", hostile}, {"error", hostile}});

  const std::string shown = document();
  EXPECT_EQ(shown.find("<img"), std::string::npos) << shown;
  EXPECT_NE(shown.find("<title>Obrisk, local control plane</title>"), std::string::npos);
  EXPECT_NE(from(shown, "items").find("&lt;img src=x"), std::string::npos);
  EXPECT_NE(from(shown, "items").find("class=\"item block\""), std::string::npos)
      << "a denial has its colour";
  EXPECT_NE(from(shown, "runs").find("$0.2500"), std::string::npos);
  EXPECT_NE(from(shown, "live").find(">live<"), std::string::npos);
}

TEST_F(LocalPageTest, SaysThatThePolicyFileIsNotInForce) {
  post("runs/start/", {{"agent_name", "a"}, {"workflow_name", "w"}});
  sandbox.write(policy, R"({"rules":[{"workflow":"<b>"}]})");
  const std::string shown = document();
  EXPECT_NE(from(shown, "notice").find("is not in force: rule 1 needs an \"action\""), std::string::npos)
      << shown;
}

TEST_F(LocalPageTest, OpensTheRunThatTheAddressNames) {
  const std::string first =
      post("runs/start/", {{"agent_name", "one"}, {"workflow_name", "w"}}).text("run_id");
  post("runs/start/", {{"agent_name", "two"}, {"workflow_name", "w"}});
  EXPECT_NE(from(document("#" + first), "run-head").find(first), std::string::npos);
}

}  // namespace
