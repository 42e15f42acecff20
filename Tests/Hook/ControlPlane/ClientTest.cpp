// What is asked of the control plane, and the log of it.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>

#include "Hook/ControlPlane/ActivityLog.h"
#include "Hook/ControlPlane/ObserveClient.h"
#include "Platform/Files.h"
#include "Shared/HardwareID.h"
#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

using namespace std::chrono_literals;
using Reply = FakeControlPlane::Reply;

namespace {

struct Client : testing::Test {
  ObserveClient client(const std::string& url) const {
    ObserveClient result{{url, "k-secret", "configured", "allow"}};
    result.timeout.idle = 10s;
    result.retryBaseDelay = 1ms;
    return result;
  }
  ObserveClient client() const { return client(server.url()); }

  std::vector<Json::Object> log() const { return jsonLines(sandbox.activityLog()); }

  Sandbox sandbox;
  FakeControlPlane server;
};

TEST_F(Client, PostsOneObjectWithTheKey) {
  for (const std::string around : {"", "/", "///"}) {
    client(server.url() + around).post("/api/v1/x/", {{"a", "b/c"}}, "");
    auto request = server.requests().back();
    EXPECT_EQ(request.method + " " + request.target + " " + request.body, R"(POST /api/v1/x/ {"a":"b\/c"})");
    EXPECT_EQ(request.headers.erase("host") + request.headers.erase("content-length"), 2u);
    EXPECT_EQ(request.headers, (std::map<std::string, std::string>{{"content-type", "application/json"},
                                                                   {"x-quib-key", "k-secret"}}));
  }
  EXPECT_EQ(server.connections(), 1);
}

TEST_F(Client, SendsAndLogsNothingWithoutAUsableEndpoint) {
  const std::string host = "http://127.0.0.1";
  for (const std::string& url : {std::string(), std::string("http://a b"), host + ":abc", host + ":-1",
                                 host + ":65536", server.url() + "x", server.url() + ".example"})
    EXPECT_EQ(client(url).post("/x/", {}, ""), std::nullopt) << url;
  ObserveClient keyless = client();
  keyless.config.apiKey = "";
  EXPECT_EQ(keyless.post("/x/", {}, ""), std::nullopt);
  EXPECT_EQ(server.connections(), 0);
  EXPECT_TRUE(log().empty());
}

TEST_F(Client, EveryAnswerHasItsOutcome) {
  // Status and body of each answer in turn (0: a connection that closes), the result, the bytes of the last.
  for (const auto& row : rows(R"(
200={"a":1}        ¦ {"a":1} ¦ 7
204                ¦ {}      ¦ 0
200                ¦ {}      ¦ 0
200=[1]            ¦ {}      ¦ 3
200=<html>         ¦ {}      ¦ 6
299={}             ¦ {}      ¦ 2
400={}             ¦ none    ¦ 2
499                ¦ none    ¦ 0
300 300 300        ¦ none    ¦ 0
399 503 503={}     ¦ none    ¦ 2
500 599 200        ¦ {}      ¦ 0
503 403            ¦ none    ¦ 0
0 200={"a":1}      ¦ {"a":1} ¦ 7
0 0 0              ¦ none    ¦ 0
)")) {
    Files::remove(sandbox.activityLog());
    std::string statuses;
    for (const auto& answer : words(row[0])) {
      const auto status = answer.substr(0, answer.find('='));
      const auto body = answer.substr(std::min(status.size() + 1, answer.size()));
      statuses += status + (status == "0" ? " error " : " ");
      server.next({status == "0" ? FakeControlPlane::failing(FakeControlPlane::Fault::closeInHead)
                                 : FakeControlPlane::status(std::stoi(status), body)});
    }
    const auto before = server.requests().size();
    const auto result = client().post("/x/", {{"n", 1}}, "a summary");
    EXPECT_EQ(result ? Json(*result).compact() : "none", row[1]) << row[0];
    std::string logged;
    for (const auto& line : log()) {
      logged += std::to_string(line.integer("status")) + (line.find("error") ? " error " : " ");
      EXPECT_EQ(line.text("summary") + " " + line.text("url"), "a summary " + server.url() + "/x/");
    }
    EXPECT_EQ(logged, statuses);
    EXPECT_EQ(std::to_string(log().back().integer("bytes")), row[2]) << row[0];
    EXPECT_EQ(server.requests().size() - before, log().size());
  }
}

TEST_F(Client, PausesTwiceAsLongAfterEachFailureAndNotAfterTheLast) {
  ObserveClient patient = client("http://127.0.0.1:1");
  patient.retryBaseDelay = 100ms;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(patient.post("/x/", {}, ""), std::nullopt);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
  EXPECT_EQ(log().size(), 3u);
  EXPECT_NE(log().back().text("error").find("refused"), std::string::npos);

  ObserveClient hasty = client();
  hasty.maxAttempts = 1;
  hasty.retryBaseDelay = 1h;
  hasty.timeout = {10s, 150ms};
  server.next({FakeControlPlane::failing(FakeControlPlane::Fault::silence)});
  EXPECT_EQ(hasty.post("/x/", {}, ""), std::nullopt);
  EXPECT_EQ(log().size(), 4u);
  EXPECT_GE(log().back().integer("ms"), 150);
  EXPECT_EQ(log().back().find("error"), nullptr);
}

TEST_F(Client, NoFailureWritesAKeyOrAPassword) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  server.on("*", {.closeAfter = true, .raw = "k-secret k-secret\r\n\r\n"});
  server.on("/503/*", FakeControlPlane::status(503, "k-secret"));
  const std::string at = "user:p-secret@", host = server.url().substr(7);
  for (const std::string& url :
       {"http://" + at + host, "http://" + at + host + "/503", "https://" + at + host,
        "http://" + at + "127.0.0.1:1", "http:/" + at + host, at + host})
    client(url).post("/x/", {}, "");
  ObserveClient broken = client();
  broken.config.apiKey = "k-secret\r\nX: y";
  broken.post("/x/", {}, "");
  for (const std::string scheme : {"http", "socks5"}) {
    sandbox.set("HTTP_PROXY", scheme + "://" + at + "127.0.0.1:1");
    client("http://control.test").post("/x/", {}, "");
  }
  std::string written = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
  EXPECT_EQ(log().size(), 27u);
  for (const auto& name : Sandbox::tree(sandbox.root()))
    written += Files::read(sandbox.root() + "/" + name).value_or("");
  EXPECT_EQ(written.find("secret"), std::string::npos);
}

