#include "LocalControlPlane/ControlPlane.h"

#include <gtest/gtest.h>

#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Tests/Support/Sandbox.h"

namespace {

using namespace LocalControlPlane;

constexpr const char* observe = "/api/v1/observe/";

class LocalControlPlaneTest : public testing::Test {
 protected:
  Request request(const std::string& method, const std::string& target, const std::string& body = "") const {
    Request result;
    result.method = method;
    result.target = target;
    result.key = result.device = "right";
    result.host = "localhost:8787";
    result.fromLoopback = true;
    result.body = body;
    return result;
  }

  Reply send(const Request& message) {
    const std::optional<Reply> refusal = plane->refuse(message);
    return refusal ? *refusal : plane->answer(message);
  }
  Reply post(const std::string& path, const std::string& body) {
    return send(request("POST", observe + path, body));
  }
  Json::Object get(const std::string& target) { return parsed(send(request("GET", target)).body); }

  std::string newRun(const std::string& workflow = "session:startup") {
    return parsed(post("runs/start/", R"({"agent_name":"claude-code","workflow_name":")" + workflow +
                                          R"(","inputs":{},"metadata":{},"session_id":"s"})")
                      .body)
        .text("run_id");
  }
  Json::Object totals() { return get("/ui/overview").object("store").object("totals"); }

  Sandbox sandbox;
  std::string data = sandbox.home() + "/data/control-plane.db";
  std::string policy = sandbox.project() + "/policy.json";
  std::optional<ControlPlane> plane{std::in_place, data, "right", ""};
};

TEST_F(LocalControlPlaneTest, ShowsARunAsItWasReceived) {
  const std::string run = newRun();
  const std::string runs = "runs/" + run;
  EXPECT_EQ(post(runs + "/steps/", R"({"hardware_uuid":"","steps":[
      {"step_name":"hook:user_prompt","position":0,"output":{"kind":"user_prompt","prompt":"Größe \"x\"/y"}},
      {"step_name":"hook:guard_decision:deny","position":1,"output":{"kind":"guard_decision","action":"deny",
       "tool_name":"Bash","violations":["Blocked: rm"],"rule":"destructive_command"}}]})")
                .body,
            R"({"recorded":2})");
  EXPECT_EQ(post(runs + "/spans/", R"({"spans":[{"name":"subagent:x","kind":"agent","status":"ok",
      "start_time":"2026-01-31T09:15:00.000Z","end_time":"2026-01-31T09:15:05.000Z","attributes":{}}]})")
                .status,
            200);
  EXPECT_EQ(post(runs + "/llm-calls/", R"({"calls":[{"model":"m","tokens_in":7,"tokens_out":5,"cost":0.25,
      "timestamp":"2026-01-31T09:15:01.000Z","response_preview":"done"}]})")
                .status,
            200);
  EXPECT_EQ(
      post(runs + "/complete/", R"({"result":{"total_turns":1},"status":"success","error":"","steps":[]})")
          .body,
      R"({"governance":{"action":"allow","max_retries":0,"reason":"","retry_feedback":""},"run_id":")" + run +
          "\"}");

  const Json::Object seen = get("/ui/runs/" + run);
  EXPECT_EQ(seen.text("status"), "success");
  EXPECT_EQ(seen.text("session"), "s");
  ASSERT_EQ(seen.list("items").size(), 4u);
  const auto item = [&seen](int i) { return *seen.list("items")[i].asObject(); };
  EXPECT_EQ(item(0).text("text"), "Größe \"x\"/y");
  EXPECT_EQ(item(1).text("action"), "deny");
  EXPECT_EQ(item(1).text("text"), "Blocked: rm");
  EXPECT_EQ(item(2).text("end"), "2026-01-31T09:15:05.000Z");
  EXPECT_EQ(item(3).text("text"), "done");

  const Json::Object store = get("/ui/overview").object("store");
  const Json::Object day = *store.list("days").at(0).asObject();
  EXPECT_EQ(day.text("day"), "2026-01-31");
  EXPECT_EQ(day.integer("tokens_in") + day.integer("tokens_out"), 12);
  EXPECT_EQ(store.list("runs").at(0).asObject()->integer("blocked"), 1);
}

