#include "Server/Server.h"

#include <SQLiteCpp/Database.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <regex>
#include <thread>

#include "Tests/Support/Program.h"
#include "Tests/Support/Repeated.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

namespace {

using namespace LocalControlPlane;
using namespace std::chrono_literals;

// A connection of its own to the server, to send whatever it likes.
struct Connection {
  explicit Connection(const Server& server) {
    sockaddr_in address{AF_INET, htons(portOf(server)), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const timeval patience{60, 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  ~Connection() { ::close(descriptor); }
  static std::uint16_t portOf(const Server& server) {
    return static_cast<std::uint16_t>(std::stoi(server.url().substr(server.url().rfind(':') + 1)));
  }
  void send(const std::string& bytes) const { ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  // All that comes until the server closes.
  std::string receive() const {
    std::string all;
    char bytes[4096];
    ssize_t count;
    while ((count = ::recv(descriptor, bytes, sizeof bytes, 0)) > 0)
      all.append(bytes, static_cast<std::size_t>(count));
    EXPECT_TRUE(count == 0 || errno == ECONNRESET) << "neither an answer nor an end";
    return all;
  }
  const int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
};

// What stands behind the first `before`, up to the next `behind`.
std::string between(const std::string& text, const std::string& before, const std::string& behind) {
  const std::size_t start = text.find(before) + before.size();
  return text.substr(start, text.find(behind, start) - start);
}

struct ServerTest : testing::Test {
  void serve(const Limits& limits = {}) {
    server.emplace(*plane, "127.0.0.1", 0, limits);
    thread = std::thread([this] { server->run(); });
  }
  ~ServerTest() override {
    server->stop();
    thread.join();
  }
  std::string answer(const std::string& bytes) const {
    const Connection connection(*server);
    connection.send(bytes);
    return connection.receive();
  }
  std::string status(const std::string& bytes) const { return answer(bytes).substr(9, 3); }
  static std::string get(const std::string& target, const std::string& headers = "") {
    return "GET " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" + headers + "\r\n";
  }
  static std::string start(const std::string& headers, const std::string& body = "") {
    return "POST /api/v1/observe/runs/start/ HTTP/1.1\r\n" + headers + "\r\n\r\n" + body;
  }
  static std::string post(const std::string& path, const std::string& body,
                          const std::string& headers = "Connection: close\r\n") {
    return "POST /api/v1/observe/" + path + " HTTP/1.1\r\nX-Quib-Key: right\r\n" + headers +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }

  Sandbox sandbox;
  std::string data = sandbox.home() + "/data.db", begun = R"({"agent_name":"a","workflow_name":"w"})";
  // Beginnings of requests.
  std::vector<std::string> parts{"", "POST /api", start("X-Quib-Key: right\r\nContent-Length: 9", "{")};
  std::optional<ControlPlane> plane{std::in_place, data, "right", ""};
  std::optional<Server> server;
  std::thread thread;
};

TEST_F(ServerTest, SpeaksTheObserveApiWithTheHooksOwnClient) {
  serve();
  ObserveClient client = Sandbox::client(server->url(), "slug");
  EXPECT_FALSE(client.startRun("a", "w", {}, {}, "s", "")) << "the key is not this server's";
  client.config.apiKey = "right";
  const std::string run = client.startRun("a", "w", {}, {}, "s", "").value().runID;
  EXPECT_TRUE(client.startDailyRun("slug", "a", "").value().created);
  EXPECT_EQ(client.checkPolicy("a", "tool:Bash", run)->action, "allow");
  EXPECT_EQ(client.recordSteps(run, {Json::Object{{"step_name", "x"}}})->integer("recorded"), 1);
  EXPECT_EQ(client.recordLLMCalls(run, {Json::Object{{"model", "m"}}})->integer("recorded"), 1);
  EXPECT_EQ(client.completeRun(run, {}, "success", "", {})->runID, run);
  EXPECT_FALSE(client.completeRun("unknown", {}, "success", "", {}));
}

TEST_F(ServerTest, ConfiguresAnEnrolledMachine) {
  serve();
  for (const auto& row : rows(R"(
    ?x=1&process=Cursor ¦ home ¦ right ¦ {"agent_slug":"cursor","agent_type":"cursor","upload_api_key":"right"}
    ?process=my%20agent ¦ home ¦ right ¦ {"agent_slug":"my agent","agent_type":"my agent","upload_api_key":"right"}
    ?process=claude ¦ home ¦ right ¦ {"agent_slug":"claude-code","agent_type":"claude-code","upload_api_key":"right"}
    ?processes=a    ¦ home ¦ right ¦ {"agent_slug":"claude-code","agent_type":"claude-code","upload_api_key":"right"}
    ?process=claude ¦ ∅    ¦ right ¦ {"error":"a tenant is needed"}
    ?process=claude ¦ home ¦ wrong ¦ {"error":"the key is wrong"}
  )")) {
    const std::string text =
        answer(get("/api/obrisk/v1/endpoint/agent-config/" + row[0],
                   "X-Quib-Tenant: " + row[1] + "\r\nX-Quib-Device: " + row[2] + "\r\n"));
    EXPECT_EQ(text.substr(text.find("\r\n\r\n") + 4), row[3]) << text;
  }
}

TEST_F(ServerTest, LetsNoOtherPageReadOrRunAnything) {
  serve();
  const std::string overview = answer(get("/ui/overview")), tag = between(overview, "ETag: ", "\r\n");
  EXPECT_EQ(std::regex_replace(overview.substr(0, overview.find("ETag")), std::regex("\r"), ""),
            R"(HTTP/1.1 200 OK
Content-Type: application/json
Cache-Control: no-store
X-Content-Type-Options: nosniff
Cross-Origin-Resource-Policy: same-origin
Referrer-Policy: no-referrer
Content-Security-Policy: default-src 'none'; connect-src 'self'; img-src data:; script-src 'none'; )"
            R"(style-src 'none'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'
)");
  EXPECT_EQ(status(get("/ui/overview", "If-None-Match: " + tag + "\r\n")), "304");
  const std::string page = answer(get("/")), nonce = between(page, "script-src 'nonce-", "'");
  EXPECT_EQ(between(page, "Content-Type: ", "\r\n"), "text/html; charset=utf-8");
  EXPECT_EQ(between(page, "style-src 'nonce-", "'"), nonce);
  EXPECT_EQ(between(page, "<script nonce=\"", "\""), nonce);
  EXPECT_NE(between(answer(get("/")), "<script nonce=\"", "\""), nonce) << "a new one each time";
}

TEST_F(ServerTest, AnswersWhatIsNotToBeTakenWithoutReadingItAll) {
  serve();
  const std::string large(15'000'000, 'x'), key = "X-Quib-Key: right\r\n";
  constexpr std::size_t most = 16'384 - 7;  // of one field's value, in the limit for a head
  for (const auto& [expected, bytes] : {
           std::pair<const char*, std::string>{"400", "\x16\x03\x01\x02\r\n\r\n"},
           {"200", get("/ui/overview", "X: " + std::string(most, 'x') + "\r\n")},
           {"431", get("/ui/overview", "X: " + std::string(most + 1, 'x') + "\r\n")},
           {"431", start("X: " + std::string(100'000, 'x'))},
           {"413", start(key + "Content-Length: 16777217")},
           {"400", start(key + "Content-Length: -1")},
           {"401", start("X-Quib-Key: wrong\r\nContent-Length: 15000000", large)},
           {"413",
            start(key + "Transfer-Encoding: chunked", "E4E1C0\r\n" + large + "\r\nE4E1C0\r\n" + large)},
       })
    EXPECT_EQ(status(bytes), expected) << bytes.substr(0, 200);
  EXPECT_EQ(status(get("/ui/overview")), "200");
}

TEST_F(ServerTest, SaysSoWhenItCannotStoreAndStoresNothingInPart) {
  plane.reset();
  SQLite::Database(data, SQLite::OPEN_READWRITE).exec(R"(CREATE TRIGGER full BEFORE INSERT ON steps
      WHEN NEW.position = 1 BEGIN SELECT RAISE(FAIL, 'full'); END)");
  plane.emplace(data, "right", "");
  serve();
  const std::string run = between(answer(post("runs/start/", begun)), "\"run_id\":\"", "\""),
                    two = R"({"steps":[{"step_name":"x"},{"step_name":"x","position":1}]})";
  const std::string refused = answer(post("runs/" + run + "/steps/", two));
  EXPECT_EQ(refused.substr(9, 3), "500");
  EXPECT_TRUE(refused.ends_with(R"({"error":"this could not be stored"})")) << refused;
  EXPECT_EQ(between(answer(get("/ui/overview")), "\"steps\":", ","), "0");
}

TEST_F(ServerTest, ServesManyRequestsOnOneConnectionUntilItIsIdle) {
  serve({.idle = 50ms});
  const std::string all = answer(post("runs/start/", begun, "") + post("runs/start/", begun, ""));
  EXPECT_NE(all.find("200 OK", all.find("run_id")), all.npos) << all;
}

TEST_F(ServerTest, SlowClientsHoldUpNobody) {
  serve();
  std::list<Connection> slow;
  for (int i = 0; i < 20; ++i)
    for (const std::string& bytes : parts)
      slow.emplace_back(*server).send(bytes);
  EXPECT_EQ(status(get("/ui/overview")), "200");
}

TEST_F(ServerTest, DropsAClientThatTakesTooLong) {
  serve({.firstHead = 100ms, .exchange = 100ms});
  for (const std::string& bytes : parts)
    EXPECT_EQ(answer(bytes), "") << bytes;
}

TEST_F(ServerTest, TakesOnlySoManyConnectionsAtOnce) {
  serve({.connections = 2});
  {
    const Connection first(*server), second(*server), third(*server);
    EXPECT_EQ(third.receive(), "");
  }
  std::string freed;
  for (int i = 0; i < 10'000 && freed.empty(); ++i)
    freed = answer(get("/ui/overview"));
  EXPECT_EQ(freed.substr(9, 3), "200") << "a place has come free";
}

TEST_F(ServerTest, SaysWhyItCannotListen) {
  serve();
  const std::string port = std::to_string(Connection::portOf(*server));
  for (const auto& [address, problem] :
       {std::pair<const char*, std::string>{
            "127.0.0.1", "cannot listen on 127.0.0.1 port " + port + ": Address already in use"},
        {"here", "\"here\" is not an IP address"}})
    try {
      const Server second(*plane, address, Connection::portOf(*server));
      ADD_FAILURE() << address;
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), problem);
    }
}

TEST(LocalExecutable, KeepsWhatItAnsweredAndItsKeyWhenItIsKilled) {
  Sandbox sandbox;
  sandbox.set("XDG_DATA_HOME", sandbox.home() + "/data");
  const auto clientOf = [](const Program& program) {
    ObserveClient client = Sandbox::client(program.after("api_url = "));
    client.config.apiKey = program.after("api_key = ");
    return client;
  };
  Program killed(OBRISK_LOCAL_EXECUTABLE, {"--port", "0"}, "agent_slug = my-agent\n");
  const std::string run = clientOf(killed).startRun("a", "w", {}, {}, "", "").value().runID;
  EXPECT_EQ(Program(OBRISK_LOCAL_EXECUTABLE, {"--port", "0"}, "agent_slug").said(),
            "obrisk-local: " + sandbox.home() +
                "/data/obrisk/control-plane.db: another obrisk-local is using it\n");
  EXPECT_EQ(killed.end(SIGKILL), 128 + SIGKILL);
  Program again(OBRISK_LOCAL_EXECUTABLE, {"--port", "0"}, "agent_slug");
  EXPECT_EQ(again.after("api_key = "), killed.after("api_key = "));
  EXPECT_TRUE(clientOf(again).recordSteps(run, {Json::Object{{"step_name", "x"}}}));
  EXPECT_EQ(again.end(SIGTERM), 0);
}

TEST(LocalExecutable, RefusesToStartWithWhatItCannotUse) {
  const Sandbox sandbox;
  sandbox.write(sandbox.home() + "/policy.json", R"({"rules":1})");
  for (const auto& row : rows(R"(
    --port                                            ¦ obrisk-local [OPTION VALUE]
    --port 65536                                      ¦ obrisk-local [OPTION VALUE]
    --port 123456                                     ¦ obrisk-local [OPTION VALUE]
    --port 12ab                                       ¦ obrisk-local [OPTION VALUE]
    --prot 1                                          ¦ obrisk-local [OPTION VALUE]
    --port 0 --data HOME/data --policy HOME/policy.json    ¦ policy.json: "rules" is not a list
    --port 0 --data HOME/data --policy HOME/policy.jsonx   ¦ policy.jsonx: it cannot be read
    --port 0 --data HOME/data --listen ::zz                ¦ "::zz" is not an IP address
  )")) {
    const auto arguments = words(std::regex_replace(row[0], std::regex("HOME"), sandbox.home()));
    Program program(OBRISK_LOCAL_EXECUTABLE, arguments, "agent_slug");
    EXPECT_NE(program.said().find(row[1]), std::string::npos) << program.said();
  }
}

}  // namespace
