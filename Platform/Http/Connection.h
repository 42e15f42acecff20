// A TCP connection to a server, plain or secured by TLS. Nothing here waits beyond the deadline that it is
// given. What goes wrong is thrown as a Failure; the connection must not be used after it.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Descriptor.h"
#include "Platform/Http/Resolver.h"
#include "Platform/Http/Tls.h"

namespace Http {

using Clock = std::chrono::steady_clock;

struct Failure {
  std::string reason;
  bool isTimeout = false;
};

class Connection {
 public:
  // Tries `addresses` in turn until `deadline`; one that does not answer leaves the others a share of the
  // time. `endpoint` says where the connection leads, for the one who keeps it.
  Connection(std::string endpoint, const std::vector<Resolver::Address>& addresses,
             Clock::time_point deadline);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Starts TLS with `host`. False when the server's issuer is unknown, but might be found with the other kind
  // of trust; then a new connection is needed.
  bool secure(const std::string& host, Tls::Trust trust, Clock::time_point deadline);

  enum class Progress { sent, received, ended };

  // Waits until some of `unsent` has been sent and taken off, or something has been received and put behind
  // `unread`, or the server has ended the stream. An error while sending only empties `unsent`: the answer
  // may be under way all the same.
  Progress advance(std::string_view& unsent, Clock::time_point deadline);

  const std::string endpoint;
  std::string unread;

 private:
  void connect(const Resolver::Address& address, Clock::time_point deadline);
  std::optional<Progress> receive();
  std::optional<Progress> send(std::string_view& unsent);
  short await(short events, Clock::time_point deadline) const;

  std::optional<Descriptor> socket_;
  ssl_st* tls_ = nullptr;  // null: plain
  // What the socket must be polled for before it is tried to receive or to send; 0: nothing.
  short receivingNeeds_;
  short sendingNeeds_ = 0;
};

}  // namespace Http
