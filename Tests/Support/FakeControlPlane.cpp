#include "Tests/Support/FakeControlPlane.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <set>
#include <thread>

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;
using boost::system::error_code;
using std::chrono::milliseconds;
using Reply = FakeControlPlane::Reply;
using Request = FakeControlPlane::Request;
using Fault = FakeControlPlane::Fault;

namespace {

// One accepted connection, plain or, after `handshake`, under TLS.
struct Channel {
  tcp::socket socket;
  std::optional<asio::ssl::stream<tcp::socket&>> tls = {};
  boost::beast::flat_buffer unread = {};

  bool handshake(asio::ssl::context& context) {
    error_code error;
    tls.emplace(socket, context).handshake(asio::ssl::stream_base::server, error);
    return !error;
  }

  bool write(std::string_view bytes) {
    error_code error;
    const auto buffer = asio::buffer(bytes.data(), bytes.size());
    tls ? asio::write(*tls, buffer, error) : asio::write(socket, buffer, error);
    return !error;
  }

  // The next request; absent when the client ends first.
  std::optional<Request> read(bool headOnly) {
    http::request_parser<http::string_body> parser;
    parser.body_limit(boost::none);
    error_code error;
    const auto readFrom = [&](auto& stream) {
      headOnly ? http::read_header(stream, unread, parser, error) : http::read(stream, unread, parser, error);
    };
    tls ? readFrom(*tls) : readFrom(socket);
    if (error) return std::nullopt;
    const auto message = parser.release();
    Request request;
    request.method = std::string(message.method_string());
    request.target = std::string(message.target());
    for (const auto& field : message) {
      std::string name(field.name_string());
      std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::tolower(c); });
      request.headers[name] = std::string(field.value());
    }
    request.body = message.body();
    return request;
  }
};

std::string headOf(const Reply& reply) {
  std::string head = reply.before + "HTTP/1.1 " + std::to_string(reply.status) + " Scripted\r\n";
  for (const auto& [name, value] : reply.headers)
    head += name + ": " + value + "\r\n";
  const bool bodiless = reply.status == 204 || reply.status == 304 || reply.tlsAfter;
  if (reply.chunked) {
    head += "Transfer-Encoding: chunked\r\n";
  } else if (!bodiless && !reply.untilClose) {
    const auto length = reply.fault == Fault::endlessBody ? 1'000'000'000'000 : reply.body.size();
    head += "Content-Length: " + std::to_string(length) + "\r\n";
  }
  return head + "\r\n";
}

std::string bodyOf(const Reply& reply) {
  if (reply.status == 204 || reply.status == 304 || reply.tlsAfter) return "";
  if (!reply.chunked) return reply.body;
  const auto half = reply.body.size() / 2;
  std::string chunks;
  for (const auto& part : {reply.body.substr(0, half), reply.body.substr(half)}) {
    char size[24];
    std::snprintf(size, sizeof size, "%zx;note=x\r\n", part.size());
    if (!part.empty()) chunks += size + part + "\r\n";
  }
  return chunks + "0\r\nX-Trailer: x\r\n\r\n";
}

bool matches(const std::string& pattern, const Request& request) {
  return ::fnmatch(pattern.c_str(), request.path().c_str(), 0) == 0;
}

}  // namespace

struct FakeControlPlane::State {
  Options options;
  asio::io_context context;
  tcp::acceptor listener{context};
  std::vector<tcp::socket> crowd;  // connections that fill the queue of a server that never accepts
  std::optional<asio::ssl::context> tls;
  std::thread acceptor;

  mutable std::mutex mutex;
  std::condition_variable changed;
  bool stopping = false;
  int connections = 0;
  std::set<int> open;  // descriptors
  std::vector<std::thread> threads;
  std::vector<Request> requests;
  std::deque<Reply> script;
  std::vector<std::pair<std::string, Handler>> handlers;

  void listen() {
    const tcp::endpoint at(asio::ip::make_address(options.address), static_cast<std::uint16_t>(options.port));
    listener.open(at.protocol());
    ::fcntl(listener.native_handle(), F_SETFD, FD_CLOEXEC);
    listener.set_option(tcp::acceptor::reuse_address(true));
    listener.bind(at);
    listener.listen(options.unaccepting ? 0 : 128);
    while (options.unaccepting && crowd.size() < 4) {
      auto& socket = crowd.emplace_back(context, at.protocol());
      ::fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
      socket.async_connect(listener.local_endpoint(), [](const error_code&) {});
    }
  }

  void setUpTls() {
    tls.emplace(asio::ssl::context::tls_server);
    tls->use_certificate(asio::buffer(options.certificate->pem), asio::ssl::context::pem);
    tls->use_private_key(asio::buffer(options.certificate->key), asio::ssl::context::pem);
    if (!options.oldTls) return;
    SSL_CTX_set_security_level(tls->native_handle(), 0);
    SSL_CTX_set_max_proto_version(tls->native_handle(), TLS1_1_VERSION);
  }