TEST_F(Client, EachOperationHasItsPathSummaryAndBody) {
  const Json::Object o{{"x", 1}};
  const Json::Array one{o}, three{o, o, o};
  ObserveClient c = client();
  c.startRun("a", "w", o, o, "i", "s");
  c.startRun("", "", {}, {}, "", "");
  c.startDailyRun("", "", "");
  c.startDailyRun("s", "t", "2026-01-31");
  c.checkPolicy("a", "w", "i", Json::Object{}, "", "");
  c.checkPolicy("a", "w", "i", o, "u", "g");
  c.recordSteps("r%2f", one);
  c.recordSteps("", three);
  c.recordLLMCalls("r", three);
  c.completeRun("r", o, "s", "e", one);
  c.completeRun("r", {}, "", "", {});
  c.config.agentSlug = "";
  c.startRun("a", "w", {}, {}, "", "");
  EXPECT_FALSE(c.recordSteps("r", {}));
  EXPECT_FALSE(c.recordLLMCalls("r", {}));
  EXPECT_FALSE(c.recordSteps("r 1", one)) << "a run id with a space makes no URL";
  const auto requests = server.requests();
  const auto lines = log();
  const std::string uuid = Json(HardwareID::uuid()).compact();
  std::size_t next = 0;
  for (const auto& row : rows(R"(
runs/start/       ¦ none    ¦ {agent_name:"a",workflow_name:"w",inputs:O,metadata:O,session_id:"i",agent_slug:"s"}
runs/start/       ¦ none    ¦ {agent_name:"",workflow_name:"",inputs:{},metadata:{},agent_slug:"configured"}
runs/daily/       ¦ none    ¦ {agent_slug:"",agent_type:""}
runs/daily/       ¦ none    ¦ {agent_slug:"s",agent_type:"t",date:"2026-01-31"}
policy-check/     ¦ none    ¦ {agent_name:"a",workflow_name:"w",agent_id:"i"}
policy-check/     ¦ none    ¦ {agent_name:"a",workflow_name:"w",agent_id:"i",inputs:O,user_id:"u",user_group:"g"}
runs/r%2f/steps/  ¦ 1 step  ¦ {steps:[O],hardware_uuid:UUID}
runs//steps/      ¦ 3 steps ¦ {steps:[O,O,O],hardware_uuid:UUID}
runs/r/llm-calls/ ¦ 3 calls ¦ {calls:[O,O,O],hardware_uuid:UUID}
runs/r/complete/  ¦ none    ¦ {result:O,status:"s",error:"e",steps:[O]}
runs/r/complete/  ¦ none    ¦ {result:{},status:"",error:"",steps:[]}
runs/start/       ¦ none    ¦ {agent_name:"a",workflow_name:"w",inputs:{},metadata:{}}
)")) {
    std::string body = std::regex_replace(row[2], std::regex("([a-z_]+):"), "\"$1\":");
    body =
        std::regex_replace(std::regex_replace(body, std::regex("UUID"), uuid), std::regex("O"), R"({"x":1})");
    EXPECT_EQ(requests.at(next).target, "/api/v1/observe/" + row[0]);
    EXPECT_EQ(requests.at(next).json, parsed(body));
    EXPECT_EQ(lines.at(next++).optionalText("summary").value_or("none"), row[1]) << row[0];
  }
  EXPECT_EQ(requests.size(), next);
}

