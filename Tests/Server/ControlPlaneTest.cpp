#include "Server/ControlPlane.h"

#include <gtest/gtest.h>

#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Tests/Support/Repeated.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

namespace {

using namespace LocalControlPlane;

// A line for each object: those of its members that hold something, as words "key=value".
std::string lines(const Json::Array& objects) {
  std::string text;
  for (const Json& object : objects) {
    text += "\n";
    for (const auto& [key, value] : *object.asObject()) {
      const std::string shown = value.asText() ? *value.asText() : value.compact();
      if (!shown.empty() && shown != "null" && shown != "0") text += " " + key + "=" + shown;
    }
  }
  return text;
}

struct ControlPlaneTest : testing::Test {
  Reply send(const Request& message) {
    const auto refusal = plane->refuse(message);
    return refusal ? *refusal : plane->answer(message);
  }
  // In what is sent RUN stands for the id of the run, and TODAY for the date; in what is shown <now> as well.
  Reply send(const std::string& method, const std::string& path, std::string body = "",
             const char* key = "right") {
    const std::string target = path.starts_with("/") ? path : "/api/v1/observe/" + replaced(path, "RUN", run);
    body = replaced(replaced(body, "RUN", run), "TODAY", Clock::date());
    return send({.method = method,
                 .target = target,
                 .key = key,
                 .host = "localhost",
                 .fromLoopback = true,
                 .body = body});
  }
  Json::Object shown(std::string target) {
    target = replaced(target, "RUN", run);
    const std::string body = undated(send("GET", target).body);
    return parsed(replaced(replaced(body, run, "RUN"), Clock::date(), "TODAY"));
  }
  Json::Object overview() { return shown("/ui/overview").object("store"); }
  // What comes of a row: of any request, or of elements that are recorded, a new policy file, a question to
  // the policies.
  std::string play(const std::string& what, const std::string& body) {
    const auto said = words(what);
    if (said[0] == "policy") {
      body == "gone" ? void(Files::remove(policy)) : sandbox.write(policy, body);
      return shown("/ui/overview").object("policies").text("problem");
    }
    if (said[0] == "check")
      return play("POST policy-check/ right", R"({"agent_id":"RUN","workflow_name":)" + body + "}");
    if (said.size() == 1)
      return play("POST runs/RUN/" + what + "/ right",
                  "{\"" + replaced(what, "llm-", "") + "\":[" + body + "]}");
    const Reply reply = send(said[0], said[1], body, said.size() > 2 ? said[2].c_str() : "");
    const Json::Object answer = parsed(reply.body);
    const Json::Object& decision = answer.find("governance") ? answer.object("governance") : answer;
    if (answer.integer("recorded") > 0) return "";
    const std::string reason = decision.text("reason").empty() ? "" : " " + decision.text("reason");
    if (decision.find("action")) return decision.text("action") + reason;
    if (!answer.find("created")) {
      EXPECT_NE(answer.text("error"), "") << what << body.substr(0, 99);
      return std::to_string(reply.status);
    }
    const bool same = std::exchange(run, answer.text("run_id")) == answer.text("run_id");
    EXPECT_EQ(answer.flag("created"), !same);
    EXPECT_EQ(answer.text("workflow_id").substr(0, 6) + undated(answer.text("started_at")), "daily-<now>");
    return (same ? "same " : "new ") + replaced(answer.text("date"), Clock::date(), "TODAY");
  }
  void play(std::string_view table) {
    for (const auto& row : rows(table))
      EXPECT_EQ(play(row[0], row[1]), row[2]) << row[0] << " " << row[1];
  }
  void start() {
    const std::string body = R"({"agent_name":"a","workflow_name":"w","session_id":"s"})";
    run = parsed(send("POST", "runs/start/", body).body).text("run_id");
  }

