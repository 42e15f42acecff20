#include "Server/ControlPlane.h"

#include <gtest/gtest.h>

#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Tests/Support/Sandbox.h"

namespace {

using namespace LocalControlPlane;

constexpr const char* observe = "/api/v1/observe/";

std::string steps(int count) {
  std::string body = R"({"steps":[)";
  for (int i = 0; i < count; ++i)
    body += R"({"step_name":"x","position":)" + std::to_string(i) + "},";
  body.back() = ']';
  return body + "}";
}

struct LocalControlPlaneTest : testing::Test {
  Request request(const std::string& method, const std::string& target, const std::string& body = "") const {
    return {method, target, "right", "right", "", "localhost:8787", "", "", true, body};
  }

  Reply send(const Request& message) {
    const std::optional<Reply> refusal = plane->refuse(message);
    return refusal ? *refusal : plane->answer(message);
  }
  Reply post(const std::string& path, const std::string& body) {
    return send(request("POST", observe + path, body));
  }
  Reply record(const std::string& run, const std::string& what, const std::string& body) {
    return post("runs/" + run + "/" + what + "/", body);
  }
  Json::Object told(const std::string& path, const std::string& body) {
    return parsed(post(path, body).body);
  }
  Json::Object get(const std::string& target) { return parsed(send(request("GET", target)).body); }

  std::string newRun() {
    return told("runs/start/", R"({"agent_name":"a","workflow_name":"w","session_id":"s"})").text("run_id");
  }
  Json::Object check(const std::string& run, const std::string& workflow) {
    return told("policy-check/", R"({"agent_name":"claude-code","workflow_name":")" + workflow +
                                     R"(","agent_id":")" + run + "\"}");
  }
  std::int64_t total(const char* what) {
    return get("/ui/overview").object("store").object("totals").integer(what);
  }

  Sandbox sandbox;
  std::string data = sandbox.home() + "/data/control-plane.db";
  std::string policy = sandbox.project() + "/policy.json";
  std::optional<ControlPlane> plane{std::in_place, data, "right", ""};
};

