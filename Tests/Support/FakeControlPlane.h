// An HTTP server in this process, on a loopback port that the system chooses. It answers as it is told, well
// or badly, and remembers what it was asked. Each connection has a thread of its own; the destructor ends
// them all, whatever they are waiting for. All functions may be called while it serves.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Json/Json.h"
#include "Tests/Support/Certificates.h"

class FakeControlPlane {
 public:
  struct Request {
    int connection = 0;  // 1 for the first connection that was accepted
    std::string method;
    std::string target;                          // as sent: path and query, or the whole URL
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    // What `requests` fills in: the body's members, none when it is not a JSON object. A handler does
    // without, so that no answer waits for the reading of a long body.
    Json::Object json;

    std::string path() const { return target.substr(0, target.find('?')); }
  };

  enum class Fault {
    none,
    closeBeforeHead,  // the connection ends with no byte of the answer
    resetBeforeHead,  // likewise, by a reset
    closeInHead,      // ... in the middle of the status line and headers
    closeInBody,      // ... after half the body
    silence,          // no byte of the answer, the connection stays open
    silenceInBody,    // half the body, then nothing
    endlessBody,      // the body goes on for as long as the client reads
  };

  struct Reply {
    int status = 200;
    std::string body = "{}";
    std::vector<std::pair<std::string, std::string>> headers = {};  // beside the length
    Fault fault = Fault::none;
    std::chrono::milliseconds delay{0};     // before the first byte
    std::chrono::milliseconds drip{0};      // when not 0: one byte at a time, with this pause after each
    std::chrono::milliseconds dripBody{0};  // likewise, the body only
    bool chunked = false;
    bool untilClose = false;              // no length: the body ends with the connection
    bool closeAfter = false;              // ends the connection after the answer, without announcing it
    bool tlsAfter = false;                // after the answer, expects a TLS handshake on the same connection
    std::string before = {};              // sent first, as it is: "HTTP/1.1 100 Continue\r\n\r\n"
    std::optional<std::string> raw = {};  // sent as it is in place of the whole answer
  };

  using Handler = std::function<Reply(const Request&)>;

  struct Options {
    std::optional<Certificate> certificate = {};  // speaks TLS from the first byte, unless `plainFirst`
    bool plainFirst = false;   // TLS only after a reply with `tlsAfter`, as a proxy's tunnel
    bool oldTls = false;       // TLS 1.1 at most
    bool deaf = false;         // accepts connections and never reads a byte
    bool hasty = false;        // answers as soon as it has a request's head, and never reads on
    bool unaccepting = false;  // never accepts: a client's connection is never established
    std::string address = "127.0.0.1";
    int port = 0;  // chosen by the system when 0
  };

  // Answers 200 with the empty object until told otherwise.
  FakeControlPlane();
  explicit FakeControlPlane(Options options);
  ~FakeControlPlane();
  FakeControlPlane(const FakeControlPlane&) = delete;
  FakeControlPlane& operator=(const FakeControlPlane&) = delete;

  // What requests to the paths that match `pattern` ("*" stands for any text, "/" included) are answered from
  // now on. Of several patterns that match the one given last holds.
  void on(const std::string& pattern, Handler handler);
  void on(const std::string& pattern, const Reply& reply) {
    on(pattern, [reply](const Request&) { return reply; });
  }
  void on(const std::string& pattern, Json::Object body) { on(pattern, json(std::move(body))); }

  // Answers for the very next requests, one each, before any pattern is looked at.
  void next(std::vector<Reply> replies);

  // Those so far whose paths match `pattern`.
  std::vector<Request> requests(const std::string& pattern = "*") const;
  int connections() const;  // accepted so far

  int port() const;
  std::string url() const;  // http://127.0.0.1:PORT, or https, or with another address
  // The same with another host name.
  std::string url(const std::string& host) const;

  // A JSON answer.
  static Reply json(Json::Object body, int status = 200) {
    return {.status = status, .body = Json(std::move(body)).compact()};
  }
  static Reply status(int status, std::string body = "{}") {
    return {.status = status, .body = std::move(body)};
  }
  static Reply failing(Fault fault) { return {.fault = fault}; }

 private:
  struct State;
  std::unique_ptr<State> state_;
};