std::string joined(std::initializer_list<std::string> members) {
  std::string text;
  for (const auto& member : members)
    text += (text.empty() ? "" : " ") + (member.empty() ? "-" : member);
  return text;
}

// What the operation makes of the answer, member by member.
std::string resultOf(const std::string& operation, const ObserveClient& client) {
  if (operation == "start") {
    if (const auto run = client.startRun("", "", {}, {}, "", ""))
      return joined({run->runID, run->workflowID, run->startedAt});
  } else if (operation == "daily") {
    if (const auto run = client.startDailyRun("", "", ""))
      return joined({run->runID, run->workflowID, run->startedAt, run->date, run->created ? "new" : ""});
  } else if (operation == "policy") {
    if (const auto policy = client.checkPolicy("", "", ""))
      return joined({policy->action, policy->reason, Json(policy->metadata).compact(),
                     Json(Json::Array(policy->evaluations.begin(), policy->evaluations.end())).compact()});
  } else if (operation == "complete") {
    if (const auto end = client.completeRun("own", {}, "", "", {}))
      return joined(
          {end->runID, end->action, end->reason, end->retryFeedback, std::to_string(end->maxRetries)});
  } else if (const auto answer = client.recordSteps("r", {Json::Object{}})) {
    return Json(*answer).compact();
  }
  return "none";
}

