#include "Server/Server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <thread>

#include "Platform/Http/Http.h"
#include "Tests/Support/Sandbox.h"

namespace {

using namespace LocalControlPlane;
using namespace std::chrono_literals;

// A connection of its own to the server, to send whatever it likes.
class Connection {
 public:
  explicit Connection(const std::string& url) : descriptor_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1))));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const timeval patience{60, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  ~Connection() { close(descriptor_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count <= 0) return;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
  }
  // All that comes until the server closes, or until `enough` has come.
  std::string receive(std::string_view enough = "\x01") {
    std::string all;
    char bytes[4096];
    while (all.find(enough) == std::string::npos) {
      const ssize_t count = recv(descriptor_, bytes, sizeof bytes, 0);
      if (count < 0) ADD_FAILURE() << "neither an answer nor an end";
      if (count <= 0) break;
      all.append(bytes, static_cast<std::size_t>(count));
    }
    return all;
  }

 private:
  int descriptor_;
};

class LocalServerTest : public testing::Test {
 protected:
  void serve(Limits limits = {}) {
    server.emplace(plane, "127.0.0.1", 0, limits);
    thread = std::thread([this] { server->run(); });
  }
  ~LocalServerTest() override {
    server->stop();
    thread.join();
  }
  static std::string head(const std::string& more) {
    return "POST /api/v1/observe/runs/start/ HTTP/1.1\r\nHost: localhost\r\n" + more + "\r\n";
  }
  std::string statusOf(const std::string& bytes) {
    Connection connection(server->url());
    connection.send(bytes);
    return connection.receive().substr(9, 3);
  }
  bool answers() {
    return Http::exchange({"GET", server->url() + "/ui/overview", {}, ""}, {30s, 30s}).status == 200;
  }

  Sandbox sandbox;
  ControlPlane plane{sandbox.home() + "/data.db", "right", ""};
  std::optional<Server> server;
  std::thread thread;
};

TEST_F(LocalServerTest, SpeaksTheObserveApiWithTheHooksOwnClient) {
  serve();
  ObserveClient client = Sandbox::client(server->url(), "slug");
  EXPECT_FALSE(client.startRun("claude-code", "session:startup", {}, {}, "s", ""))
      << "the key is not this server's";
  client.config.apiKey = "right";
  const auto run = client.startRun("claude-code", "session:startup", {}, {}, "s", "");
  ASSERT_TRUE(run);
  EXPECT_NE(run->runID, "");
  EXPECT_NE(run->workflowID, "");
  EXPECT_EQ(run->startedAt.size(), 24u);
  const auto daily = client.startDailyRun("slug", "claude-code", "");
  ASSERT_TRUE(daily);
  EXPECT_TRUE(daily->created);
  EXPECT_EQ(daily->startedAt.substr(0, 10), daily->date);
  EXPECT_EQ(client.checkPolicy("claude-code", "tool:Bash", run->runID)->action, "allow");
  EXPECT_EQ(client.recordSteps(run->runID, {Json::Object{{"step_name", "hook:stop"}}})->integer("recorded"),
            1);
  EXPECT_EQ(client.recordLLMCalls(run->runID, {Json::Object{{"model", "m"}}})->integer("recorded"), 1);
  EXPECT_EQ(client.completeRun(run->runID, {}, "success", "", {})->runID, run->runID);
  EXPECT_FALSE(client.completeRun("unknown", {}, "success", "", {}));
}

