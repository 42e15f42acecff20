#include "Tests/Support/FakeControlPlane.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

using Reply = FakeControlPlane::Reply;
using Request = FakeControlPlane::Request;
using Fault = FakeControlPlane::Fault;

namespace {

struct FreeTls {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* tls) const { SSL_free(tls); }
};

// One accepted connection, plain or, after `handshake`, under TLS.
class Channel {
 public:
  explicit Channel(int descriptor) : descriptor_(descriptor) {}
  ~Channel() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  bool handshake(SSL_CTX* context) {
    tls_.reset(SSL_new(context));
    return SSL_set_fd(tls_.get(), descriptor_) == 1 && SSL_accept(tls_.get()) == 1;
  }

  bool read(std::string& into) {
    char bytes[16384];
    const auto count = tls_ ? SSL_read(tls_.get(), bytes, sizeof bytes)
                            : static_cast<int>(::recv(descriptor_, bytes, sizeof bytes, 0));
    if (count <= 0) return false;
    into.append(bytes, static_cast<std::size_t>(count));
    return true;
  }

  bool write(std::string_view bytes) {
    while (!bytes.empty()) {
      const auto count = tls_ ? SSL_write(tls_.get(), bytes.data(), static_cast<int>(bytes.size()))
                              : ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

  void reset() {
    const linger now{1, 0};
    ::setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  }

 private:
  int descriptor_;
  std::unique_ptr<SSL, FreeTls> tls_;
};

// Takes one whole request off the front of `buffered`, reading on as needed; absent when the client ends
// first.
std::optional<Request> readRequest(Channel& channel, std::string& buffered) {
  std::size_t end;
  while ((end = buffered.find("\r\n\r\n")) == std::string::npos) {
    if (!channel.read(buffered)) return std::nullopt;
  }
  Request request;
  const std::string head = buffered.substr(0, end + 2);
  const auto firstLine = head.substr(0, head.find("\r\n"));
  request.method = firstLine.substr(0, firstLine.find(' '));
  request.target =
      firstLine.substr(request.method.size() + 1, firstLine.rfind(' ') - request.method.size() - 1);
  for (std::size_t at = firstLine.size() + 2; at < head.size();) {
    const auto lineEnd = head.find("\r\n", at);
    const auto colon = head.find(':', at);
    std::string name = head.substr(at, colon - at);
    for (auto& letter : name)
      letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    auto valueAt = head.find_first_not_of(' ', colon + 1);
    request.headers[name] = head.substr(valueAt, lineEnd - valueAt);
    at = lineEnd + 2;
  }
  buffered.erase(0, end + 4);
  const auto length = request.headers.find("content-length");
  const auto size = length == request.headers.end() ? 0 : std::stoul(length->second);
  while (buffered.size() < size) {
    if (!channel.read(buffered)) return std::nullopt;
  }
  request.body = buffered.substr(0, size);
  buffered.erase(0, size);
  request.json = Json::parseObject(request.body).value_or(Json::Object{});
  return request;
}

std::string headOf(const Reply& reply) {
  const bool bodiless = reply.status == 204 || reply.status == 304 || reply.tlsAfter;
  std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " Scripted\r\n";
  for (const auto& [name, value] : reply.headers)
    head += name + ": " + value + "\r\n";
  if (reply.chunked) {
    head += "Transfer-Encoding: chunked\r\n";
  } else if (!bodiless && !reply.untilClose) {
    const auto length = reply.fault == Fault::endlessBody ? 1'000'000'000'000 : reply.body.size();
    head += "Content-Length: " + std::to_string(length) + "\r\n";
  }
  return head + "\r\n";
}

std::string bodyOf(const Reply& reply) {
  if (!reply.chunked || reply.body.empty()) return reply.chunked ? "0\r\n\r\n" : reply.body;
  const auto half = reply.body.size() / 2;
  std::string chunks;
  for (const auto& part : {reply.body.substr(0, half), reply.body.substr(half)}) {
    char size[24];
    std::snprintf(size, sizeof size, "%zx;note=x\r\n", part.size());
    if (!part.empty()) chunks += size + part + "\r\n";
  }
  return chunks + "0\r\nX-Trailer: x\r\n\r\n";
}

}  // namespace

struct FakeControlPlane::State {
  Options options;
  int listener = -1;
  int port = 0;
  int wake[2] = {-1, -1};
  std::vector<int> crowd;  // connections that fill the queue of a server that never accepts
  std::unique_ptr<SSL_CTX, FreeTls> tls;
  std::thread acceptor;

  mutable std::mutex mutex;
  std::condition_variable changed;
  bool stopping = false;
  int connections = 0;
  std::map<int, int> open;  // connection number to descriptor
  std::vector<std::thread> threads;
  std::vector<Request> requests;
  std::deque<Reply> script;
  std::vector<std::pair<std::string, Handler>> handlers;

