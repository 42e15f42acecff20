#include "Platform/Http/Http.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>

#include <algorithm>
#include <ctime>

#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using Fault = FakeControlPlane::Fault;
using Reply = FakeControlPlane::Reply;

namespace {

const std::string large(16 * 1024 * 1024, 'x'), ok = "HTTP/1.1 200 OK\r\n",
                                                interim = "HTTP/1.1 100 Continue\r\n\r\n";

// The error, or status and body; "0" when the time has run out.
std::string outcomeOf(const std::string& url, const std::string& body = "{}",
                      const Http::Timeouts& timeout = {3s, 20s}) {
  const auto answer = Http::exchange({"POST", url, {{"X-Quib-Key", "k\tsecret"}}, body}, timeout);
  return (answer.error ? *answer.error + " " : "") + std::to_string(answer.status) + answer.body;
}

Reply raw(std::string bytes) {
  return {.raw = std::move(bytes)};
}

struct HttpTest : testing::Test {
  Sandbox sandbox;
};

TEST_F(HttpTest, SendsTheRequestAsItIsGiven) {
  FakeControlPlane server;
  const std::string body("{\"a\":\"\0b\"}", 10), host = server.url().substr(7);
  outcomeOf(server.url() + "/a/b%20c?d=e#f", body);
  Http::exchange({"GET", server.url(), {}, ""}, {3s, 20s});
  const auto first = server.requests().at(0), second = server.requests().at(1);
  using Headers = std::map<std::string, std::string>;
  EXPECT_EQ(first.method + " " + first.target, "POST /a/b%20c?d=e");
  EXPECT_EQ(first.headers, (Headers{{"content-length", "10"}, {"host", host}, {"x-quib-key", "k\tsecret"}}));
  EXPECT_EQ(first.body, body);
  EXPECT_EQ(second.method + " " + second.target, "GET /");
  EXPECT_EQ(second.headers, (Headers{{"host", host}}));
}

TEST_F(HttpTest, TakesEveryWholeAnswerAndFollowsNone) {
  FakeControlPlane server, elsewhere;
  const Reply rows[] = {{.untilClose = true},
                        {.drip = 1ms, .chunked = true},
                        {.body = large},
                        {.before = interim + "HTTP/1.1 103 Early\r\n\r\n"},
                        {.status = 307, .headers = {{"Location", elsewhere.url()}}}};
  for (const auto& reply : rows) {
    server.next({reply});
    EXPECT_TRUE(outcomeOf(server.url()) == std::to_string(reply.status) + reply.body) << &reply - rows;
  }
  EXPECT_EQ(elsewhere.connections(), 0);
}

TEST_F(HttpTest, TakesABrokenAnswerForATransportErrorAtOnce) {
  const std::pair<const char*, Reply> rows[] = {
      {"the connection was closed", {.fault = Fault::closeBeforeHead}},
      {"Connection reset by peer", {.fault = Fault::resetBeforeHead}},
      {"partial message", {.fault = Fault::closeInBody}},
      {"bad version", raw("SSH-2.0-OpenSSH_9.2\r\n")},
      {"header limit exceeded", {.headers = {{"X", large}}}},
      {"body limit exceeded", {.fault = Fault::endlessBody}},
  };
  for (const auto& [problem, reply] : rows) {
    FakeControlPlane server;
    server.next({reply});
    EXPECT_EQ(outcomeOf(server.url(), std::string(100'000, 'b')),
              "asking " + server.url().substr(7) + ": " + problem + " 0");
    EXPECT_EQ(server.requests().size(), 1u) << problem;
  }
}

TEST_F(HttpTest, SeesARefusalThatComesBeforeTheRequestIsSent) {
  const Reply rows[] = {{.status = 413, .closeAfter = true},
                        {.status = 413, .untilClose = true},
                        {.status = 413, .before = interim}};
  for (const auto& reply : rows) {
    FakeControlPlane server({.hasty = true});
    server.next({reply});
    EXPECT_EQ(outcomeOf(server.url(), large), "413{}");
    EXPECT_EQ(outcomeOf(server.url()), "200{}") << "half a request stands before the next";
  }
}

TEST_F(HttpTest, SendsNothingThatCannotBeSentAsItIs) {
  FakeControlPlane server;
  const std::string url = server.url(), nul("a\0b", 3);
  const Http::Request rows[] = {{"GET", "ftp" + url.substr(4), {}, ""},
                                {"GET", url + "/\r\nX-Quib-Key: other", {}, ""},
                                {"GET", url, {{"X-Quib-Key", "a\r\nX-Other: b"}}, ""},
                                {"GET", url, {{"X-Quib-Key", nul}}, ""},
                                {"GET", url, {{"X-Quib-Key", "a\x7f"}}, ""},
                                {"GET", url, {{"X-Other: b\r\nX-Quib-Key", "a"}}, ""}};
  for (const auto& request : rows)
    EXPECT_TRUE(Http::exchange(request, {3s, 20s}).error.has_value()) << request.url;
  EXPECT_EQ(server.connections(), 0);
}

struct Wait {
  const char* name;
  Reply reply = {};
  FakeControlPlane::Options options = {};
  const char* scheme = "http";
};

// Of an exchange that waits in vain, for as long as it may.
std::string outcomeOf(const Wait& wait, const Http::Timeouts& timeout) {
  FakeControlPlane server(wait.options);
  server.next({wait.reply});
  const auto start = steady_clock::now();
  auto outcome = outcomeOf(wait.scheme + server.url().substr(4), wait.options.deaf ? large : "{}", timeout);
  EXPECT_GE(steady_clock::now() - start, std::min(timeout.idle, timeout.overall)) << wait.name;
  return outcome;
}

TEST_F(HttpTest, GivesUpWaitingForAServerThatMakesNoProgress) {
  const Wait rows[] = {
      {"it never accepts", {}, {.unaccepting = true}},
      {"it reads nothing", {}, {.deaf = true}},
      {"it never says the TLS hello", {}, {.deaf = true}, "https"},
      {"it never answers", {.fault = Fault::silence}},
      {"it falls silent in the body", {.fault = Fault::silenceInBody}},
      {"it never ends the head", raw(ok)},
      {"it says that the answer will come", raw(interim)},
  };
  const auto computed = std::clock();
  for (const auto& row : rows)
    EXPECT_TRUE(outcomeOf(row, {300ms, 20s}).ends_with(": timed out 0")) << row.name;
  EXPECT_LT(std::clock() - computed, CLOCKS_PER_SEC) << "it waits without computing";
}

TEST_F(HttpTest, EndsAnAnswerThatNeverEndsWithoutAnError) {
  std::string interims;
  for (int i = 0; i < 200'000; ++i)
    interims += interim;
  const Wait rows[] = {
      {"headers byte by byte", {.headers = {{"X", std::string(60'000, 'x')}}, .drip = 10ms}},
      {"a body byte by byte", {.body = std::string(60'000, 'x'), .dripBody = 10ms}},
      {"interim answers for ever", raw(interims)},
      {"silence, and more patience for it than there is time", {.fault = Fault::silence}},
      {"no TLS hello, likewise", {}, {.deaf = true}, "https"},
      {"no connection, likewise", {}, {.unaccepting = true}},
  };
  for (const auto& row : rows)
    EXPECT_EQ(outcomeOf(row, {20s, 400ms}), "0") << row.name;
}

TEST_F(HttpTest, KeepsAConnectionAndReplacesOneThatProvesClosedOnceAndUnseen) {
  const Reply broken{.fault = Fault::closeBeforeHead};
  const struct {
    const char* name;
    Reply first;
    std::vector<Reply> then;
    const char* end;  // of the second exchange
    int connections;
  } rows[] = {
      {"open", {}, {}, "200{}", 1},
      {"closed after the first answer", {.closeAfter = true}, {}, "200{}", 2},
      {"closed at the second request", {}, {broken}, "200{}", 2},
      {"reset at the second request", {}, {{.fault = Fault::resetBeforeHead}}, "200{}", 2},
      {"closed again after it was replaced", {}, {broken, broken}, ": the connection was closed 0", 2},
      {"closed within the second answer", {}, {{.fault = Fault::closeInHead}}, ": partial message 0", 1},
      {"silent at the second request", {}, {{.fault = Fault::silence}}, ": timed out 0", 1},
      {"announced as closed", {.headers = {{"Connection", "close"}}}, {}, "200{}", 2},
      {"no longer HTTP", raw("HTTP/1.1 101 Switch\r\n\r\n"), {}, "200{}", 2},
      {"more than the answer", raw(ok + "Content-Length: 2\r\n\r\n{}" + ok + "\r\nevil"), {}, "200{}", 2},
  };
  for (const auto& row : rows) {
    FakeControlPlane server;
    server.next({row.first});
    outcomeOf(server.url());
    server.next(row.then);
    EXPECT_TRUE(outcomeOf(server.url(), "{}", {1s, 20s}).ends_with(row.end)) << row.name;
    EXPECT_EQ(server.connections(), row.connections) << row.name;
  }
}

TEST_F(HttpTest, ItsSocketIsForThisProcessAndSendsAtOnce) {
  FakeControlPlane server;
  outcomeOf(server.url());
  int found = 0;
  for (int socket = 0; socket < 1024; ++socket) {
    sockaddr_in peer{};
    int sendsAtOnce = 0;
    socklen_t size = sizeof peer;
    if (::getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) != 0) continue;
    if (ntohs(peer.sin_port) != server.port()) continue;
    ::getsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &sendsAtOnce, &(size = sizeof sendsAtOnce));
    found += sendsAtOnce == 1 && (::fcntl(socket, F_GETFD) & FD_CLOEXEC);
  }
  EXPECT_EQ(found, 1);
}

TEST_F(HttpTest, AProcessWithoutDescriptorsGetsATransportError) {
  EXPECT_TRUE(inChildProcess([] {
    const rlimit none{3, 3};
    ::setrlimit(RLIMIT_NOFILE, &none);
    return outcomeOf("http://127.0.0.1:9/").ends_with("Too many open files 0") &&
           outcomeOf("http://a.test/").ends_with(" 0");
  }));
}

}  // namespace
