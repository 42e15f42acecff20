// The control plane over HTTP: one thread, any number of connections up to a limit, each bounded in what it
// may send and in how long it may take, so that a slow or hostile client holds up nobody but itself.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "Server/ControlPlane.h"

namespace LocalControlPlane {

struct Limits {
  std::uint32_t head = 16'384;             // bytes
  std::uint64_t body = 16'777'216;         // bytes
  int connections = 256;                   // beyond which a new one is closed at once
  std::chrono::milliseconds idle{60'000};  // until a head is complete, on a connection that has served one
  std::chrono::milliseconds firstHead{10'000};  // the same, on a new connection
  std::chrono::milliseconds exchange{30'000};   // each for a body and for an answer
};

class Server {
 public:
  // Listens on `address` (an IP address) and `port` (0: any free one). Throws std::runtime_error when it
  // cannot.
  Server(ControlPlane& controlPlane, const std::string& address, std::uint16_t port, Limits limits = {});
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // http://127.0.0.1:8787
  std::string url() const;

  // Serves until `stop`, and with `untilSignal` until SIGINT or SIGTERM; true when it was such a signal. Can
  // be called again.
  bool run(bool untilSignal = false);
  void stop();  // from any thread

 private:
  struct Listener;
  std::unique_ptr<Listener> listener_;
};

}  // namespace LocalControlPlane
