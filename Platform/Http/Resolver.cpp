#include "Platform/Http/Resolver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <strings.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace Resolver {

namespace {

// Absent when `host` is no literal address.
std::optional<Address> literal(const std::string& host, std::uint16_t port) {
  Address address{};
  if (::inet_pton(AF_INET, host.c_str(), &address.four.sin_addr) == 1) {
    address.four.sin_family = AF_INET;
    address.four.sin_port = htons(port);
    address.size = sizeof address.four;
  } else if (::inet_pton(AF_INET6, host.c_str(), &address.six.sin6_addr) == 1) {
    address.six.sin6_family = AF_INET6;
    address.six.sin6_port = htons(port);
    address.size = sizeof address.six;
  } else {
    return std::nullopt;
  }
  return address;
}

Answer ask(const std::string& host, std::uint16_t port) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  Answer answer;
  if (const int failure = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found)) {
    answer.error = ::gai_strerror(failure);
    return answer;
  }
  for (const addrinfo* each = found; each; each = each->ai_next) {
    Address& address = answer.addresses.emplace_back();
    address.size = each->ai_addrlen;
    std::memcpy(&address.any, each->ai_addr, std::min<std::size_t>(address.size, sizeof address.six));
  }
  ::freeaddrinfo(found);
  return answer;
}

// Shared with the asking thread, which may outlive the caller.
struct Slot {
  std::mutex mutex;
  std::condition_variable filled;
  std::optional<Answer> answer;
};

}  // namespace

Answer addressesOf(const std::string& host, std::uint16_t port,
                   std::chrono::steady_clock::time_point deadline) {
  if (const auto address = literal(host, port)) return {{*address}, ""};
  if (::strcasecmp(host.c_str(), "localhost") == 0)
    return {{*literal("127.0.0.1", port), *literal("::1", port)}, ""};

  const auto slot = std::make_shared<Slot>();
  std::thread([slot, host, port] {
    Answer answer = ask(host, port);
    const std::lock_guard lock(slot->mutex);
    slot->answer = std::move(answer);
    slot->filled.notify_one();
  }).detach();
  std::unique_lock lock(slot->mutex);
  slot->filled.wait_until(lock, deadline, [&] { return slot->answer.has_value(); });
  return slot->answer.value_or(Answer{});
}

}  // namespace Resolver
