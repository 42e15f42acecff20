#include "Platform/Http/Http.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Fault = FakeControlPlane::Fault;
using Reply = FakeControlPlane::Reply;

// Stands before the C library's: names under "test" are answered here, and one of them never is.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
  static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  const std::string name = node ? node : "";
  while (name == "silent.test")
    ::pause();
  if (name == "two.test") {
    const int failure = real("127.0.0.2", service, hints, result);
    return failure ? failure : real("127.0.0.1", service, hints, &(*result)->ai_next);
  }
  if (name == "one.test") return real("127.0.0.1", service, hints, result);
  return name.ends_with(".test") ? EAI_NONAME : real(node, service, hints, result);
}

namespace {

const std::string large(16 * 1024 * 1024, 'x');
const std::string ok = "HTTP/1.1 200 OK\r\n";

Http::Response get(const std::string& url, milliseconds timeout = 10s, milliseconds overall = 20s) {
  return Http::exchange({"GET", url, {{"X-Quib-Key", "k-secret"}}, ""}, {timeout, overall});
}

Http::Response post(const std::string& url, const std::string& body, milliseconds timeout = 10s,
                    milliseconds overall = 20s) {
  return Http::exchange({"POST", url, {{"X-Quib-Key", "k-secret"}}, body}, {timeout, overall});
}

Reply raw(std::string bytes) {
  return {.raw = std::move(bytes)};
}

struct HttpTest : testing::Test {
  Sandbox sandbox;
};

TEST_F(HttpTest, SendsTheRequestAsItIsGiven) {
  FakeControlPlane server;
  const std::string body("{\"a\":\"\0b\"}", 10);
  post(server.url() + "/a/b%20c?d=e#f", body);
  get(server.url());
  const auto first = server.requests().at(0), second = server.requests().at(1);
  const std::map<std::string, std::string> headers{
      {"content-length", "10"}, {"host", server.url().substr(7)}, {"x-quib-key", "k-secret"}};
  EXPECT_EQ(first.method + " " + first.target, "POST /a/b%20c?d=e");
  EXPECT_EQ(first.body, body);
  EXPECT_EQ(first.headers, headers);
  EXPECT_EQ(second.method + " " + second.target, "GET /");
  EXPECT_FALSE(second.headers.contains("content-length"));
}

TEST_F(HttpTest, TakesEveryWholeAnswer) {
  const struct {
    const char* name;
    Reply reply;
    int status = 200;
    std::string body = "{}";
  } rows[] = {
      {"no body", {.status = 204}, 204, ""},
      {"interim answers before it", {.before = "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early\r\n\r\n"}},
      {"a body that ends with the connection", {.untilClose = true}},
      {"chunks byte by byte", {.drip = 1ms, .chunked = true}},
      {"16 MB", {.body = large}, 200, large},
  };
  for (const auto& row : rows) {
    FakeControlPlane server;
    server.next({row.reply});
    const auto answer = get(server.url(), 3s);
    EXPECT_EQ(answer.status, row.status) << row.name;
    EXPECT_TRUE(answer.body == row.body) << row.name;
    EXPECT_EQ(answer.error, std::nullopt) << row.name;
  }
}

TEST_F(HttpTest, NeverFollowsARedirect) {
  FakeControlPlane server, elsewhere;
  server.next({{.status = 307, .headers = {{"Location", elsewhere.url()}}}});
  EXPECT_EQ(post(server.url(), "{}").status, 307);
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(elsewhere.connections(), 0);
}

TEST_F(HttpTest, TakesEveryBrokenAnswerForATransportError) {
  const struct {
    const char* name;
    Reply reply;
    const char* description;
  } rows[] = {
      {"closed before the head", {.fault = Fault::closeBeforeHead}, "was closed"},
      {"reset before the head", {.fault = Fault::resetBeforeHead}, "reset"},
      {"closed in the head", {.fault = Fault::closeInHead}, "partial message"},
      {"closed in the body", {.fault = Fault::closeInBody}, "partial message"},
      {"closed in a chunk", {.fault = Fault::closeInBody, .chunked = true}, "partial message"},
      {"no HTTP, and more to come", raw("SSH-2.0-OpenSSH_9.2\r\n"), "bad"},
      {"a status below 100, and more to come", raw("HTTP/1.1 099 Low\r\n\r\n"), "bad"},
      {"a head without end", {.headers = {{"X", large}}}, "limit"},
      {"a length of more than 16 MB", {.fault = Fault::endlessBody}, "limit"},
  };
  for (const auto& row : rows) {
    FakeControlPlane server;
    server.next({row.reply});
    const auto answer = post(server.url(), std::string(100'000, 'b'), 3s);
    EXPECT_EQ(answer.status, 0) << row.name;
    EXPECT_EQ(answer.body, "") << row.name;
    const auto error = answer.error.value_or("");
    EXPECT_NE(error.find(row.description), std::string::npos) << row.name << ": " << error;
    EXPECT_EQ(server.requests().size(), 1u) << row.name;
  }
}

TEST_F(HttpTest, SeesARefusalThatComesBeforeTheRequestIsSent) {
  const std::pair<const char*, Reply> rows[] = {
      {"the server closes", {.status = 413, .closeAfter = true}},
      {"the server closes its half", {.status = 413, .untilClose = true}},
      {"the server waits", {.status = 413, .before = "HTTP/1.1 100 Continue\r\n\r\n"}},
  };
  for (const auto& [name, reply] : rows) {
    FakeControlPlane server({.hasty = true});
    server.next({reply});
    EXPECT_EQ(post(server.url(), large, 2s).status, 413) << name;
    EXPECT_EQ(get(server.url()).status, 200) << name << ", and half a request stands before the next";
  }
}

TEST_F(HttpTest, SendsNothingThatCannotBeSentAsItIs) {
  FakeControlPlane server;
  const Http::Request rows[] = {
      {"GET", "ftp" + server.url().substr(4), {}, ""},
      {"GET", server.url() + "/\r\nX-Quib-Key: other", {}, ""},
      {"GET", server.url(), {{"X-Quib-Key", "a\r\nX-Other: b"}}, ""},
      {"GET", server.url(), {{"X-Quib-Key", std::string("a\0b", 3)}}, ""},
      {"GET", server.url(), {{"X-Other: b\r\nX-Quib-Key", "a"}}, ""},
  };
  for (const auto& request : rows)
    EXPECT_TRUE(Http::exchange(request, {1s, 2s}).error.has_value()) << request.url;
  EXPECT_EQ(server.connections(), 0);
}

struct Wait {
  const char* name;
  Reply reply = {};
  FakeControlPlane::Options options = {};
  const char* scheme = "http";
};

// The answer, which takes as long as the shorter of the two and not much longer.
Http::Response outcomeOf(const Wait& wait, milliseconds timeout, milliseconds overall) {
  FakeControlPlane server(wait.options);
  server.next({wait.reply});
  const auto start = steady_clock::now();
  auto answer =
      post(wait.scheme + server.url().substr(4), wait.options.deaf ? large : "{}", timeout, overall);
  EXPECT_GE(steady_clock::now() - start, std::min(timeout, overall)) << wait.name;
  EXPECT_LT(steady_clock::now() - start, 5s) << wait.name;
  EXPECT_EQ(answer.status, 0) << wait.name;
  EXPECT_EQ(answer.body, "") << wait.name;
  return answer;
}

TEST_F(HttpTest, GivesUpWaitingForAServerThatMakesNoProgress) {
  const Wait rows[] = {
      {"it never accepts", {}, {.unaccepting = true}},
      {"it reads nothing", {}, {.deaf = true}},
      {"it never says the TLS hello", {}, {.deaf = true}, "https"},
      {"it never answers", {.fault = Fault::silence}},
      {"it falls silent in the body", {.fault = Fault::silenceInBody}},
      {"it never ends the head", raw(ok)},
      {"it never ends a chunked body", raw(ok + "Transfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n")},
      {"it says that the answer will come", raw("HTTP/1.1 100 Continue\r\n\r\n")},
  };
  for (const auto& row : rows) {
    const auto error = outcomeOf(row, 300ms, 20s).error.value_or("");
    EXPECT_TRUE(error.ends_with("timed out")) << row.name << ": " << error;
  }
}

TEST_F(HttpTest, EndsAnAnswerThatNeverEndsWithoutAnError) {
  std::string interims;
  for (int i = 0; i < 200'000; ++i)
    interims += "HTTP/1.1 100 Continue\r\n\r\n";
  const Wait rows[] = {
      {"headers byte by byte", {.headers = {{"X", std::string(60'000, 'x')}}, .drip = 10ms}},
      {"a body byte by byte", {.body = std::string(60'000, 'x'), .dripBody = 10ms}},
      {"interim answers for ever", raw(interims)},
      {"silence, and more patience for it than there is time", {.fault = Fault::silence}},
      {"no TLS hello, likewise", {}, {.deaf = true}, "https"},
      {"no connection, likewise", {}, {.unaccepting = true}},
  };
  for (const auto& row : rows)
    EXPECT_EQ(outcomeOf(row, 20s, 400ms).error, std::nullopt) << row.name;
}

TEST_F(HttpTest, ANameServerThatNeverAnswersHoldsNeitherTheCallerNorTheEndOfTheProcess) {
  EXPECT_EQ(get("http://silent.test/", 200ms, 20s).error, "looking up silent.test: timed out");
  EXPECT_EQ(get("http://silent.test/", 20s, 200ms).error, std::nullopt);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto start = steady_clock::now();
  EXPECT_EXIT((get("http://silent.test/", 100ms, 200ms), std::exit(7)), testing::ExitedWithCode(7), "");
  EXPECT_LT(steady_clock::now() - start, 10s);
}

TEST_F(HttpTest, TriesTheAddressesOfAHostInTurn) {
  FakeControlPlane server, six({.address = "::1"});
  for (const std::string& url : {server.url("one.test"), server.url("localhost"), six.url()})
    EXPECT_EQ(get(url).status, 200) << url;
  EXPECT_EQ(six.requests().at(0).headers.at("host"), "[::1]:" + std::to_string(six.port()));
  EXPECT_NE(get("http://nowhere.test/").error.value_or("").find("nowhere.test"), std::string::npos);
  EXPECT_EQ(get(server.url("two.test")).status, 200) << "the first refuses";
  FakeControlPlane silent({.unaccepting = true, .address = "127.0.0.2", .port = server.port()});
  get(six.url());  // the kept connection would serve
  const auto start = steady_clock::now();
  EXPECT_EQ(get(server.url("two.test"), 2s).status, 200) << "the first does not answer";
  EXPECT_GE(steady_clock::now() - start, 1s);
}

TEST_F(HttpTest, KeepsAConnectionAndReplacesOneThatProvesClosedOnceAndUnseen) {
  const Reply broken{.fault = Fault::closeBeforeHead};
  const struct {
    const char* name;
    Reply first;
    std::vector<Reply> then;
    int status;  // of the second exchange
    int connections;
  } rows[] = {
      {"open", {}, {}, 200, 1},
      {"closed after the first answer", {.closeAfter = true}, {}, 200, 2},
      {"closed at the second request", {}, {broken}, 200, 2},
      {"reset at the second request", {}, {{.fault = Fault::resetBeforeHead}}, 200, 2},
      {"closed again after it was replaced", {}, {broken, broken}, 0, 2},
      {"closed within the second answer", {}, {{.fault = Fault::closeInHead}}, 0, 1},
      {"silent at the second request", {}, {{.fault = Fault::silence}}, 0, 1},
      {"announced as closed", {.headers = {{"Connection", "close"}}}, {}, 200, 2},
      {"no longer HTTP", raw("HTTP/1.1 101 Switch\r\n\r\n"), {}, 200, 2},
      {"more than the answer", raw(ok + "Content-Length: 2\r\n\r\n{}" + ok + "\r\nevil"), {}, 200, 2},
  };
  for (const auto& row : rows) {
    FakeControlPlane server;
    server.next({row.first});
    EXPECT_EQ(get(server.url()).error, std::nullopt) << row.name;
    server.next(row.then);
    const auto answer = post(server.url(), "{}", 1s);
    EXPECT_EQ(answer.status, row.status) << row.name;
    EXPECT_EQ(answer.error.has_value(), row.status == 0) << row.name;
    EXPECT_EQ(answer.body, row.status == 0 ? "" : "{}") << row.name;
    EXPECT_EQ(server.connections(), row.connections) << row.name;
  }
}

TEST_F(HttpTest, AProcessWithoutDescriptorsGetsATransportError) {
  const auto exchangeWith = [](int descriptors) {
    const rlimit limit{static_cast<rlim_t>(descriptors), static_cast<rlim_t>(descriptors)};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ::_exit(get("http://127.0.0.1:9/", 1s, 2s).error ? 7 : 8);
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const int descriptors : {3, 4, 5, 6, 7})
    EXPECT_EXIT(exchangeWith(descriptors), testing::ExitedWithCode(7), "") << descriptors;
}

TEST_F(HttpTest, LeavesNoDescriptorToAChildProcess) {
  FakeControlPlane server;
  const auto inheritable = [] {
    std::vector<int> descriptors;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
      const int flags = ::fcntl(descriptor, F_GETFD);
      if (flags >= 0 && !(flags & FD_CLOEXEC)) descriptors.push_back(descriptor);
    }
    return descriptors;
  };
  get("http://127.0.0.1:1/");  // lets go of the connection that another test has left
  const auto before = inheritable();
  EXPECT_EQ(get(server.url()).status, 200);
  EXPECT_EQ(inheritable(), before);
}

}  // namespace
