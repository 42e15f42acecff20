#include "Platform/Http/Connection.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>

namespace Http {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds nextAddressAfter{3'000};

#ifdef __APPLE__
constexpr int noSignal = 0;  // it is an option of the socket there
#else
constexpr int noSignal = MSG_NOSIGNAL;
#endif

bool isTemporary(int error) {
  return error == EAGAIN || error == EINTR;
}

std::string messageOf(int error) {
  return std::generic_category().message(error);
}

// Neither waits, nor passes on to a child process, nor raises a signal.
int openSocket(int family) {
#ifdef __APPLE__
  const int socket = ::socket(family, SOCK_STREAM, 0);
  const int on = 1;
  ::fcntl(socket, F_SETFD, FD_CLOEXEC);
  ::fcntl(socket, F_SETFL, O_NONBLOCK);
  ::setsockopt(socket, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
  return socket;
#else
  return ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
#endif
}

int socketOf(BIO* bio) {
  return static_cast<const Descriptor*>(BIO_get_data(bio))->get();
}

// OpenSSL's own reading and writing of sockets, but that writing to a closed one raises no signal, and that
// errno is 0 when the stream has ended.
BIO_METHOD* socketMethod() {
  static BIO_METHOD* const method = [] {
    BIO_METHOD* made = BIO_meth_new(BIO_TYPE_SOURCE_SINK, "socket");
    BIO_meth_set_read(made, [](BIO* bio, char* bytes, int size) {
      errno = 0;
      const auto count = static_cast<int>(::recv(socketOf(bio), bytes, static_cast<std::size_t>(size), 0));
      BIO_clear_retry_flags(bio);
      if (count < 0 && isTemporary(errno)) BIO_set_retry_read(bio);
      return count;
    });
    BIO_meth_set_write(made, [](BIO* bio, const char* bytes, int size) {
      const auto count =
          static_cast<int>(::send(socketOf(bio), bytes, static_cast<std::size_t>(size), noSignal));
      BIO_clear_retry_flags(bio);
      if (count < 0 && isTemporary(errno)) BIO_set_retry_write(bio);
      return count;
    });
    BIO_meth_set_ctrl(made, [](BIO*, int command, long, void*) -> long { return command == BIO_CTRL_FLUSH; });
    return made;
  }();
  return method;
}

// What the socket must be polled for before an operation of TLS that came to `result` is tried again; 0 when
// that will not help.
short neededBy(const SSL* tls, int result) {
  const int error = SSL_get_error(tls, result);
  return error == SSL_ERROR_WANT_READ ? POLLIN : error == SSL_ERROR_WANT_WRITE ? POLLOUT : 0;
}

// Why the last operation of TLS has failed: by itself, or by the socket's error.
std::string tlsProblem() {
  const auto error = ERR_get_error();
  if (error == 0) return errno == 0 ? "stream truncated" : messageOf(errno);
  const char* reason = ERR_reason_error_string(error);
  const char* library = ERR_lib_error_string(error);
  return std::string(reason ? reason : "an unknown error") + " (" + (library ? library : "TLS") + ")";
}

}  // namespace

Connection::Connection(std::string leadsTo, const std::vector<Resolver::Address>& addresses,
                       Clock::time_point deadline)
    : endpoint(std::move(leadsTo)), receivingNeeds_(POLLIN) {
  for (auto address = addresses.begin();; ++address) {
    const auto others = addresses.end() - address - 1;
    const auto now = Clock::now();
    const auto share = std::min<Clock::duration>((deadline - now) / (others + 1), nextAddressAfter);
    try {
      connect(*address, others == 0 ? deadline : now + share);
      return;
    } catch (const Failure&) {
      if (others == 0) throw;
    }
  }
}

Connection::~Connection() {
  SSL_free(tls_);
}

void Connection::connect(const Resolver::Address& address, Clock::time_point deadline) {
  socket_.emplace(openSocket(address.any.sa_family));
  int error = 0;
  if (!socket_->valid() || ::connect(socket_->get(), &address.any, address.size) != 0) error = errno;
  if (error == EINPROGRESS || error == EINTR) {
    await(POLLOUT, deadline);
    socklen_t size = sizeof error;
    ::getsockopt(socket_->get(), SOL_SOCKET, SO_ERROR, &error, &size);
  }
  if (error != 0) throw Failure{messageOf(error)};
  const int on = 1;
  ::setsockopt(socket_->get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool Connection::secure(const std::string& host, Tls::Trust trust, Clock::time_point deadline) {
  SSL_CTX* context = Tls::newClientContext(trust);
  if (!context) throw Failure{"TLS is not to be had"};
  tls_ = SSL_new(context);
  SSL_CTX_free(context);
  if (!tls_ || !Tls::expectHost(tls_, host)) throw Failure{"the host name cannot be verified"};
  BIO* bio = BIO_new(socketMethod());
  if (!bio) throw Failure{"TLS is not to be had"};
  BIO_set_data(bio, &*socket_);
  BIO_set_init(bio, 1);
  SSL_set_bio(tls_, bio, bio);
  SSL_set_mode(tls_, SSL_MODE_ENABLE_PARTIAL_WRITE);
  SSL_set_read_ahead(tls_, 1);
  for (;;) {
    ERR_clear_error();
    const int result = SSL_connect(tls_);
    if (result == 1) return true;
    const short needed = neededBy(tls_, result);
    if (needed == 0) break;
    await(needed, deadline);
  }
  const std::string problem = tlsProblem();
  const auto verdict = Tls::verdictOn(tls_);
  if (verdict.isTrusted) throw Failure{problem};
  if (!verdict.needsWhole || trust == Tls::Trust::whole) throw Failure{verdict.reason};
  return false;
}

Connection::Progress Connection::advance(std::string_view& unsent, Clock::time_point deadline) {
  for (;;) {
    if (receivingNeeds_ == 0)
      if (const auto progress = receive()) return *progress;
    if (sendingNeeds_ == 0 && !unsent.empty())
      if (const auto progress = send(unsent)) return *progress;
    const short wanted = unsent.empty() ? receivingNeeds_ : receivingNeeds_ | sendingNeeds_;
    const short ready = await(wanted, deadline);
    if (ready & receivingNeeds_) receivingNeeds_ = 0;
    if (ready & sendingNeeds_) sendingNeeds_ = 0;
  }
}

// Absent, like sending, when it must wait.
std::optional<Connection::Progress> Connection::receive() {
  std::array<char, 16 * 1024> bytes;
  std::size_t count = 0;
  if (tls_) {
    ERR_clear_error();
    if (const int result = SSL_read_ex(tls_, bytes.data(), bytes.size(), &count); result != 1) {
      receivingNeeds_ = neededBy(tls_, result);
      if (receivingNeeds_ != 0) return std::nullopt;
      if (SSL_get_error(tls_, result) == SSL_ERROR_ZERO_RETURN) return Progress::ended;
      throw Failure{tlsProblem()};
    }
    receivingNeeds_ = SSL_has_pending(tls_) == 1 ? 0 : POLLIN;
  } else {
    const auto received = ::recv(socket_->get(), bytes.data(), bytes.size(), 0);
    receivingNeeds_ = POLLIN;
    if (received == 0) return Progress::ended;
    if (received < 0 && isTemporary(errno)) return std::nullopt;
    if (received < 0) throw Failure{messageOf(errno)};
    count = static_cast<std::size_t>(received);
  }
  unread.append(bytes.data(), count);
  return Progress::received;
}

std::optional<Connection::Progress> Connection::send(std::string_view& unsent) {
  std::size_t count = unsent.size();  // after an error nothing is left to send
  if (tls_) {
    ERR_clear_error();
    const int result = SSL_write_ex(tls_, unsent.data(), unsent.size(), &count);
    if (result != 1) {
      sendingNeeds_ = neededBy(tls_, result);
      count = unsent.size();
    }
  } else {
    const auto sent = ::send(socket_->get(), unsent.data(), unsent.size(), noSignal);
    if (sent >= 0) count = static_cast<std::size_t>(sent);
    if (sent < 0 && isTemporary(errno)) sendingNeeds_ = POLLOUT;
  }
  if (sendingNeeds_ != 0) return std::nullopt;
  unsent.remove_prefix(count);
  return Progress::sent;
}

// The events that have happened, all of them when something is wrong with the socket.
short Connection::await(short events, Clock::time_point deadline) const {
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    if (left <= milliseconds::zero()) throw Failure{"timed out", true};
    pollfd polled{socket_->get(), events, 0};
    const auto atMost = static_cast<int>(std::min<milliseconds::rep>(left.count(), INT_MAX));
    if (::poll(&polled, 1, atMost) > 0) return polled.revents & events ? polled.revents : events;
  }
}

}  // namespace Http