TEST_F(LocalControlPlaneTest, GivesAnAgentOneRunADay) {
  const auto daily = [this](const std::string& slug, const std::string& type, const std::string& date) {
    return parsed(post("runs/daily/", R"({"agent_slug":")" + slug + R"(","agent_type":")" + type +
                                          R"(","date":")" + date + "\"}")
                      .body);
  };
  const Json::Object first = daily("a", "claude-code", "");
  EXPECT_TRUE(first.flag("created"));
  EXPECT_EQ(first.text("date"), Clock::date());
  EXPECT_EQ(first.text("started_at").substr(0, 10), Clock::date());
  EXPECT_NE(first.text("workflow_id"), "");
  const Json::Object again = daily("a", "claude-code", Clock::date());
  EXPECT_FALSE(again.flag("created"));
  EXPECT_EQ(again.text("run_id"), first.text("run_id"));
  for (const Json::Object& other :
       {daily("b", "claude-code", ""), daily("a", "cursor", ""), daily("a", "claude-code", "2026-01-31")}) {
    EXPECT_TRUE(other.flag("created"));
    EXPECT_NE(other.text("run_id"), first.text("run_id"));
  }
}

TEST_F(LocalControlPlaneTest, RefusesWhatItCannotTakeAndKeepsNothingOfIt) {
  const std::string run = newRun();
  std::string many = R"({"steps":[)";
  for (int i = 0; i < 10'001; ++i)
    many += R"({"step_name":"x"},)";
  many.back() = ']';
  const std::string steps = observe + ("runs/" + run) + "/steps/";
  const struct {
    const char* name;
    const char* method;
    std::string target;
    std::string key;
    std::string body;
    int status;
  } cases[] = {
      {"a wrong key", "POST", steps, "wrong", "{}", 401},
      {"no key", "POST", steps, "", "{}", 401},
      {"a key with the right beginning", "POST", steps, "rightx", "{}", 401},
      {"a wrong key for nothing at all", "POST", "/api/x", "wrong", "{}", 401},
      {"no such place", "POST", "/api/x", "right", "{}", 404},
      {"no slash at the end", "POST", steps.substr(0, steps.size() - 1), "right", "{}", 404},
      {"an unknown run", "POST", "/api/v1/observe/runs/nope/steps/", "right", R"({"steps":[]})", 404},
      {"no run", "POST", "/api/v1/observe/runs//steps/", "right", R"({"steps":[]})", 404},
      {"a longer path", "POST", "/api/v1/observe/runs/a/b/steps/", "right", R"({"steps":[]})", 404},
      {"the wrong method", "GET", steps, "right", "", 405},
      {"no body", "POST", steps, "right", "", 400},
      {"malformed JSON", "POST", steps, "right", R"({"steps":[)", 400},
      {"a list", "POST", steps, "right", "[]", 400},
      {"bytes that are not UTF-8", "POST", steps, "right", "{\"steps\":[{\"step_name\":\"\xff\"}]}", 400},
      {"nesting without end", "POST", steps, "right", std::string(100'000, '['), 400},
      {"no steps", "POST", steps, "right", "{}", 400},
      {"steps that are none", "POST", steps, "right", R"({"steps":[{"step_name":"good"},7]})", 400},
      {"a step without a name", "POST", steps, "right", R"({"steps":[{"step_name":"good"},{"position":1}]})",
       400},
      {"too many steps", "POST", steps, "right", many + "}", 413},
      {"a run without a workflow", "POST", "/api/v1/observe/runs/start/", "right", R"({"agent_name":"a"})",
       400},
      {"a daily run of nobody", "POST", "/api/v1/observe/runs/daily/", "right", "{}", 400},
      {"a daily run on no day", "POST", "/api/v1/observe/runs/daily/", "right",
       R"({"agent_slug":"a","date":"today"})", 400},
      {"a check of nothing", "POST", "/api/v1/observe/policy-check/", "right", "{}", 400},
      {"an end with steps that are none", "POST", observe + ("runs/" + run) + "/complete/", "right",
       R"({"status":"success","steps":1})", 400},
  };
  for (const auto& [name, method, target, key, body, status] : cases) {
    Request message = request(method, target, body);
    message.key = key;
    const Reply reply = send(message);
    EXPECT_EQ(reply.status, status) << name;
    EXPECT_NE(parsed(reply.body).text("error"), "") << name;
  }
  EXPECT_EQ(totals().integer("runs"), 1);
  EXPECT_EQ(totals().integer("steps"), 0);
}

TEST_F(LocalControlPlaneTest, SumsWhateverNumbersItIsGiven) {
  const std::string run = newRun();
  for (const char* call :
       {R"("tokens_in":9223372036854775807,"tokens_out":9223372036854775807,"cost":1e308)",
        R"("tokens_in":9223372036854775807,"tokens_out":-9223372036854775808,"cost":1e999)",
        R"("tokens_in":"12","tokens_out":{},"cost":null,"timestamp":"ÄÄÄÄÄÄÄ")"}) {
    EXPECT_EQ(
        post("runs/" + run + "/llm-calls/", R"({"calls":[{"model":"m",)" + std::string(call) + "}]}").status,
        200)
        << call;
  }
  EXPECT_EQ(post("runs/" + run + "/steps/",
                 R"({"steps":[{"step_name":"x","position":"y","output":{"kind":"pre_compact",
      "pre_tokens":9223372036854775807,"timestamp":{},"tool_name":[1],"violations":"none","prompt":"a\u0000b\ud800"}}]})")
                .status,
            200);
  EXPECT_EQ(
      post("policy-check/", R"({"workflow_name":"claude-code:precompact","agent_id":")" + run + "\"}").status,
      200);
  EXPECT_EQ(totals().integer("calls"), 3);
  EXPECT_EQ(get("/ui/runs/" + run).list("items").size(), 5u);
}