  Sandbox sandbox;
  std::string data = sandbox.home() + "/data/control-plane.db", policy = sandbox.project() + "/policy.json";
  std::optional<ControlPlane> plane{std::in_place, data, "right", ""};
  std::string run = "RUN";
};

TEST_F(ControlPlaneTest, ShowsRunsAsTheyWereReceived) {
  start();
  play("check", R"("tool:Read")");
  start();
  play(R"(
    steps ¦ {"step_name":"p","output":{"kind":"user_prompt","prompt":"Größe \"x\"/y"}} ¦ ∅
    steps ¦ {"step_name":"d","position":1,"output":{"kind":"guard_decision","action":"deny","rule":"r"}}
    steps ¦ {"step_name":"e","output":{"kind":"guard_decision","action":"ask","violations":["rm","mv"]}}
    steps ¦ {"step_name":"t","output":{"tool_name":"T","tool_input":{"command":"ls"},"timestamp":"2026-01-31"}}
    steps ¦ {"step_name":"c","output":{"kind":"x","action":"ask","total_cost":1.5}},{"step_name":"k"}
    steps ¦ {"step_name":"n","output":{"total_cost":"1.5","pre_tokens":7}}
    spans ¦ {"name":"n","kind":"agent","status":"ok","end_time":"2026-02-01","attributes":{"agent.id":"i"}}
    llm-calls ¦ {"model":"m","tokens_in":7,"tokens_out":5,"cost":0.25,"timestamp":"2026-01-31T09:15:01.000Z"}
    llm-calls ¦ {"model":"n","tokens_in":1,"response_preview":"done"}
    check ¦ "tool:Bash" ¦ allow
    POST runs/RUN/complete/ right ¦ {"status":"good"} ¦ allow
  )");
  EXPECT_EQ(lines(shown("/ui/runs/RUN").list("items")), R"(
 at=<now> kind=user_prompt name=p text=Größe "x"/y type=step
 action=deny at=<now> kind=guard_decision name=d position=1 rule=r type=step
 action=ask at=<now> kind=guard_decision name=e text=rm type=step
 at=2026-01-31 name=t text=ls tool=T type=step
 action=ask at=<now> kind=x name=c text=$1.5000 type=step
 at=<now> name=k type=step
 at=<now> name=n text=7 tokens type=step
 end=2026-02-01 kind=agent name=n status=ok text=i type=span
 at=2026-01-31T09:15:01.000Z cost=0.25 name=m tokens_in=7 tokens_out=5 type=call
 at=<now> name=n text=done tokens_in=1 type=call
 action=allow at=<now> name=tool:Bash type=check)");
  const Json::Object store = overview();
  EXPECT_EQ(lines(store.list("days")) + lines(store.list("models")) + lines({store.object("totals")}), R"(
 day=TODAY tokens_in=1
 cost=0.25 day=2026-01-31 tokens_in=7 tokens_out=5
 calls=1 cost=0.25 model=m tokens_in=7 tokens_out=5
 calls=1 model=n tokens_in=1
 allowed=2 asked=1 blocked=1 calls=2 cost=0.25 runs=2 steps=7 tokens_in=8 tokens_out=5)");
  EXPECT_EQ(
      lines({store.list("runs")[0]}),
      "\n agent=a allowed=1 asked=1 blocked=1 calls=2 completed_at=<now> cost=0.25 id=RUN session=s spans=1 "
      "started_at=<now> status=good steps=7 tokens=13 workflow=w");
}

TEST_F(ControlPlaneTest, GivesAnAgentOneRunADay) {
  play(R"(
    POST runs/daily/ right ¦ {"agent_slug":"a","agent_type":"claude-code"}                ¦ new TODAY
    POST runs/daily/ right ¦ {"agent_slug":"a","agent_type":"claude-code","date":"TODAY"} ¦ same TODAY
    POST runs/daily/ right ¦ {"agent_slug":"b","agent_type":"claude-code","date":""}      ¦ new TODAY
    POST runs/daily/ right ¦ {"agent_slug":"b","agent_type":"cursor"}                     ¦ new TODAY
    POST runs/daily/ right ¦ {"agent_slug":"b","agent_type":"cursor","date":"2026-01-31"} ¦ new 2026-01-31
    POST runs/daily/ right ¦ {"agent_slug":"b","agent_type":"cursor","date":"2026-01-31"} ¦ same 2026-01-31
  )");
}

TEST_F(ControlPlaneTest, RefusesWhatItCannotTakeAndKeepsNothingOfIt) {
  start();
  play(R"(
    POST runs/RUN/steps/ wrong    ¦ {} ¦ 401
    POST runs/RUN/steps/          ¦ {} ¦ 401
    POST runs/RUN/steps/ rightx   ¦ {} ¦ 401
    POST runs/RUN/steps/ righ     ¦ {} ¦ 401
    POST /api/x wrong             ¦ {} ¦ 401
    POST /api/x right             ¦ {} ¦ 404
    POST runs/RUN/steps right     ¦ {} ¦ 404
    POST runs/nope/steps/ right   ¦ {"steps":[]} ¦ 404
    POST runs//steps/ right       ¦ {"steps":[]} ¦ 404
    POST runs/a/b/steps/ right    ¦ {"steps":[]} ¦ 404
    POST runs/start/x right       ¦ {"agent_name":"a","workflow_name":"w"} ¦ 404
    GET  runs/RUN/steps/ right    ¦ ∅ ¦ 405
    POST /ui/overview             ¦ ∅ ¦ 405
    GET  /ui/runs/nope            ¦ ∅ ¦ 404
    GET  /ui/nothing              ¦ ∅ ¦ 404
    POST runs/RUN/steps/ right    ¦ ∅ ¦ 400
    POST runs/RUN/steps/ right    ¦ {"steps":[ ¦ 400
    POST runs/RUN/steps/ right    ¦ [] ¦ 400
    POST runs/RUN/steps/ right    ¦ {} ¦ 400
    POST runs/RUN/steps/ right    ¦ {"steps":[{"step_name":"good"},7]} ¦ 400
    POST runs/RUN/steps/ right    ¦ {"steps":[{"step_name":"good"},{"position":1}]} ¦ 400
    POST runs/start/ right        ¦ {"agent_name":"a"} ¦ 400
    POST runs/daily/ right        ¦ {} ¦ 400
    POST runs/daily/ right        ¦ {"agent_slug":"a","date":"today"} ¦ 400
    POST runs/daily/ right        ¦ {"agent_slug":"a","date":"2026-01-311"} ¦ 400
    POST policy-check/ right      ¦ {} ¦ 400
    POST runs/RUN/complete/ right ¦ {"status":"success","steps":1} ¦ 400
    POST runs/RUN/complete/ right ¦ {} ¦ 400
  )");
  const std::string step = R"({"step_name":"x"})", many = repeated(step + ",", 10'000) + step;
  EXPECT_EQ(play("POST runs/RUN/steps/ right", R"({"steps":[)" + many + "]}"), "413");
  EXPECT_EQ(play("POST runs/RUN/steps/ right", "{\"steps\":[{\"step_name\":\"\xff\"}]}"), "400");
  EXPECT_EQ(lines({overview().object("totals")}), "\n runs=1");
}

TEST_F(ControlPlaneTest, SumsWhateverNumbersItIsGivenAndShowsTheLatestOfAVeryLongRun) {
  start();
  play(R"(
    llm-calls ¦ {"model":"m","tokens_in":9223372036854775807,"tokens_out":9223372036854775807,"cost":1e308} ¦ ∅
    llm-calls ¦ {"model":"m","tokens_in":9223372036854775807,"tokens_out":-9223372036854775808,"cost":1e999}
    llm-calls ¦ {"model":"m","tokens_in":"12","tokens_out":{},"cost":null,"timestamp":"ÄÄÄÄÄÄÄ"}
    steps ¦ {"step_name":"x","output":{"kind":"pre_compact","tool_name":[1],"pre_tokens":9223372036854775807}}
    steps ¦ {"step_name":"x","position":"y","output":{"timestamp":{},"violations":"no","prompt":"\u0000\ud800"}}
    check ¦ "claude-code:precompact" ¦ allow
  )");
  EXPECT_EQ(lines({overview().object("totals")}),
            "\n allowed=1 calls=3 cost=2e+09 runs=1 steps=2 tokens_in=2000000000000");
  const std::string step = R"({"step_name":"x","position":)";
  EXPECT_EQ(play("steps", step + "8}," + step + "9}" + repeated("," + step + "7}", 999)), "");
  const Json::Object seen = shown("/ui/runs/RUN");
  ASSERT_EQ(seen.list("items").size(), 1'000u);
  EXPECT_EQ(seen.list("items")[0].asObject()->integer("position"), 9);
  EXPECT_EQ(seen.integer("total"), 1'007);
}

TEST_F(ControlPlaneTest, JudgesByThePolicyFileAsItIsNow) {
  plane.emplace(sandbox.home() + "/other.db", "right", policy);
  start();
  play("llm-calls", R"({"model":"m","tokens_in":1000000,"cost":99})");
  start();  // which has nothing to do with the other
  play(replaced(R"(
    policy ¦ {"cost_cap":0.5,"compaction_token_budget":{"warn":100}} ¦ ∅
    llm-calls ¦ {"model":"m","tokens_in":50,"tokens_out":10,"cost":0.5}
    POST runs/RUN/complete/ right ¦ {"status":"good"} ¦ allow
    steps ¦ {"step_name":"x","output":{"kind":"pre_compact","pre_tokens":40}}
    check ¦ "claude-code:precompact" ¦ allow
    steps ¦ {"step_name":"x","output":{"kind":"pre_compact","pre_tokens":41}}
    check ¦ "claude-code:precompact" ¦ warn The run has used 101 tokens; its budget is 100.
    check ¦ "claude-code:stop" ¦ allow
    llm-calls ¦ {"model":"m","tokens_out":10,"cost":0.25}
    POST runs/RUN/complete/ right ¦ {"status":"good"} ¦ warn The run cost $0.7500; its cap is $0.5000.
    policy ¦ {"compaction_token_budget":{"warn":110,"block":111}}
    check ¦ "claude-code:precompact" ¦ warn The run has used 111 tokens; its budget is 110.
    policy ¦ {"compaction_token_budget":{"warn":100,"block":110}}
    check ¦ "claude-code:precompact" ¦ block The run has used 111 tokens; its budget is 110.
    policy ¦ {"rules":[{"workflow":"*:pre*","action":"warn","reason":"a"}],"compaction_token_budget":{"warn":9}}
    check ¦ "claude-code:precompact" ¦ warn a
    policy ¦ {"rules":[{"workflow":"*:pre*","action":"warn","reason":"a"}],"compaction_token_budget":{"block":9}}
    check ¦ "claude-code:precompact" ¦ block The run has used 111 tokens; its budget is 9.
    policy ¦ {"note":1,"rules":[{"workflow":"t:a*","action":"allow"},{"workflow":"t:*","action":"block"}]}
    check  ¦ "t:abc" ¦ allow
    check  ¦ "t:b/c:d" ¦ block
    check  ¦ "xt:b" ¦ allow
    policy ¦ gone                           ¦ it cannot be read
    policy ¦ ∅                              ¦ it is not a JSON object
    policy ¦ []                             ¦ it is not a JSON object
    policy ¦ {"rules":[]},                  ¦ it is not a JSON object
    policy ¦ {"cost-cap":1}                 ¦ unknown member "cost-cap"
    policy ¦ {"cost_cap":"1"}               ¦ "cost_cap" is not a positive number
    policy ¦ {"cost_cap":0}                 ¦ "cost_cap" is not a positive number
    policy ¦ {"rules":{}}                   ¦ "rules" is not a list
    policy ¦ {"rules":["tool:Bash"]}        ¦ rule 1 is not an object
    policy ¦ {"rules":[{"workflow":"a","action":"warn"},{"action":"warn"}]} ¦ rule 2 needs a "workflow"
    policy ¦ {"rules":[{"workflow":"a"}]}   ¦ rule 1 needs an "action" that is "allow", "warn" or "block"
    policy ¦ {"rules":[{"workflow":"a","action":"warn","reasons":"x"}]} ¦ rule 1 has the unknown member "reasons"
    policy ¦ {"rules":[{"workflow":"a","action":"warn","reason":7}]} ¦ rule 1 has a "reason" that is not a string
    policy ¦ {"compaction_token_budget":5}  ¦ "compaction_token_budget" is not an object of "warn" and "block"
    policy ¦ {"compaction_token_budget":{"x":5}} ¦ "compaction_token_budget" is not an object of "warn" and "block"
    policy ¦ {"compaction_token_budget":{"warn":1.5}} ¦ "compaction_token_budget": "warn" WHOLE
    policy ¦ {"compaction_token_budget":{"block":0}} ¦ "compaction_token_budget": "block" WHOLE
    check  ¦ "t:b"  ¦ block
  )",
                "WHOLE", "is not a positive whole number"));
  EXPECT_EQ(shown("/ui/runs/RUN").list("items").size(), 15u) << "every check is kept";
  EXPECT_EQ(parsePolicies(contentOf(QUIB_SOURCE_DIR "/Docs/policy.example.json")).warnTokens, 150'000);
}

TEST_F(ControlPlaneTest, ShowsThePageToThisMachineOnlyAndOnceAsLongAsNothingIsNew) {
  Request message{.method = "GET", .fromLoopback = true};
  for (const auto& row : rows(R"(
    200 ¦ 127.0.0.1:8787 localhost:8787 localhost [::1]:8787 [::1]
    403 ¦ attacker.example:8787 localhost.attacker.example 127.0.0.1@attacker.example [::2] :8787
  )"))
    for (const std::string& host : words(row[1])) {
      message.host = host;
      for (const char* target : {"/", "/ui/overview"}) {
        message.target = target;
        EXPECT_EQ(std::to_string(send(message).status), row[0]) << host << target;
      }
    }
  message.fromLoopback = false, message.host = "localhost";
  EXPECT_EQ(send(message).status, 403);
  message.fromLoopback = true, message.known = send(message).tag;
  start();
  for (const char* what : {"steps", "spans", "llm-calls"}) {
    EXPECT_EQ(send(message).status, 200) << "before " << what;
    message.known = send(message).tag;
    EXPECT_EQ(send(message).status, 304) << "before " << what;
    play(what, R"({"step_name":"x","name":"x","model":"x"})");
  }
  EXPECT_EQ(send(message).status, 200);
}

TEST_F(ControlPlaneTest, KeepsItsDataPrivateAndRefusesAFileThatIsNotItsOwn) {
  EXPECT_EQ(Files::mode(data), 0600u);
  EXPECT_EQ(ControlPlane(sandbox.home() + "/other.db", "", "").key().size(), 48u);
  const std::string notes = sandbox.project() + "/notes", text(5'000, 'x');
  sandbox.write(notes, text);
  for (const auto& [path, problem] : {std::pair(notes, ": file is not a database"),
                                      {sandbox.project(), ": it cannot be opened for writing"}})
    try {
      const ControlPlane second(path, "k", "");
      ADD_FAILURE() << path;
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), path + problem);
    }
  EXPECT_EQ(contentOf(notes), text);
}

}  // namespace