TEST_F(Client, AnswersFillTheirRecordsAndWhatIsMissingOrMistypedTheDefaults) {
  for (const auto& row : rows(R"(
start    ¦ {"run_id":"r","workflow_id":"w","started_at":"t"}                           ¦ r w t
start    ¦ {"run_id":1,"workflow_id":null,"started_at":[]}                             ¦ - - -
start    ¦ []                                                                          ¦ - - -
daily    ¦ {"run_id":"r","workflow_id":"w","started_at":"t","date":"d","created":true} ¦ r w t d new
daily    ¦ {"date":2,"created":"true"}                                                 ¦ - - - - -
daily    ¦ {"created":1}                                                               ¦ - - - - -
policy   ¦ {"action":"a","reason":"y","metadata":{"m":1},"evaluations":[{"e":1},{}]}   ¦ a y {"m":1} [{"e":1},{}]
policy   ¦ {"action":1,"reason":2,"metadata":[],"evaluations":{}}                      ¦ allow - {} []
policy   ¦ {"evaluations":[{},1]}                                                      ¦ allow - {} []
policy   ¦ ∅                                                                           ¦ allow - {} []
complete ¦ {"run_id":"q","governance":{"action":"a","reason":"y","max_retries":2.0}}   ¦ q a y - 2
complete ¦ {"governance":{"retry_feedback":"f","max_retries":"2"}}                     ¦ own allow - f 0
complete ¦ {"run_id":1,"governance":{"action":null,"reason":1,"max_retries":2.5}}      ¦ own allow - - 0
complete ¦ {"governance":"x"}                                                          ¦ own allow - - 0
steps    ¦ {"any":["thing"]}                                                           ¦ {"any":["thing"]}
start    ¦ refused                                                                     ¦ none
daily    ¦ refused                                                                     ¦ none
policy   ¦ refused                                                                     ¦ none
complete ¦ refused                                                                     ¦ none
steps    ¦ refused                                                                     ¦ none
)")) {
    server.next(
        {row[1] == "refused" ? FakeControlPlane::status(403) : FakeControlPlane::status(200, row[1])});
    EXPECT_EQ(resultOf(row[0], client()), row[2]) << row[0] << " " << row[1];
  }
}

TEST_F(Client, ItsLogHasOneSortedLineForEachAttempt) {
  ActivityLog::record("POST", "//u:p-secret@a/x", 200, 12, 34, "3 steps", std::nullopt);
  ActivityLog::record("POST", "/", 0, 5, 0, "", "a \"bad\"\nend");
  ActivityLog::record("POST", "/", 0, 5, 0, "", "");
  std::string expected;
  for (const auto& row : rows(R"(
{"bytes":34,"daemon":"hook","method":"POST","ms":12,@,"status":200,"summary":"3 steps",@,"url":"\/\/a\/x"}
{"bytes":0,"daemon":"hook","error":"a \"bad\"\nend","method":"POST","ms":5,@,"status":0,@,"url":"\/"}
{"bytes":0,"daemon":"hook","method":"POST","ms":5,@,"status":0,@,"url":"\/"}
)"))
    expected += row[0] + "\n";
  const std::regex own(R"("ts":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"|"pid":)" +
                       std::to_string(::getpid()));
  EXPECT_EQ(std::regex_replace(contentOf(sandbox.activityLog()), own, "@"), expected);
}

TEST_F(Client, SixtyFourProcessesAtOnceNeverInterleaveALineOfTheLog) {
  constexpr int processes = 64, records = 20;
  const std::string summary(3'000, 's');
  int gate[2];
  ASSERT_EQ(::pipe(gate), 0);
  for (int i = 0; i < processes; ++i) {
    if (::fork() != 0) continue;
    char byte;
    ::close(gate[1]);
    if (::read(gate[0], &byte, 1) != 0) ::_exit(1);  // all start when the gate closes
    for (int n = 0; n < records; ++n)
      ActivityLog::record("POST", "u", n, i, 0, summary, std::nullopt);
    ::_exit(0);
  }
  ::close(gate[0]);
  ::close(gate[1]);
  for (int i = 0, status = 1; i<processes&& ::wait(&status)> 0; ++i)
    EXPECT_EQ(status, 0);
  std::set<std::pair<std::int64_t, std::int64_t>> distinct;
  for (const auto& line : log()) {
    EXPECT_EQ(line.text("summary"), summary);
    distinct.emplace(line.integer("ms"), line.integer("status"));
  }
  EXPECT_EQ(distinct.size(), std::size_t{processes * records});
  EXPECT_EQ(log().size(), distinct.size());
}

}  // namespace