TEST_F(LocalControlPlaneTest, ShowsTheLatestOfAVeryLongRun) {
  const std::string run = newRun();
  for (int part = 0; part < 3; ++part) {
    std::string body = R"({"steps":[)";
    for (int i = 0; i < 500; ++i)
      body += R"({"step_name":"x","position":)" + std::to_string(part * 500 + i) + "},";
    body.back() = ']';
    post("runs/" + run + "/steps/", body + "}");
  }
  const Json::Object seen = get("/ui/runs/" + run);
  EXPECT_EQ(seen.integer("total"), 1500);
  ASSERT_EQ(seen.list("items").size(), 1000u);
  EXPECT_EQ(seen.list("items").front().asObject()->integer("position"), 500);
  EXPECT_EQ(seen.list("items").back().asObject()->integer("position"), 1499);
}

TEST_F(LocalControlPlaneTest, AnswersPolicyChecksFromTheFileAsItIsNow) {
  sandbox.write(policy, R"({"cost_cap":0.5,"compaction_token_budget":{"warn":100}})");
  plane.emplace(sandbox.home() + "/other.db", "right", policy);
  const std::string run = newRun();
  const auto check = [&](const std::string& workflow) {
    return parsed(post("policy-check/", R"({"agent_name":"claude-code","workflow_name":")" + workflow +
                                            R"(","agent_id":")" + run + "\"}")
                      .body);
  };
  EXPECT_EQ(check("tool:WebFetch").text("action"), "allow");
  EXPECT_EQ(check("claude-code:stop").object("metadata").find("cost_cap")->asNumber(), 0.5);
  sandbox.write(policy, R"({"rules":[{"workflow":"tool:WebFetch","action":"block","reason":"No."}]})");
  EXPECT_EQ(check("tool:WebFetch").text("action"), "block");
  EXPECT_EQ(check("tool:WebFetch").text("reason"), "No.");
  sandbox.write(policy, "{");
  EXPECT_EQ(check("tool:WebFetch").text("action"), "block");
  EXPECT_EQ(get("/ui/overview").object("policies").text("problem"), "it is not a JSON object");
  EXPECT_EQ(get("/ui/runs/" + run).list("items").size(), 5u) << "every check is kept";
}

TEST_F(LocalControlPlaneTest, CountsCallsAndTheAnnouncedContextAgainstTheBudgetAndCallsAgainstTheCap) {
  sandbox.write(policy, R"({"cost_cap":0.5,"compaction_token_budget":{"warn":100}})");
  plane.emplace(sandbox.home() + "/other.db", "right", policy);
  const std::string run = newRun(), other = newRun();
  const auto check = [&] {
    return parsed(
        post("policy-check/", R"({"workflow_name":"claude-code:precompact","agent_id":")" + run + "\"}")
            .body);
  };
  const auto complete = [&] {
    return parsed(post("runs/" + run + "/complete/", R"({"status":"success"})").body).object("governance");
  };
  const auto call = [](int tokens, double cost) {
    return R"({"calls":[{"model":"m","tokens_in":)" + std::to_string(tokens) + R"(,"tokens_out":10,"cost":)" +
           std::to_string(cost) + "}]}";
  };
  post("runs/" + other + "/llm-calls/", call(1'000'000, 99));
  post("runs/" + run + "/llm-calls/", call(50, 0.5));
  EXPECT_EQ(check().text("action"), "allow");
  EXPECT_EQ(complete().text("action"), "allow");
  post("runs/" + run + "/steps/",
       R"({"steps":[{"step_name":"hook:pre_compact","output":{"kind":"pre_compact","pre_tokens":41}}]})");
  EXPECT_EQ(check().text("reason"), "The run has used 101 tokens; its budget is 100.");
  post("runs/" + run + "/llm-calls/", call(0, 0.25));
  EXPECT_EQ(complete().text("reason"), "The run cost $0.7500; its cap is $0.5000.");
}