TEST_F(LocalControlPlaneTest, ShowsARunAsItWasReceived) {
  const std::string run = newRun();
  const std::tuple<const char*, std::string, std::string> requests[] = {
      {"steps", R"({"hardware_uuid":"","steps":[
      {"step_name":"hook:user_prompt","position":0,"output":{"kind":"user_prompt","prompt":"Größe \"x\"/y"}},
      {"step_name":"hook:guard_decision:deny","position":1,"output":{"kind":"guard_decision","action":"deny",
       "tool_name":"Bash","violations":["Blocked: rm"],"rule":"destructive_command"}}]})",
       R"({"recorded":2})"},
      {"spans", R"({"spans":[{"name":"subagent:x","kind":"agent","status":"ok","attributes":{},
      "start_time":"2026-01-31T09:15:00.000Z","end_time":"2026-01-31T09:15:05.000Z"}]})",
       R"({"recorded":1})"},
      {"llm-calls", R"({"calls":[{"model":"m","tokens_in":7,"tokens_out":5,"cost":0.25,
      "timestamp":"2026-01-31T09:15:01.000Z","response_preview":"done"}]})",
       R"({"recorded":1})"},
      {"complete", R"({"result":{"total_turns":1},"status":"success","error":"","steps":[]})",
       R"({"governance":{"action":"allow","max_retries":0,"reason":"","retry_feedback":""},"run_id":")" +
           run + "\"}"},
  };
  for (const auto& [what, body, answer] : requests)
    EXPECT_EQ(record(run, what, body).body, answer) << what;

  const Json::Object seen = get("/ui/runs/" + run);
  EXPECT_EQ(seen.text("status"), "success");
  EXPECT_EQ(seen.text("session"), "s");
  ASSERT_EQ(seen.list("items").size(), 4u);
  const auto item = [&seen](int i) { return *seen.list("items")[i].asObject(); };
  EXPECT_EQ(item(0).text("text"), "Größe \"x\"/y");
  EXPECT_EQ(item(1).text("action") + ": " + item(1).text("text"), "deny: Blocked: rm");
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
    return told("runs/daily/",
                R"({"agent_slug":")" + slug + R"(","agent_type":")" + type + R"(","date":")" + date + "\"}");
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
  const std::string run = observe + ("runs/" + newRun());
  const struct {
    const char* name;
    int status;
    std::string body;
    std::string target = "";  // of the run's steps when empty
    std::string key = "right";
    const char* method = "POST";
  } cases[] = {
      {"a wrong key", 401, "{}", "", "wrong"},
      {"no key", 401, "{}", "", ""},
      {"a key with the right beginning", 401, "{}", "", "rightx"},
      {"a wrong key for nothing at all", 401, "{}", "/api/x", "wrong"},
      {"no such place", 404, "{}", "/api/x"},
      {"no slash at the end", 404, "{}", run + "/steps"},
      {"an unknown run", 404, R"({"steps":[]})", "/api/v1/observe/runs/nope/steps/"},
      {"no run", 404, R"({"steps":[]})", "/api/v1/observe/runs//steps/"},
      {"a longer path", 404, R"({"steps":[]})", "/api/v1/observe/runs/a/b/steps/"},
      {"the wrong method", 405, "", "", "right", "GET"},
      {"no body", 400, ""},
      {"malformed JSON", 400, R"({"steps":[)"},
      {"a list", 400, "[]"},
      {"bytes that are not UTF-8", 400, "{\"steps\":[{\"step_name\":\"\xff\"}]}"},
      {"no steps", 400, "{}"},
      {"steps that are none", 400, R"({"steps":[{"step_name":"good"},7]})"},
      {"a step without a name", 400, R"({"steps":[{"step_name":"good"},{"position":1}]})"},
      {"too many steps", 413, steps(10'001)},
      {"a run without a workflow", 400, R"({"agent_name":"a"})", "/api/v1/observe/runs/start/"},
      {"a daily run of nobody", 400, "{}", "/api/v1/observe/runs/daily/"},
      {"no day", 400, R"({"agent_slug":"a","date":"today"})", "/api/v1/observe/runs/daily/"},
      {"a check of nothing", 400, "{}", "/api/v1/observe/policy-check/"},
      {"an end with steps that are none", 400, R"({"status":"success","steps":1})", run + "/complete/"},
  };
  for (const auto& [name, status, body, target, key, method] : cases) {
    Request message = request(method, target.empty() ? run + "/steps/" : target, body);
    message.key = key;
    const Reply reply = send(message);
    EXPECT_EQ(reply.status, status) << name;
    EXPECT_NE(parsed(reply.body).text("error"), "") << name;
  }
  EXPECT_EQ(total("runs"), 1);
  EXPECT_EQ(total("steps"), 0);
}

TEST_F(LocalControlPlaneTest, SumsWhateverNumbersItIsGiven) {
  const std::string run = newRun();
  const char* calls = R"({"calls":[
      {"model":"m","tokens_in":9223372036854775807,"tokens_out":9223372036854775807,"cost":1e308},
      {"model":"m","tokens_in":9223372036854775807,"tokens_out":-9223372036854775808,"cost":1e999},
      {"model":"m","tokens_in":"12","tokens_out":{},"cost":null,"timestamp":"ÄÄÄÄÄÄÄ"}]})";
  EXPECT_EQ(record(run, "llm-calls", calls).status, 200);
  const char* step =
      R"({"steps":[{"step_name":"x","position":"y","output":{"kind":"pre_compact","tool_name":[1],
      "pre_tokens":9223372036854775807,"timestamp":{},"violations":"none","prompt":"a\u0000b\ud800"}}]})";
  EXPECT_EQ(record(run, "steps", step).status, 200);
  EXPECT_EQ(check(run, "claude-code:precompact").text("action"), "allow");
  EXPECT_EQ(total("calls"), 3);
  EXPECT_EQ(get("/ui/runs/" + run).list("items").size(), 5u);
}

