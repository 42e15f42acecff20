// A control plane that says yes to everything, as far away as wanted: on loopback, with a delay for every
// round trip that a client at that distance would wait for. One client at a time, as the hook is one.
#pragma once

#include <openssl/types.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

class ControlPlaneStub {
 public:
  // Over TLS when `authorityFile` is not empty; the certificate of its authority is written there.
  explicit ControlPlaneStub(std::chrono::milliseconds roundTrip, const std::string& authorityFile = "");
  ~ControlPlaneStub();
  ControlPlaneStub(const ControlPlaneStub&) = delete;
  ControlPlaneStub& operator=(const ControlPlaneStub&) = delete;

  std::string url() const;

  // Counted since the last call.
  struct Traffic {
    int connections = 0;
    int requests = 0;
    int roundTrips = 0;  // one for each request and for each connection, one more for its TLS handshake
  };
  Traffic traffic();

 private:
  class Channel;

  void acceptAll();
  void serve(Channel& channel);
  int roundTripsToConnect() const { return tls_ ? 2 : 1; }

  std::chrono::milliseconds roundTrip_;
  std::shared_ptr<SSL_CTX> tls_;  // none: plain
  int listener_ = -1;
  std::atomic<int> connections_ = 0;
  std::atomic<int> requests_ = 0;
  std::thread thread_;
};