TEST_F(LocalControlPlaneTest, ShowsThePageToThisMachineOnly) {
  const struct {
    const char* name;
    const char* host;
    bool fromLoopback;
    int status;
  } cases[] = {
      {"by address", "127.0.0.1:8787", true, 200},
      {"by name", "localhost:8787", true, 200},
      {"without a port", "localhost", true, 200},
      {"by the other address", "[::1]:8787", true, 200},
      {"by a name that was bound to this machine", "attacker.example:8787", true, 403},
      {"by a name that begins well", "localhost.attacker.example", true, 403},
      {"by a name with this machine as its user", "127.0.0.1@attacker.example", true, 403},
      {"without a host", "", true, 403},
      {"from another machine", "127.0.0.1:8787", false, 403},
  };
  for (const auto& [name, host, fromLoopback, status] : cases) {
    for (const char* target : {"/", "/ui/overview"}) {
      Request message = request("GET", target);
      message.key = "";
      message.host = host;
      message.fromLoopback = fromLoopback;
      EXPECT_EQ(send(message).status, status) << name << " " << target;
    }
  }
  EXPECT_EQ(send(request("POST", "/ui/overview")).status, 405);
  EXPECT_EQ(send(request("GET", "/ui/runs/nope")).status, 404);
  EXPECT_EQ(send(request("GET", "/../etc/passwd")).status, 404);
}

TEST_F(LocalControlPlaneTest, TellsThePageWhenThereIsNothingNew) {
  Request message = request("GET", "/ui/overview");
  message.known = send(message).tag;
  EXPECT_EQ(send(message).status, 304);
  newRun();
  EXPECT_EQ(send(message).status, 200);
}

TEST_F(LocalControlPlaneTest, ConfiguresAnEnrolledMachine) {
  Request message = request("GET", "/api/obrisk/v1/endpoint/agent-config/");
  message.tenant = "home";
  message.process = "Cursor";
  EXPECT_EQ(send(message).body, R"({"agent_slug":"cursor","agent_type":"cursor","upload_api_key":"right"})");
  message.process = "claude";
  EXPECT_EQ(parsed(send(message).body).text("agent_slug"), "claude-code");
  message.tenant = "";
  EXPECT_EQ(send(message).status, 401);
  message.tenant = "home";
  message.device = "wrong";
  EXPECT_EQ(send(message).status, 401) << "a key is no device token";
}

TEST_F(LocalControlPlaneTest, KeepsItsDataPrivateAndTheKeyThatItMade) {
  const std::string run = newRun();
  EXPECT_EQ(Files::mode(data), 0600u);
  plane.emplace(sandbox.home() + "/own.db", "", "");
  const std::string made = plane->key();
  EXPECT_GE(made.size(), 32u);
  plane.reset();
  plane.emplace(sandbox.home() + "/own.db", "", "");
  EXPECT_EQ(plane->key(), made);
  plane.reset();
  plane.emplace(data, "right", "");
  EXPECT_EQ(get("/ui/runs/" + run).text("id"), run);
}

TEST_F(LocalControlPlaneTest, RefusesAFileThatIsNotItsOwn) {
  const auto problem = [](const std::string& path) -> std::string {
    try {
      const ControlPlane second(path, "k", "");
    } catch (const StoreError& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_EQ(problem(data), data + ": another obrisk-local is using it");
  const std::string text = sandbox.project() + "/notes.txt";
  sandbox.write(text, std::string(5000, 'x'));
  EXPECT_EQ(problem(text), text + ": file is not a database");
  EXPECT_EQ(contentOf(text), std::string(5000, 'x'));
  EXPECT_EQ(problem(sandbox.project()), sandbox.project() + ": it cannot be opened for writing");
}

}  // namespace