  void acceptAll() {
    int descriptor;
    while ((descriptor = ::accept4(listener.native_handle(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0 ||
           errno != EINVAL) {
      if (descriptor < 0) continue;
      const std::lock_guard lock(mutex);
      open.insert(descriptor);
      threads.emplace_back([this, number = ++connections, descriptor] { serve(number, descriptor); });
    }
  }

  void serve(int number, int descriptor) {
    Channel channel{tcp::socket(context, listener.local_endpoint().protocol(), descriptor)};
    channel.socket.set_option(tcp::no_delay(true));
    converse(channel, number);
    const std::lock_guard lock(mutex);
    open.erase(descriptor);
    channel.socket.close();
  }

  void converse(Channel& channel, int number) {
    if (options.deaf) return waitForEnd();
    if (tls && !options.plainFirst && !channel.handshake(*tls)) return;
    while (auto request = channel.read(options.hasty)) {
      request->connection = number;
      const Reply reply = replyTo(*request);
      const bool goesOn = answer(channel, reply);
      if (options.hasty && !reply.closeAfter) waitForEnd();
      if (!goesOn || (reply.tlsAfter && !channel.handshake(*tls))) return;
    }
  }

  Reply replyTo(const Request& request) {
    std::unique_lock lock(mutex);
    requests.push_back(request);
    if (!script.empty()) {
      Reply reply = std::move(script.front());
      script.pop_front();
      return reply;
    }
    Handler handler;
    for (const auto& [pattern, candidate] : handlers) {
      if (matches(pattern, request)) handler = candidate;
    }
    lock.unlock();
    return handler ? handler(request) : Reply{};
  }

  // False when the connection is to be closed.
  bool answer(Channel& channel, const Reply& reply) {
    const std::string head = reply.raw ? *reply.raw : headOf(reply);
    std::string text = reply.raw ? head : head + bodyOf(reply);
    if (reply.fault == Fault::closeInHead) {
      text.resize(head.size() / 2);
    } else if (reply.fault == Fault::closeInBody || reply.fault == Fault::silenceInBody) {
      text.resize((head.size() + text.size()) / 2);
    } else if (reply.fault != Fault::none && reply.fault != Fault::endlessBody) {
      text.clear();
    }
    const auto headEnd = std::min(head.size(), text.size());
    if (!pause(reply.delay) || !drip(channel, text.substr(0, headEnd), reply.drip)) return false;
    if (!drip(channel, text.substr(headEnd), std::max(reply.drip, reply.dripBody))) return false;
    while (reply.fault == Fault::endlessBody && channel.write(std::string(65536, 'x'))) {
    }
    error_code ignored;
    if (reply.untilClose) channel.socket.shutdown(tcp::socket::shutdown_send, ignored);
    if (reply.fault == Fault::silence || reply.fault == Fault::silenceInBody) waitForEnd();
    if (reply.fault == Fault::resetBeforeHead) channel.socket.set_option(tcp::socket::linger(true, 0));
    return reply.fault == Fault::none && !reply.closeAfter;
  }

  bool drip(Channel& channel, const std::string& bytes, milliseconds each) {
    if (each.count() == 0) return channel.write(bytes);
    return std::ranges::all_of(bytes, [&](char byte) { return channel.write({&byte, 1}) && pause(each); });
  }

  void waitForEnd() { pause(std::chrono::hours(24)); }

  // False when the server stops meanwhile.
  bool pause(milliseconds time) {
    std::unique_lock lock(mutex);
    return !changed.wait_for(lock, time, [&] { return stopping; });
  }
};

FakeControlPlane::FakeControlPlane() : FakeControlPlane(Options{}) {}

FakeControlPlane::FakeControlPlane(Options options) : state_(std::make_unique<State>()) {
  state_->options = std::move(options);
  state_->listen();
  if (state_->options.certificate) state_->setUpTls();
  if (state_->options.unaccepting) return;
  state_->acceptor = std::thread([state = state_.get()] { state->acceptAll(); });
}

FakeControlPlane::~FakeControlPlane() {
  ::shutdown(state_->listener.native_handle(), SHUT_RDWR);
  if (state_->acceptor.joinable()) state_->acceptor.join();
  {
    const std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    for (const int descriptor : state_->open)
      ::shutdown(descriptor, SHUT_RDWR);
  }
  state_->changed.notify_all();
  for (auto& thread : state_->threads)
    thread.join();
}

void FakeControlPlane::on(const std::string& pattern, Handler handler) {
  const std::lock_guard lock(state_->mutex);
  std::erase_if(state_->handlers, [&](const auto& each) { return each.first == pattern; });
  state_->handlers.emplace_back(pattern, std::move(handler));
}

void FakeControlPlane::next(std::vector<Reply> replies) {
  const std::lock_guard lock(state_->mutex);
  std::ranges::move(replies, std::back_inserter(state_->script));
}

std::vector<Request> FakeControlPlane::requests(const std::string& pattern) const {
  const std::lock_guard lock(state_->mutex);
  std::vector<Request> matching;
  for (Request request : state_->requests) {
    if (!matches(pattern, request)) continue;
    request.json = Json::parseObject(request.body).value_or(Json::Object{});
    matching.push_back(std::move(request));
  }
  return matching;
}

int FakeControlPlane::connections() const {
  const std::lock_guard lock(state_->mutex);
  return state_->connections;
}

int FakeControlPlane::port() const {
  return state_->listener.local_endpoint().port();
}
std::string FakeControlPlane::url() const {
  const auto& address = state_->options.address;
  return url(address.find(':') == address.npos ? address : "[" + address + "]");
}

std::string FakeControlPlane::url(const std::string& host) const {
  return (state_->tls && !state_->options.plainFirst ? "https://" : "http://") + host + ":" +
         std::to_string(port());
}
