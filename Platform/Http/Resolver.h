// Host names to addresses, by the file of hosts and the name servers of resolv.conf. No plug-in of the system
// is asked (macOS: its own resolver is), no thread is left behind.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace Resolver {

struct Address {
  union {
    sockaddr_in6 six;
    sockaddr_in four;
    sockaddr any;
  };
  socklen_t size;
};

struct Answer {
  std::vector<Address> addresses;  // in the order in which to try them
  std::string error;               // why there are none; empty when the time ran out
};

// Waits until `deadline` at most. A literal address is its own answer, "localhost" the loopback's; neither
// asks anybody.
Answer addressesOf(const std::string& host, std::uint16_t port,
                   std::chrono::steady_clock::time_point deadline);

}  // namespace Resolver