TEST_F(LocalServerTest, AnswersWhatIsNotToBeTakenWithoutReadingItAll) {
  serve();
  const std::string large = std::string(15'000'000, 'x');
  const struct {
    const char* name;
    std::string bytes;
    const char* status;
  } cases[] = {
      {"noise", "\x16\x03\x01\x02\r\n\r\n", "400"},
      {"a head without end", head("X: " + std::string(100'000, 'x') + "\r\n"), "431"},
      {"a body that is announced too large", head("X-Quib-Key: right\r\nContent-Length: 99999999999\r\n"),
       "413"},
      {"a large body with a wrong key", head("X-Quib-Key: wrong\r\nContent-Length: 15000000\r\n") + large,
       "401"},
      {"a chunked body that grows too large",
       head("X-Quib-Key: right\r\nTransfer-Encoding: chunked\r\n") + "E4E1C0\r\n" + large + "\r\nE4E1C0\r\n" +
           large,
       "413"},
      {"a length that is none", head("X-Quib-Key: right\r\nContent-Length: -1\r\n"), "400"},
  };
  for (const auto& [name, bytes, status] : cases)
    EXPECT_EQ(statusOf(bytes), status) << name;
  EXPECT_TRUE(answers());
}

TEST_F(LocalServerTest, ServesManyRequestsOnOneConnection) {
  serve();
  Connection connection(server->url());
  const std::string body = R"({"agent_name":"a","workflow_name":"w"})";
  for (int i = 0; i < 3; ++i) {
    connection.send(head("X-Quib-Key: right\r\nContent-Length: " + std::to_string(body.size()) + "\r\n") +
                    body);
    EXPECT_NE(connection.receive("run_id").find("200 OK"), std::string::npos);
  }
}

TEST_F(LocalServerTest, SlowClientsHoldUpNobody) {
  serve();
  std::vector<std::unique_ptr<Connection>> slow;
  for (int i = 0; i < 60; ++i) {
    slow.push_back(std::make_unique<Connection>(server->url()));
    slow.back()->send(i % 3 == 0   ? ""
                      : i % 3 == 1 ? "POST /api"
                                   : head("X-Quib-Key: right\r\nContent-Length: 9\r\n") + "{");
  }
  EXPECT_TRUE(answers());
}

TEST_F(LocalServerTest, DropsAClientThatTakesTooLong) {
  Limits limits;
  limits.firstHead = limits.exchange = 100ms;
  serve(limits);
  for (const std::string& bytes :
       {std::string(), std::string("POST /api"), head("X-Quib-Key: right\r\nContent-Length: 9\r\n") + "{"}) {
    Connection connection(server->url());
    connection.send(bytes);
    EXPECT_EQ(connection.receive(), "") << bytes;
  }
}

TEST_F(LocalServerTest, TakesOnlySoManyConnectionsAtOnce) {
  Limits limits;
  limits.connections = 2;
  serve(limits);
  {
    Connection first(server->url()), second(server->url()), third(server->url());
    EXPECT_EQ(third.receive(), "");
  }
  for (int i = 0; i < 100 && !answers(); ++i)
    std::this_thread::yield();
  EXPECT_TRUE(answers()) << "a place has come free";
}

TEST_F(LocalServerTest, SaysWhyItCannotListen) {
  serve();
  const auto problem = [this](const std::string& address, std::uint16_t port) -> std::string {
    try {
      const Server second(plane, address, port);
    } catch (const ServerError& error) {
      return error.what();
    }
    return "";
  };
  const std::string url = server->url();
  const std::string port = url.substr(url.rfind(':') + 1);
  EXPECT_EQ(problem("127.0.0.1", static_cast<std::uint16_t>(std::stoi(port))),
            "cannot listen on 127.0.0.1 port " + port + ": Address already in use");
  EXPECT_EQ(problem("here", 0), "\"here\" is not an IP address");
}

// The executable itself, from its first line of output on.
class Process {
 public:
  explicit Process(const std::vector<std::string>& arguments) {
    int output[2];
    EXPECT_EQ(pipe(output), 0);
    id_ = fork();
    if (id_ == 0) {
      dup2(output[1], STDOUT_FILENO);
      dup2(output[1], STDERR_FILENO);
      std::vector<char*> values{const_cast<char*>(OBRISK_LOCAL_EXECUTABLE)};
      for (const std::string& argument : arguments)
        values.push_back(const_cast<char*>(argument.c_str()));
      values.push_back(nullptr);
      execv(OBRISK_LOCAL_EXECUTABLE, values.data());
      _exit(127);
    }
    close(output[1]);
    std::string line;
    for (char c; read(output[0], &c, 1) == 1 && said.find("agent_slug") == std::string::npos;)
      said += c;
    close(output[0]);
  }
  ~Process() { end(SIGKILL); }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  int end(int signal) {
    if (id_ <= 0) return -1;
    int status = 0;
    kill(id_, signal);
    waitpid(id_, &status, 0);
    id_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  std::string after(const std::string& words) const {
    const std::size_t start = said.find(words) + words.size();
    return said.substr(start, said.find('\n', start) - start);
  }

  std::string said;

 private:
  pid_t id_ = 0;
};

TEST(LocalExecutable, KeepsWhatItAnsweredWhenItIsKilled) {
  const Sandbox sandbox;
  const std::vector<std::string> arguments{"--port", "0", "--data", sandbox.home() + "/data.db"};
  std::string run, key;
  {
    Process process(arguments);
    ObserveClient client = Sandbox::client(process.after("api_url = "));
    key = client.config.apiKey = process.after("api_key = ");
    const auto started = client.startRun("claude-code", "session:startup", {}, {}, "", "");
    ASSERT_TRUE(started) << process.said;
    run = started->runID;
    const Process second(arguments);
    EXPECT_NE(second.said.find("another obrisk-local is using it"), std::string::npos) << second.said;
    EXPECT_EQ(process.end(SIGKILL), 128 + SIGKILL);
  }
  Process process(arguments);
  EXPECT_EQ(process.after("api_key = "), key);
  ObserveClient client = Sandbox::client(process.after("api_url = "));
  client.config.apiKey = key;
  EXPECT_TRUE(client.recordSteps(run, {Json::Object{{"step_name", "hook:stop"}}}));
  EXPECT_EQ(process.end(SIGTERM), 0);
}

TEST(LocalExecutable, RefusesToStartWithWhatItCannotUse) {
  const Sandbox sandbox;
  const std::string policy = sandbox.project() + "/policy.json", data = sandbox.home() + "/data.db";
  sandbox.write(policy, R"({"rules":1})");
  const struct {
    std::vector<std::string> arguments;
    const char* words;
  } cases[] = {
      {{"--port"}, "obrisk-local [OPTION VALUE]"},
      {{"--port", "65536"}, "obrisk-local [OPTION VALUE]"},
      {{"--prot", "1"}, "obrisk-local [OPTION VALUE]"},
      {{"--port", "0", "--data", data, "--policy", policy}, "policy.json: \"rules\" is not a list"},
      {{"--port", "0", "--data", data, "--policy", policy + "x"}, "policy.jsonx: it cannot be read"},
      {{"--port", "0", "--data", data, "--listen", "::zz"}, "\"::zz\" is not an IP address"},
  };
  for (const auto& [arguments, words] : cases) {
    Process process(arguments);
    EXPECT_NE(process.said.find(words), std::string::npos) << process.said;
  }
}

}  // namespace
