// One HTTP exchange at a time over a connection that the process keeps and reuses.
//
// http and https; TLS 1.2 or newer, certificate and host name verified against the system's store
// (SSL_CERT_FILE and SSL_CERT_DIR honoured); HTTPS_PROXY, HTTP_PROXY and NO_PROXY honoured, with CONNECT and
// basic credentials. Redirects are not followed: the key must not travel on. A kept connection that proves
// closed before any byte of the answer is replaced once, unseen. What is answered before it is sent whole is
// not sent on. When a host has several addresses the next is tried after a few seconds. Answers are bounded:
// head 64 KiB, body 16 MB; a larger one is a transport error.
//
// Never throws, never waits longer than the overall timeout, whatever the server or the name server does.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Platform/Http/Request.h"

namespace Http {

struct Timeouts {
  std::chrono::milliseconds idle;     // of every wait without progress; ends in a transport error
  std::chrono::milliseconds overall;  // of the whole exchange; ends in status 0 without an error
};

struct Response {
  int status = 0;                    // 0 when no complete answer arrived
  std::string body;                  // empty when there was none
  std::optional<std::string> error;  // the transport error's description; never holds a header or credentials
};

// Sends `request` and waits for the whole answer. A URL that is not absolute http or https, or a header with
// a control character in it, is a transport error and nothing is sent.
Response exchange(const Request& request, const Timeouts& timeout);

}  // namespace Http