  void listenAt();
  void crowdOut();
  void setUpTls();
  void acceptAll();
  void serve(int number, int descriptor);
  Reply replyTo(const Request& request);
  bool answer(Channel& channel, const Reply& reply);
  bool drip(Channel& channel, std::string_view bytes, std::chrono::milliseconds pause);
  void waitForEnd();
  bool pause(std::chrono::milliseconds time);  // false when the server stops meanwhile
};

void FakeControlPlane::State::listenAt() {
  const bool six = options.ipv6;
  listener = ::socket(six ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_storage storage{};
  socklen_t size;
  const auto wanted = htons(static_cast<std::uint16_t>(options.port));
  if (six) {
    auto& address = reinterpret_cast<sockaddr_in6&>(storage);
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    address.sin6_port = wanted;
    size = sizeof address;
  } else {
    auto& address = reinterpret_cast<sockaddr_in&>(storage);
    address.sin_family = AF_INET;
    inet_pton(AF_INET, options.address.empty() ? "127.0.0.1" : options.address.c_str(), &address.sin_addr);
    address.sin_port = wanted;
    size = sizeof address;
  }
  const int yes = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  auto* generic = reinterpret_cast<sockaddr*>(&storage);
  if (::bind(listener, generic, size) != 0 || ::listen(listener, options.unaccepting ? 0 : 128) != 0 ||
      ::getsockname(listener, generic, &size) != 0 || ::pipe2(wake, O_CLOEXEC) != 0) {
    throw std::runtime_error("the test server cannot listen");
  }
  port = ntohs(six ? reinterpret_cast<sockaddr_in6&>(storage).sin6_port
                   : reinterpret_cast<sockaddr_in&>(storage).sin_port);
}

void FakeControlPlane::State::crowdOut() {
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&storage), &size);
  for (int i = 0; i < 4; ++i) {
    crowd.push_back(::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ::connect(crowd.back(), reinterpret_cast<sockaddr*>(&storage), size);
  }
}

void FakeControlPlane::State::setUpTls() {
  tls.reset(SSL_CTX_new(TLS_server_method()));
  const auto load = [](const std::string& pem, auto read) {
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    auto* object = read(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    return object;
  };
  X509* certificate = load(options.certificate->pem, PEM_read_bio_X509);
  EVP_PKEY* key = load(options.certificate->key, PEM_read_bio_PrivateKey);
  const bool loaded =
      SSL_CTX_use_certificate(tls.get(), certificate) == 1 && SSL_CTX_use_PrivateKey(tls.get(), key) == 1;
  X509_free(certificate);
  EVP_PKEY_free(key);
  if (!loaded) throw std::runtime_error("the test server cannot use its certificate");
}

void FakeControlPlane::State::acceptAll() {
  // A client that has gone raises SIGPIPE on a TLS write; blocked here, it stays with this thread.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  pollfd waiting[] = {{listener, POLLIN, 0}, {wake[0], POLLIN, 0}};
  while (::poll(waiting, 2, -1) >= 0 && waiting[1].revents == 0) {
    const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0) continue;
    const int yes = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    const std::lock_guard lock(mutex);
    const int number = ++connections;
    open[number] = descriptor;
    threads.emplace_back([this, number, descriptor] { serve(number, descriptor); });
  }
}

void FakeControlPlane::State::serve(int number, int descriptor) {
  Channel channel(descriptor);
  const auto converse = [&] {
    if (options.deaf) return waitForEnd();
    if (tls && !options.plainFirst && !channel.handshake(tls.get())) return;
    std::string buffered;
    while (auto request = readRequest(channel, buffered)) {
      request->connection = number;
      const Reply reply = replyTo(*request);
      if (!answer(channel, reply)) return;
      if (reply.tlsAfter && !channel.handshake(tls.get())) return;
    }
  };
  converse();
  const std::lock_guard lock(mutex);
  open.erase(number);
}

Reply FakeControlPlane::State::replyTo(const Request& request) {
  Handler handler;
  {
    const std::lock_guard lock(mutex);
    requests.push_back(request);
    if (!script.empty()) {
      Reply reply = std::move(script.front());
      script.pop_front();
      return reply;
    }
    for (const auto& [pattern, candidate] : handlers) {
      if (::fnmatch(pattern.c_str(), request.path().c_str(), 0) == 0) handler = candidate;
    }
  }
  return handler ? handler(request) : Reply{};
}

// False when the connection is to be closed.
bool FakeControlPlane::State::answer(Channel& channel, const Reply& reply) {
  if (!pause(reply.delay)) return false;
  if (reply.fault == Fault::resetBeforeHead) channel.reset();
  if (reply.fault == Fault::resetBeforeHead || reply.fault == Fault::closeBeforeHead) return false;
  if (reply.fault == Fault::silence) return waitForEnd(), false;
  if (reply.raw) return drip(channel, *reply.raw, reply.drip) && !reply.closeAfter;

  const std::string head = headOf(reply);
  if (reply.fault == Fault::closeInHead) {
    channel.write(head.substr(0, head.size() / 2));
    return false;
  }
  if (!channel.write(reply.before) || !drip(channel, head, reply.drip)) return false;
  if (reply.tlsAfter) return true;
  if (reply.fault == Fault::endlessBody) {
    while (channel.write(std::string(65536, 'x'))) {
    }
    return false;
  }
  std::string body = reply.status == 204 || reply.status == 304 ? "" : bodyOf(reply);
  if (reply.fault == Fault::closeInBody || reply.fault == Fault::silenceInBody) {
    channel.write(body.substr(0, body.size() / 2));
    if (reply.fault == Fault::silenceInBody) waitForEnd();
    return false;
  }
  return drip(channel, body, std::max(reply.drip, reply.dripBody)) && !reply.closeAfter && !reply.untilClose;
}

bool FakeControlPlane::State::drip(Channel& channel, std::string_view bytes, std::chrono::milliseconds each) {
  if (each.count() == 0) return channel.write(bytes);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (!channel.write(bytes.substr(i, 1)) || !pause(each)) return false;
  }
  return true;
}

