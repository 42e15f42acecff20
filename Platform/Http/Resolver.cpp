#include "Platform/Http/Resolver.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <optional>

#ifdef __APPLE__
#include <netdb.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#else
#include <ares.h>
#include <poll.h>
#endif

namespace Resolver {

namespace {

using Clock = std::chrono::steady_clock;

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

// The addresses of a list of the system's or of c-ares' nodes.
template <typename Node>
std::vector<Address> addressesIn(const Node* node) {
  std::vector<Address> addresses;
  for (; node; node = node->ai_next) {
    Address& address = addresses.emplace_back();
    address.size = std::min<socklen_t>(node->ai_addrlen, sizeof address.six);
    std::memcpy(&address.any, node->ai_addr, address.size);
  }
  return addresses;
}

#ifdef __APPLE__

// The system is asked on a thread that nobody waits for in the end: it may take longer than there is time.
Answer ask(const std::string& host, std::uint16_t port, Clock::time_point deadline) {
  struct Slot {
    std::mutex mutex;
    std::condition_variable filled;
    std::optional<Answer> answer;
  };
  const auto slot = std::make_shared<Slot>();
  std::thread([slot, host, port] {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    Answer answer;
    if (const int failure = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found)) {
      answer.error = ::gai_strerror(failure);
    } else {
      answer.addresses = addressesIn(found);
      ::freeaddrinfo(found);
    }
    const std::lock_guard lock(slot->mutex);
    slot->answer = std::move(answer);
    slot->filled.notify_one();
  }).detach();
  std::unique_lock lock(slot->mutex);
  slot->filled.wait_until(lock, deadline, [&] { return slot->answer.has_value(); });
  return slot->answer.value_or(Answer{});
}

#else

// One search of c-ares, as its callbacks tell of it.
struct Search {
  std::vector<pollfd> sockets;  // what it waits for
  bool isOver = false;
  Answer answer;
};

void noteSocket(void* data, ares_socket_t socket, int readable, int writable) {
  auto& sockets = static_cast<Search*>(data)->sockets;
  std::erase_if(sockets, [&](const pollfd& other) { return other.fd == socket; });
  const int events = (readable ? POLLIN : 0) | (writable ? POLLOUT : 0);
  if (events != 0) sockets.push_back({socket, static_cast<short>(events), 0});
}

void noteAnswer(void* data, int status, int, ares_addrinfo* found) {
  auto& search = *static_cast<Search*>(data);
  search.isOver = true;
  if (status == ARES_SUCCESS) search.answer.addresses = addressesIn(found->nodes);
  if (search.answer.addresses.empty() && status != ARES_EDESTRUCTION)
    search.answer.error = ares_strerror(status == ARES_SUCCESS ? ARES_ENODATA : status);
  ares_freeaddrinfo(found);
}

// Waits for what the search waits for, until its own time for that is up or `deadline` has come.
void advance(ares_channel channel, const Search& search, Clock::time_point deadline) {
  using namespace std::chrono;
  const auto left = std::max(ceil<milliseconds>(deadline - Clock::now()), milliseconds::zero());
  timeval most{static_cast<time_t>(left.count() / 1000),
               static_cast<suseconds_t>(left.count() % 1000 * 1000)};
  const timeval* next = ares_timeout(channel, &most, &most);
  auto sockets = search.sockets;
  ::poll(sockets.data(), static_cast<nfds_t>(sockets.size()),
         static_cast<int>(next->tv_sec * 1000 + next->tv_usec / 1000 + 1));
  ares_process_fd(channel, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
  for (const auto& [socket, events, ready] : sockets)
    ares_process_fd(channel, ready & ~POLLOUT ? socket : ARES_SOCKET_BAD,
                    ready & POLLOUT ? socket : ARES_SOCKET_BAD);
}

Answer ask(const std::string& host, std::uint16_t port, Clock::time_point deadline) {
  Search search;
  char sources[] = "fb";  // the file of hosts, then the name servers; unless told it would read nsswitch.conf
  ares_options options{};
  options.lookups = sources;
  options.timeout = 3'000;
  options.tries = 2;
  options.sock_state_cb = noteSocket;
  options.sock_state_cb_data = &search;
  ares_channel channel = nullptr;
  if (const int failure =
          ares_init_options(&channel, &options,
                            ARES_OPT_LOOKUPS | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_SOCK_STATE_CB))
    return {{}, ares_strerror(failure)};
  ares_addrinfo_hints hints{};
  hints.ai_flags = ARES_AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  ares_getaddrinfo(channel, host.c_str(), std::to_string(port).c_str(), &hints, noteAnswer, &search);
  while (!search.isOver && Clock::now() < deadline)
    advance(channel, search, deadline);
  ares_destroy(channel);
  return search.answer;
}

#endif

}  // namespace

Answer addressesOf(const std::string& host, std::uint16_t port, Clock::time_point deadline) {
  if (const auto address = literal(host, port)) return {{*address}, ""};
  if (::strcasecmp(host.c_str(), "localhost") == 0)
    return {{*literal("127.0.0.1", port), *literal("::1", port)}, ""};
  return ask(host, port, deadline);
}

}  // namespace Resolver
