#include "Platform/Http/Resolver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace Resolver {

namespace {

bool isLiteral(const std::string& host) {
  unsigned char bytes[16];
  return inet_pton(AF_INET, host.c_str(), bytes) == 1 || inet_pton(AF_INET6, host.c_str(), bytes) == 1;
}

Answer ask(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  Answer answer;
  if (const int failure = ::getaddrinfo(host.c_str(), nullptr, &hints, &found)) {
    answer.error = ::gai_strerror(failure);
    return answer;
  }
  for (const addrinfo* each = found; each; each = each->ai_next) {
    char text[NI_MAXHOST];
    if (::getnameinfo(each->ai_addr, each->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0) {
      answer.addresses.emplace_back(text);
    }
  }
  ::freeaddrinfo(found);
  if (answer.addresses.empty()) answer.error = "no address";
  return answer;
}

// Shared with the asking thread, which may outlive the caller.
struct Slot {
  std::mutex mutex;
  std::condition_variable filled;
  std::optional<Answer> answer;
};

}  // namespace

Answer addressesOf(const std::string& host, std::chrono::steady_clock::time_point deadline) {
  if (isLiteral(host)) return {{host}, ""};
  if (::strcasecmp(host.c_str(), "localhost") == 0) return {{"127.0.0.1", "::1"}, ""};

  const auto slot = std::make_shared<Slot>();
  std::thread([slot, host] {
    Answer answer = ask(host);
    const std::lock_guard lock(slot->mutex);
    slot->answer = std::move(answer);
    slot->filled.notify_one();
  }).detach();
  std::unique_lock lock(slot->mutex);
  slot->filled.wait_until(lock, deadline, [&] { return slot->answer.has_value(); });
  return slot->answer.value_or(Answer{});
}

}  // namespace Resolver
