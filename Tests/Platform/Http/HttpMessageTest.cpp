#include "Platform/Http/HttpMessage.h"

#include <gtest/gtest.h>

namespace {

using HttpMessage::Answer;

// What becomes of `bytes` that arrive in pieces of one size, the last before the end of the stream: status,
// "+" when the connection can be kept, body, or the problem.
std::string outcomeOf(const std::string& bytes, std::size_t piece) {
  Answer answer(Answer::Extent::whole);
  const auto isOpen = [&] { return !answer.isWhole() && answer.problem().empty(); };
  std::string unread;
  for (std::size_t at = 0; isOpen() && at < bytes.size(); at += piece) {
    unread += bytes.substr(at, piece);
    unread.erase(0, answer.take(unread));
  }
  if (isOpen()) answer.end(unread);
  if (!answer.problem().empty()) return answer.problem();
  return std::to_string(answer.status()) + (answer.keepsConnection() ? "+" : " ") + answer.takeBody();
}

TEST(HttpMessageTest, AnswersArePutTogetherHoweverTheyArrive) {
  const std::string ok = "HTTP/1.1 200 OK\r\n", chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
  const std::string large(16 * 1024 * 1024, 'x'), ofLength = "Content-Length: 2\r\n\r\n{}";
  const struct {
    const char* name;
    std::string bytes, outcome;
  } rows[] = {
      {"a length", ok + "Content-Length: 3\r\n\r\n" + std::string("a\0b", 3), std::string("200+a\0b", 7)},
      {"no body", "HTTP/1.1 204 No Content\r\n\r\n", "204+"},
      {"no body, whatever the length", "HTTP/1.1 304 Not Modified\r\nContent-Length: 9\r\n\r\n", "304+"},
      {"an empty body", ok + "Content-Length: 0\r\n\r\n", "200+"},
      {"a status that nobody knows", "HTTP/1.1 799 ?\r\n" + ofLength, "799+{}"},
      {"chunks", chunked + "3;note=x\r\nabc\r\n1\r\nd\r\n0\r\nX-Trailer: x\r\n\r\n", "200+abcd"},
      {"no length", ok + "\r\nall", "200 all"},
      {"an announced end", ok + "Connection: close\r\n" + ofLength, "200 {}"},
      {"interim answers",
       "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early\r\nLink: x\r\n\r\n" + ok + ofLength, "200+{}"},
      {"another protocol", "HTTP/1.1 101 Switching Protocols\r\n\r\n", "101 "},
      {"HTTP/1.0", "HTTP/1.0 200 OK\r\n" + ofLength, "200 {}"},
      {"no reason", "HTTP/1.1 200 \r\n" + ofLength, "200+{}"},
      {"not even the blank before it", "HTTP/1.1 200\r\n" + ofLength, "200+{}"},
      {"lone line feeds", "HTTP/1.1 200 OK\nContent-Length: 2\n\n{}", "200+{}"},
      {"some of each", "HTTP/1.1 100\n\nHTTP/1.1 200\nContent-Length: 2\r\nX: y\n\r\n{}", "200+{}"},
      {"a large head", ok + "X: " + std::string(65'000, 'h') + "\r\n" + ofLength, "200+{}"},
      {"the largest body", ok + "\r\n" + large, "200 " + large},

      {"nothing", "", "the connection was closed"},
      {"nothing final", "HTTP/1.1 100 Continue\r\n\r\n", "the connection was closed"},
      {"half a head", ok, "partial message"},
      {"half a body", ok + "Content-Length: 4\r\n\r\n{}", "partial message"},
      {"half of the chunks", chunked + "3\r\nabc\r\n", "partial message"},
      {"half a chunk", chunked + "3\r\na", "partial message"},
      {"no HTTP", "SSH-2.0-OpenSSH_9.2\r\n", "bad version"},
      {"HTTP of another kind", "HTTP/3.0 200 OK\r\n\r\n", "bad version"},
      {"a status that is no number", "HTTP/1.1 2OO OK\r\n\r\n", "bad status"},
      {"a status of two digits", "HTTP/1.1 99\r\n\r\n", "bad status"},
      {"a status below 100", "HTTP/1.1 099 Low\r\nContent-Length: 9\r\n\r\n", "bad status"},
      {"a length that is no number", ok + "Content-Length: many\r\n\r\n{}", "bad Content-Length"},
      {"two lengths", ok + "Content-Length: 3\r\n" + ofLength, "multiple Content-Length"},
      {"a chunk size that is no number", chunked + "zz\r\n{}\r\n0\r\n\r\n", "bad chunk"},
      {"too large a head", ok + "X: " + std::string(70'000, 'h') + "\r\n\r\n", "header limit exceeded"},
      {"a head without end", ok + "X: " + std::string(100'000, 'h'), "header limit exceeded"},
      {"a chunk extension without end", chunked + "1;" + std::string(200'000, 'e'), "header limit exceeded"},
      {"too large a length", ok + "Content-Length: 16777217\r\n\r\n", "body limit exceeded"},
      {"too large a body", ok + "\r\n" + large + "x", "body limit exceeded"},
  };
  for (const auto& [name, bytes, outcome] : rows) {
    for (const std::size_t piece : {1u, 7u, 16'384u}) {
      if (bytes.size() / piece > 5'000) continue;
      EXPECT_TRUE(outcomeOf(bytes, piece) == outcome) << name << " in pieces of " << piece;
    }
  }
}

}  // namespace
