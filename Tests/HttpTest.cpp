#include "Platform/Http.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "Platform/Files.h"
#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"

using namespace std::chrono_literals;
using Fault = FakeControlPlane::Fault;
using Reply = FakeControlPlane::Reply;

// Stands before the C library's: names under "test" are answered here, and one of them never is.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
  static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  const std::string name = node ? node : "";
  if (name == "silent.test") {
    for (;;)
      ::pause();
  }
  if (name == "two.test") {
    const int failure = real("127.0.0.2", service, hints, result);
    return failure ? failure : real("127.0.0.1", service, hints, &(*result)->ai_next);
  }
  if (name == "one.test") return real("127.0.0.1", service, hints, result);
  return name.ends_with(".test") ? EAI_NONAME : real(node, service, hints, result);
}

namespace {

Http::Response get(const std::string& url, std::chrono::milliseconds timeout = 10s,
                   std::chrono::milliseconds overall = 20s) {
  return Http::exchange({"GET", url, {{"X-Quib-Key", "k-secret"}}, ""}, timeout, overall);
}

Http::Response post(const std::string& url, const std::string& body, std::chrono::milliseconds timeout = 10s,
                    std::chrono::milliseconds overall = 20s) {
  return Http::exchange({"POST", url, {{"X-Quib-Key", "k-secret"}}, body}, timeout, overall);
}

Reply raw(std::string bytes, bool closeAfter = true) {
  Reply reply;
  reply.raw = std::move(bytes);
  reply.closeAfter = closeAfter;
  return reply;
}

template <typename Change>
Reply with(Change&& change) {
  Reply reply;
  change(reply);
  return reply;
}

class HttpTest : public testing::Test {
 protected:
  Sandbox sandbox;
};

TEST_F(HttpTest, SendsTheRequestAsItIsGiven) {
  FakeControlPlane server;
  const std::string body("{\"a\":\"\0b\"}", 10);
  post(server.url() + "/a/b%20c?d=e#f", body);
  get(server.url());
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].target, "/a/b%20c?d=e");
  EXPECT_EQ(requests[0].body, body);
  const std::map<std::string, std::string> headers{
      {"content-length", "10"}, {"host", server.url().substr(7)}, {"x-quib-key", "k-secret"}};
  EXPECT_EQ(requests[0].headers, headers);
  EXPECT_EQ(requests[1].method, "GET");
  EXPECT_EQ(requests[1].target, "/");
  EXPECT_EQ(requests[1].headers.count("content-length"), 0u);
}

struct AnswerRow {
  const char* name;
  Reply reply;
  int status;
  std::string body;
};

