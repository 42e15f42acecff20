// Host names to addresses. The name server is asked on a thread of its own that nobody waits for in the end,
// so that one that never answers holds neither the caller nor the end of the process.
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