void FakeControlPlane::State::waitForEnd() {
  std::unique_lock lock(mutex);
  changed.wait(lock, [&] { return stopping; });
}

bool FakeControlPlane::State::pause(std::chrono::milliseconds time) {
  std::unique_lock lock(mutex);
  return !changed.wait_for(lock, time, [&] { return stopping; });
}

FakeControlPlane::FakeControlPlane() : FakeControlPlane(Options{}) {}

FakeControlPlane::FakeControlPlane(Options options) : state_(std::make_unique<State>()) {
  state_->options = std::move(options);
  state_->listenAt();
  if (state_->options.certificate) state_->setUpTls();
  if (state_->options.unaccepting) {
    state_->crowdOut();
  } else {
    state_->acceptor = std::thread([state = state_.get()] { state->acceptAll(); });
  }
}

FakeControlPlane::~FakeControlPlane() {
  if (::write(state_->wake[1], "x", 1) < 0) std::abort();
  if (state_->acceptor.joinable()) state_->acceptor.join();
  {
    const std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    for (const auto& [number, descriptor] : state_->open)
      ::shutdown(descriptor, SHUT_RDWR);
  }
  state_->changed.notify_all();
  for (auto& thread : state_->threads)
    thread.join();
  for (const int descriptor : state_->crowd)
    ::close(descriptor);
  for (const int descriptor : {state_->listener, state_->wake[0], state_->wake[1]})
    ::close(descriptor);
}

void FakeControlPlane::on(const std::string& pattern, Handler handler) {
  const std::lock_guard lock(state_->mutex);
  state_->handlers.emplace_back(pattern, std::move(handler));
}

void FakeControlPlane::on(const std::string& pattern, Reply reply) {
  on(pattern, [reply = std::move(reply)](const Request&) { return reply; });
}

void FakeControlPlane::on(const std::string& pattern, Json::Object body) {
  on(pattern, json(std::move(body)));
}

void FakeControlPlane::next(std::vector<Reply> replies) {
  const std::lock_guard lock(state_->mutex);
  for (auto& reply : replies)
    state_->script.push_back(std::move(reply));
}

std::vector<Request> FakeControlPlane::requests() const {
  const std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<Request> FakeControlPlane::requests(const std::string& pattern) const {
  auto all = requests();
  std::erase_if(all, [&](const Request& request) {
    return ::fnmatch(pattern.c_str(), request.path().c_str(), 0) != 0;
  });
  return all;
}

int FakeControlPlane::connections() const {
  const std::lock_guard lock(state_->mutex);
  return state_->connections;
}

int FakeControlPlane::port() const {
  return state_->port;
}

std::string FakeControlPlane::url() const {
  const auto& address = state_->options.address;
  return url(state_->options.ipv6 ? "[::1]" : address.empty() ? "127.0.0.1" : address);
}

std::string FakeControlPlane::url(const std::string& host) const {
  const bool secure = state_->tls && !state_->options.plainFirst;
  return (secure ? "https://" : "http://") + host + ":" + std::to_string(state_->port);
}

Reply FakeControlPlane::json(Json::Object body, int status) {
  Reply reply;
  reply.status = status;
  reply.body = Json(std::move(body)).compact();
  return reply;
}

Reply FakeControlPlane::status(int status, std::string body) {
  Reply reply;
  reply.status = status;
  reply.body = std::move(body);
  return reply;
}

Reply FakeControlPlane::failing(Fault fault) {
  Reply reply;
  reply.fault = fault;
  return reply;
}