TEST_F(LocalControlPlaneTest, ShowsTheLatestOfAVeryLongRun) {
  const std::string run = newRun();
  EXPECT_EQ(record(run, "steps", steps(1500)).status, 200);
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
  EXPECT_EQ(check(run, "tool:WebFetch").text("action"), "allow");
  EXPECT_EQ(check(run, "claude-code:stop").object("metadata").find("cost_cap")->asNumber(), 0.5);
  sandbox.write(policy, R"({"rules":[{"workflow":"tool:WebFetch","action":"block","reason":"No."}]})");
  EXPECT_EQ(check(run, "tool:WebFetch").text("reason"), "No.");
  sandbox.write(policy, "{");
  EXPECT_EQ(check(run, "tool:WebFetch").text("action"), "block");
  EXPECT_EQ(get("/ui/overview").object("policies").text("problem"), "it is not a JSON object");
  EXPECT_EQ(get("/ui/runs/" + run).list("items").size(), 4u) << "every check is kept";
}

TEST_F(LocalControlPlaneTest, CountsCallsAndTheAnnouncedContextAgainstTheBudgetAndCallsAgainstTheCap) {
  sandbox.write(policy, R"({"cost_cap":0.5,"compaction_token_budget":{"warn":100}})");
  plane.emplace(sandbox.home() + "/other.db", "right", policy);
  const std::string run = newRun(), other = newRun();
  const auto complete = [&] {
    return told("runs/" + run + "/complete/", R"({"status":"success"})").object("governance");
  };
  record(other, "llm-calls", R"({"calls":[{"model":"m","tokens_in":1000000,"tokens_out":0,"cost":99}]})");
  record(run, "llm-calls", R"({"calls":[{"model":"m","tokens_in":50,"tokens_out":10,"cost":0.5}]})");
  EXPECT_EQ(check(run, "claude-code:precompact").text("action"), "allow");
  EXPECT_EQ(complete().text("action"), "allow");
  record(run, "steps",
         R"({"steps":[{"step_name":"hook:pre_compact","output":{"kind":"pre_compact","pre_tokens":41}}]})");
  EXPECT_EQ(check(run, "claude-code:precompact").text("reason"),
            "The run has used 101 tokens; its budget is 100.");
  record(run, "llm-calls", R"({"calls":[{"model":"m","tokens_in":0,"tokens_out":10,"cost":0.25}]})");
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
      const Request message{"GET", target, "", "", "", host, "", "", fromLoopback, ""};
      EXPECT_EQ(send(message).status, status) << name << " " << target;
    }
  }
  EXPECT_EQ(send(request("POST", "/ui/overview")).status, 405);
  EXPECT_EQ(send(request("GET", "/ui/runs/nope")).status, 404);
}

TEST_F(LocalControlPlaneTest, TellsThePageWhenThereIsNothingNew) {
  Request message = request("GET", "/ui/overview");
  message.known = send(message).tag;
  EXPECT_EQ(send(message).status, 304);
  newRun();
  EXPECT_EQ(send(message).status, 200);
}

TEST_F(LocalControlPlaneTest, ConfiguresAnEnrolledMachine) {
  const auto asked = [&](const char* tenant, const char* process, const char* device = "right") {
    return send(
        {"GET", "/api/obrisk/v1/endpoint/agent-config/", "right", device, tenant, "", "", process, true, ""});
  };
  EXPECT_EQ(asked("home", "Cursor").body,
            R"({"agent_slug":"cursor","agent_type":"cursor","upload_api_key":"right"})");
  EXPECT_EQ(parsed(asked("home", "claude").body).text("agent_slug"), "claude-code");
  EXPECT_EQ(asked("", "claude").status, 401);
  EXPECT_EQ(asked("home", "claude", "wrong").status, 401) << "a key is no device token";
}

TEST_F(LocalControlPlaneTest, KeepsItsDataPrivateAndTheKeyThatItMade) {
  const std::string run = newRun();
  EXPECT_EQ(Files::mode(data), 0600u);
  plane.emplace(sandbox.home() + "/own.db", "", "");
  const std::string made = plane->key();
  EXPECT_GE(made.size(), 32u);
  plane.emplace(sandbox.home() + "/own.db", "", "");
  EXPECT_EQ(plane->key(), made);
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
