// The page in a real browser: what it shows, and that nothing which came from outside becomes part of it.
#include <gtest/gtest.h>

#include <thread>

#include "Platform/Files.h"
#include "Platform/Process.h"
#include "Server/Server.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

namespace {

using namespace LocalControlPlane;

struct PageTest : testing::Test {
  void SetUp() override {
    for (const char* name : {"chromium", "chromium-browser", "google-chrome"})
      for (const char* directory : {"/usr/bin/", "/usr/local/bin/", "/snap/bin/"})
        if (Files::exists(std::string(directory) + name)) browser = std::string(directory) + name;
    if (browser.empty()) GTEST_SKIP() << "no Chromium is installed";
  }
  // The document as it stands when the page has been followed for a while.
  std::string document(const std::string& fragment = "") {
    Server server(plane, "127.0.0.1", 0);
    std::thread serving([&server] { server.run(); });
    const auto text = Process::run(
        "/usr/bin/timeout", {"90", browser, "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
                             "--user-data-dir=" + sandbox.root() + "/browser", "--window-size=1200,750",
                             "--virtual-time-budget=3500", "--dump-dom", server.url() + "/" + fragment});
    server.stop();
    serving.join();
    return text.value_or("");
  }
  // What stands in the element of that id and behind it.
  static std::string from(const std::string& document, const std::string& id) {
    return document.substr(std::min(document.find("id=\"" + id + "\""), document.size()));
  }
  // Posts the body with `text` in the place of "X"; the id of the run that was started.
  std::string post(const std::string& path, const std::string& body, const std::string& text = "") {
    const Request request{.method = "POST",
                          .target = "/api/v1/observe/" + path,
                          .body = replaced(body, "\"X\"", Json(text).compact())};
    return parsed(plane.answer(request).body).text("run_id");
  }

  Sandbox sandbox;
  std::string browser, policy = sandbox.project() + "/policy.json";
  ControlPlane plane{sandbox.home() + "/data.db", "right", (sandbox.write(policy, "{}"), policy)};
};

TEST_F(PageTest, SaysWhatToDoWhileThereIsNothing) {
  const std::string shown = document();
  EXPECT_NE(shown.find("api_url = http://127.0.0.1:"), shown.npos) << shown;
  EXPECT_EQ(from(shown, "empty").substr(0, 60).find("hidden"), shown.npos);
  EXPECT_NE(shown.find("<main hidden"), shown.npos);
}

TEST_F(PageTest, ShowsARunAndTakesNothingInItForMarkup) {
  const std::string hostile = R"(<img src=x onerror="document.title=1"><script>document.title=1</script>)";
  const std::string run = post(
      "runs/start/", R"({"agent_name":"X","workflow_name":"X","session_id":"X","agent_slug":"X"})", hostile);
  for (const char* kind : {"guard_decision", "tool_use", "tool_failure", "user_prompt", "__proto__", "X"})
    post("runs/" + run + "/steps/",
         R"({"steps":[{"step_name":"X","output":{"action":"deny","tool_name":"X",)"
         R"("prompt":"X","violations":["X"],"timestamp":"X","kind":")" +
             std::string(kind) + "\"}}]}",
         hostile);
  post("runs/" + run + "/steps/", R"({"steps":[{"step_name":"X","output":{"action":"X"}}]})", hostile);
  post("runs/" + run + "/spans/", R"({"spans":[{"name":"X","kind":"agent","start_time":"X"}]})", hostile);
  post("runs/" + run + "/llm-calls/",
       R"({"calls":[{"model":"X","response_preview":"X","tokens_in":1200,"cost":0.25}]})", hostile);
  post("policy-check/", R"({"agent_id":")" + run + R"(","workflow_name":"X"})", hostile);
  post("runs/" + run + "/complete/", R"({"status":"X","error":"X"})", hostile);
  sandbox.write(policy, R"({"rules":[{"workflow":"<b>"}]})");

  const std::string shown = document();
  EXPECT_EQ(shown.find("<img"), shown.npos) << shown;
  for (const auto& [id, text] : {std::pair("items", "&lt;img src=x"),
                                 {"items", "class=\"item block\""},
                                 {"runs", "$0.2500"},
                                 {"live", ">live<"},
                                 {"notice", "is not in force: rule 1 needs an \"action\""}})
    EXPECT_NE(from(shown, id).find(text), shown.npos) << text;
  EXPECT_NE(shown.find("<title>Obrisk, local control plane</title>"), shown.npos);
}

TEST_F(PageTest, OpensTheRunThatTheAddressNames) {
  const std::string first = post("runs/start/", R"({"agent_name":"one","workflow_name":"w"})");
  post("runs/start/", R"({"agent_name":"two","workflow_name":"w"})");
  EXPECT_NE(from(document("#" + first), "run-head").find(first), std::string::npos);
}

}  // namespace