TEST_F(HttpTest, TakesEveryWholeAnswer) {
  const std::string large(16 * 1024 * 1024, 'x');
  const AnswerRow rows[] = {
      {"an answer with a length", FakeControlPlane::status(200, std::string("a\0b", 3)), 200,
       std::string("a\0b", 3)},
      {"an answer without a body", FakeControlPlane::status(204), 204, ""},
      {"an empty body", FakeControlPlane::status(200, ""), 200, ""},
      {"a refusal with a body", FakeControlPlane::status(403, "no"), 403, "no"},
      {"a server error", FakeControlPlane::status(503, "later"), 503, "later"},
      {"a status that nobody knows", FakeControlPlane::status(799, "?"), 799, "?"},
      {"chunks with extensions and a trailer", with([](Reply& r) { r.chunked = true, r.body = "chunked"; }),
       200, "chunked"},
      {"a body that ends with the connection", with([](Reply& r) { r.untilClose = true, r.body = "open"; }),
       200, "open"},
      {"interim answers before the final one", with([](Reply& r) {
         r.before = "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n";
       }),
       200, "{}"},
      {"a change of protocols that nobody asked for", raw("HTTP/1.1 101 Switching Protocols\r\n\r\n"), 101,
       ""},
      {"an answer byte by byte", with([](Reply& r) { r.drip = 1ms; }), 200, "{}"},
      {"an answer of HTTP/1.0", raw("HTTP/1.0 200 OK\r\n\r\n{}"), 200, "{}"},
      {"headers of almost 64 KiB", with([](Reply& r) {
         r.headers = {{"X-Large", std::string(60'000, 'h')}};
       }),
       200, "{}"},
      {"a body of exactly 16 MB", FakeControlPlane::status(200, large), 200, large},
  };
  for (const auto& row : rows) {
    FakeControlPlane server;
    server.next({row.reply});
    const auto answer = get(server.url());
    EXPECT_EQ(answer.status, row.status) << row.name;
    EXPECT_TRUE(answer.body == row.body) << row.name;
    EXPECT_EQ(answer.error, std::nullopt) << row.name;
  }
}

TEST_F(HttpTest, NeverFollowsARedirect) {
  FakeControlPlane server;
  FakeControlPlane elsewhere;
  server.next({with([&](Reply& r) { r.status = 307, r.headers = {{"Location", elsewhere.url()}}; })});
  EXPECT_EQ(post(server.url(), "{}").status, 307);
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(elsewhere.connections(), 0);
}

struct ErrorRow {
  const char* name;
  Reply reply;
  const char* description;
};

TEST_F(HttpTest, TakesEveryBrokenAnswerForATransportError) {
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
  const ErrorRow rows[] = {
      {"closed before the head", FakeControlPlane::failing(Fault::closeBeforeHead), "was closed"},
      {"reset before the head", FakeControlPlane::failing(Fault::resetBeforeHead), "reset"},
      {"closed in the head", FakeControlPlane::failing(Fault::closeInHead), "partial message"},
      {"closed in the body", with([](Reply& r) { r.fault = Fault::closeInBody, r.body = "0123456789"; }),
       "partial message"},
      {"closed in a chunk",
       with([](Reply& r) { r.fault = Fault::closeInBody, r.chunked = true, r.body = "0123456789"; }),
       "partial message"},
      {"closed after an interim answer", raw("HTTP/1.1 100 Continue\r\n\r\n"), "was closed"},
      {"no HTTP at all", raw("SSH-2.0-OpenSSH_9.2\r\n\r\n"), "bad"},
      {"a length that is no number", raw(ok + "Content-Length: many\r\n\r\n{}"), "bad"},
      {"two lengths", raw(ok + "Content-Length: 2\r\nContent-Length: 3\r\n\r\n{}x"), "multiple"},
      {"a chunk size that is no number", raw(chunked + "zz\r\n{}\r\n0\r\n\r\n"), "bad"},
      {"a head of more than 64 KiB", with([](Reply& r) {
         r.headers = {{"X-Large", std::string(70'000, 'h')}};
       }),
       "limit"},
      {"a chunk extension without end", raw(chunked + "1;" + std::string(200'000, 'e')), "too large"},
      {"a length of more than 16 MB", FakeControlPlane::failing(Fault::endlessBody), "limit"},
      {"a body of more than 16 MB without a length",
       with([](Reply& r) { r.untilClose = true, r.body = std::string(16 * 1024 * 1024 + 1, 'x'); }), "limit"},
  };
  for (const auto& row : rows) {
    FakeControlPlane server;
    server.next({row.reply});
    const auto answer = post(server.url(), std::string(100'000, 'b'));
    EXPECT_EQ(answer.status, 0) << row.name;
    EXPECT_EQ(answer.body, "") << row.name;
    ASSERT_TRUE(answer.error) << row.name;
    EXPECT_NE(answer.error->find(row.description), std::string::npos) << row.name << ": " << *answer.error;
    EXPECT_EQ(server.requests().size(), 1u) << row.name;
  }
}

TEST_F(HttpTest, SendsNothingThatCannotBeSentAsItIs) {
  FakeControlPlane server;
  const Http::Request rows[] = {
      {"GET", "ftp://127.0.0.1/", {}, ""},
      {"GET", "127.0.0.1/path", {}, ""},
      {"GET", "", {}, ""},
      {"GET", "http://", {}, ""},
      {"GET", "http://127.0.0.1:99999/", {}, ""},
      {"GET", "http://127.0.0.1%0a/", {}, ""},
      {"GET", server.url() + "/\r\nX-Quib-Key: other", {}, ""},
      {"GET", server.url(), {{"X-Quib-Key", "a\r\nX-Other: b"}}, ""},
      {"GET", server.url(), {{"X-Quib-Key", std::string("a\0b", 3)}}, ""},
  };
  for (const auto& request : rows) {
    const auto answer = Http::exchange(request, 1s, 2s);
    EXPECT_TRUE(answer.error.has_value()) << request.url;
    EXPECT_EQ(answer.status, 0) << request.url;
  }
  EXPECT_EQ(server.connections(), 0);
}

struct WaitRow {
  const char* name;
  FakeControlPlane::Options options;
  Reply reply;
  const char* scheme;
};

TEST_F(HttpTest, GivesUpWaitingForAServerThatMakesNoProgress) {
  const WaitRow rows[] = {
      {"it never accepts", {.unaccepting = true}, {}, "http"},
      {"it reads nothing", {.deaf = true}, {}, "http"},
      {"it never says the TLS hello", {.deaf = true}, {}, "https"},
      {"it never answers", {}, FakeControlPlane::failing(Fault::silence), "http"},
      {"it falls silent in the body",
       {},
       with([](Reply& r) { r.fault = Fault::silenceInBody, r.body = "0123"; }),
       "http"},
      {"it never ends the head", {}, raw("HTTP/1.1 200 OK\r\n", false), "http"},
      {"it never ends a chunked body",
       {},
       raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n", false),
       "http"},
      {"it says that the answer will come", {}, raw("HTTP/1.1 100 Continue\r\n\r\n", false), "http"},
  };
  for (const auto& row : rows) {
    FakeControlPlane server(row.options);
    server.next({row.reply});
    const auto start = std::chrono::steady_clock::now();
    const auto answer = post(row.scheme + server.url().substr(4), std::string(8'000'000, 'b'), 300ms, 20s);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, 300ms) << row.name;
    EXPECT_LT(elapsed, 5s) << row.name;
    ASSERT_TRUE(answer.error) << row.name;
    EXPECT_TRUE(answer.error->ends_with("timed out")) << row.name << ": " << *answer.error;
    EXPECT_EQ(answer.status, 0) << row.name;
  }
}

TEST_F(HttpTest, EndsAnAnswerThatNeverEndsWithoutAnError) {
  std::string interims;
  for (int i = 0; i < 200'000; ++i)
    interims += "HTTP/1.1 100 Continue\r\n\r\n";
  const std::string text(100'000, 'x');
  const WaitRow rows[] = {
      {"headers byte by byte",
       {},
       with([&](Reply& r) {
         r.drip = 10ms, r.headers = {{"X", text}};
       }),
       "http"},
      {"a body byte by byte", {}, with([&](Reply& r) { r.dripBody = 10ms, r.body = text; }), "http"},
      {"interim answers for ever", {}, raw(interims, false), "http"},
      {"silence, and more patience for it than there is time",
       {},
       FakeControlPlane::failing(Fault::silence),
       "http"},
      {"no TLS hello, likewise", {.deaf = true}, {}, "https"},
      {"no connection, likewise", {.unaccepting = true}, {}, "http"},
  };
  for (const auto& row : rows) {
    FakeControlPlane server(row.options);
    server.next({row.reply});
    const auto start = std::chrono::steady_clock::now();
    const auto answer = get(row.scheme + server.url().substr(4), 20s, 400ms);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, 400ms) << row.name;
    EXPECT_LT(elapsed, 5s) << row.name;
    EXPECT_EQ(answer.error, std::nullopt) << row.name;
    EXPECT_EQ(answer.status, 0) << row.name;
    EXPECT_EQ(answer.body, "") << row.name;
  }
}

TEST_F(HttpTest, ANameServerThatNeverAnswersHoldsNeitherTheCallerNorTheEndOfTheProcess) {
  auto answer = get("http://silent.test/", 200ms, 20s);
  EXPECT_EQ(answer.error, "looking up silent.test: timed out");
  answer = get("http://silent.test/", 20s, 200ms);
  EXPECT_EQ(answer.error, std::nullopt);
  EXPECT_EQ(answer.status, 0);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EXIT(
      {
        get("http://silent.test/", 100ms, 200ms);
        std::exit(7);
      },
      testing::ExitedWithCode(7), "");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

TEST_F(HttpTest, ResolvesNamesButNeverLiteralAddresses) {
  FakeControlPlane server;
  EXPECT_EQ(get(server.url("one.test")).status, 200);
  EXPECT_EQ(get(server.url("localhost")).status, 200);
  const auto answer = get("http://nowhere.test/");
  ASSERT_TRUE(answer.error);
  EXPECT_NE(answer.error->find("nowhere.test"), std::string::npos);
}

TEST_F(HttpTest, SpeaksToAnAddressOfVersionSix) {
  FakeControlPlane server({.address = "::1"});
  EXPECT_EQ(get(server.url()).status, 200);
  EXPECT_EQ(server.requests().at(0).headers.at("host"), "[::1]:" + std::to_string(server.port()));
}

TEST_F(HttpTest, TriesTheNextAddressWhenOneRefusesOrDoesNotAnswer) {
  FakeControlPlane server;
  EXPECT_EQ(get(server.url("two.test")).status, 200);
  FakeControlPlane silent({.unaccepting = true, .address = "127.0.0.2", .port = server.port()});
  Http::exchange({"GET", "http://127.0.0.1:1/", {}, ""}, 1s, 1s);  // the kept connection would serve
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(get(server.url("two.test"), 2s).status, 200);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
}

TEST_F(HttpTest, OneConnectionServesAllRequestsToAServer) {
  FakeControlPlane server;
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(post(server.url() + "/" + std::to_string(i), "{}").status, 200);
  EXPECT_EQ(server.connections(), 1);
  FakeControlPlane other;
  EXPECT_EQ(post(other.url(), "{}").status, 200);
  EXPECT_EQ(other.requests().size(), 1u);
}

struct KeptRow {
  const char* name;
  Reply first;
  std::vector<Reply> then;
  int status;  // of the second exchange
  int connections;
};

TEST_F(HttpTest, ReplacesAKeptConnectionThatProvesClosedOnceAndUnseen) {
  const auto closing = with([](Reply& r) { r.closeAfter = true; });
  const auto broken = FakeControlPlane::failing(Fault::closeBeforeHead);
  const KeptRow rows[] = {
      {"closed after the first answer", closing, {}, 200, 2},
      {"closed at the second request", {}, {broken}, 200, 2},
      {"reset at the second request", {}, {FakeControlPlane::failing(Fault::resetBeforeHead)}, 200, 2},
      {"closed again after it was replaced", {}, {broken, broken}, 0, 2},
      {"closed within the second answer", {}, {FakeControlPlane::failing(Fault::closeInHead)}, 0, 1},
      {"announced as closed",
       with([](Reply& r) {
         r.headers = {{"Connection", "close"}};
       }),
       {},
       200,
       2},
      {"more bytes than the first answer has",
       raw("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}HTTP/1.1 "
           "200 OK\r\nContent-Length: 4\r\n\r\nevil",
           false),
       {},
       200,
       2},
  };
  for (const auto& row : rows) {
    FakeControlPlane server;
    server.next({row.first});
    EXPECT_EQ(get(server.url()).status, 200) << row.name;
    server.next(row.then);
    const auto answer = post(server.url(), "{}");
    EXPECT_EQ(answer.status, row.status) << row.name;
    EXPECT_EQ(answer.error.has_value(), row.status == 0) << row.name;
    EXPECT_EQ(answer.body, row.status == 0 ? "" : "{}") << row.name;
    EXPECT_EQ(server.connections(), row.connections) << row.name;
  }
}

TEST_F(HttpTest, AKeptConnectionThatFallsSilentIsNoReasonToAskAgain) {
  FakeControlPlane server;
  EXPECT_EQ(get(server.url()).status, 200);
  server.next({FakeControlPlane::failing(Fault::silence)});
  EXPECT_TRUE(post(server.url(), "{}", 200ms).error);
  EXPECT_EQ(server.requests().size(), 2u);
}

TEST_F(HttpTest, AProcessWithoutDescriptorsGetsATransportError) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer opens a pipe to look at memory";
#endif
  const auto exchangeWith = [](int descriptors) {
    const rlimit limit{static_cast<rlim_t>(descriptors), static_cast<rlim_t>(descriptors)};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ::_exit(get("http://127.0.0.1:9/", 1s, 2s).error ? 7 : 8);
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const int descriptors : {3, 4, 5, 6, 7}) {
    EXPECT_EXIT(exchangeWith(descriptors), testing::ExitedWithCode(7), "") << descriptors;
  }
}

TEST_F(HttpTest, LeavesNoDescriptorToAChildProcess) {
  FakeControlPlane server;
  std::vector<int> before;
  const auto each = [](auto&& visit) {
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
      const int flags = ::fcntl(descriptor, F_GETFD);
      if (flags >= 0) visit(descriptor, (flags & FD_CLOEXEC) != 0);
    }
  };
  each([&](int descriptor, bool) { before.push_back(descriptor); });
  get(server.url());
  each([&](int descriptor, bool closed) {
    const bool isNew = std::count(before.begin(), before.end(), descriptor) == 0;
    EXPECT_TRUE(closed || !isNew) << descriptor;
  });
}

}  // namespace
