#include "Platform/Http.h"

#include <fcntl.h>

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <memory>
#include <string_view>

#include "Platform/Proxy.h"
#include "Platform/Resolver.h"
#include "Platform/Tls.h"
#include "Platform/Url.h"

namespace Http {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
using asio::ip::tcp;
using boost::system::error_code;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Parser = std::unique_ptr<beast::http::response_parser<beast::http::string_body>>;

constexpr std::uint32_t headLimit = 64 * 1024;
constexpr std::uint64_t bodyLimit = 16 * 1024 * 1024;
constexpr std::size_t readSize = 16 * 1024;
constexpr milliseconds nextAddressAfter{3'000};
constexpr auto asResult = asio::as_tuple(asio::use_awaitable);

struct Connection {
  explicit Connection(asio::io_context& context) : socket(context) {}

  std::string leadsTo;
  tcp::socket socket;
  std::unique_ptr<asio::ssl::stream<tcp::socket&>> tls;  // absent: plain
  beast::flat_buffer unread;
};

// What one exchange leaves for the next. It is never destroyed: there is nothing to say to the server at the
// end of the process that the closing of the socket does not say.
struct Session {
  asio::io_context context{1};
  std::unique_ptr<Connection> kept;
};

Session& session() {
  static Session* const only = new Session;
  return *only;
}

// A transport error. Thrown within this file only.
struct Failure {
  std::string description;
  bool isUnanswered = false;  // the connection ended before any byte of the answer
};

bool hasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char c) { return (c < ' ' && c != '\t') || c == 127; });
}

class Exchange {
 public:
  Exchange(const Request& request, milliseconds timeout, milliseconds overall)
      : request_(request), timeout_(timeout), end_(Clock::now() + overall) {}

  Response run();

 private:
  asio::awaitable<Response> perform();
  asio::awaitable<Response> ask();
  asio::awaitable<void> connect();
  asio::awaitable<void> connectTo(const Url::Parts& peer);
  asio::awaitable<void> openTunnel();
  asio::awaitable<bool> startTls(Tls::Trust trust);
  asio::awaitable<void> send(std::string step, std::string_view text);
  asio::awaitable<bool> receiveMore();
  asio::awaitable<Parser> receive(std::string step, bool headOnly);

  std::string requestText() const;
  void giveUp();
  void begin(std::string step, milliseconds wait);
  void progress();
  [[noreturn]] void fail(const error_code& error) const;
  [[noreturn]] void fail(std::string_view reason) const;

  const Request& request_;
  const milliseconds timeout_;
  const Clock::time_point end_;
  Url::Parts target_;
  std::optional<Proxy::Server> proxy_;
  std::unique_ptr<Connection> connection_;
  std::string step_;                // what is being done, for the description of an error
  Clock::time_point until_ = end_;  // when the step is given up
  bool expired_ = false;            // it was
  bool heard_ = false;              // a byte of the answer has arrived
};

// Runs the conversation one completion at a time: whatever it waits for is cancelled when its time is up.
Response Exchange::run() {
  asio::io_context& context = session().context;
  context.restart();
  Response response;
  bool done = false;
  asio::co_spawn(context, perform(), [&](const std::exception_ptr& failure, Response answer) {
    done = true;
    response = std::move(answer);
    try {
      if (failure) std::rethrow_exception(failure);
    } catch (const Failure& reason) {
      response = {0, "", reason.description};
    } catch (const std::exception& reason) {
      response = {0, "", reason.what()};
    }
  });
  while (!done) {
    if (context.run_one_until(until_) > 0) continue;
    expired_ = true;
    giveUp();
    context.poll_one();
  }
  if (response.error && Clock::now() >= end_) return {};
  return response;
}

// What is ready already cannot be cancelled, so that a server which never pauses would go on: at the end it
// is cut off.
void Exchange::giveUp() {
  error_code ignored;
  if (!connection_) return;
  if (Clock::now() < end_) {
    connection_->socket.cancel(ignored);
  } else {
    connection_->socket.close(ignored);
  }
}

void Exchange::begin(std::string step, milliseconds wait) {
  step_ = std::move(step);
  until_ = std::min(Clock::now() + wait, end_);
  expired_ = false;
}

void Exchange::progress() {
  until_ = std::min(Clock::now() + timeout_, end_);
  expired_ = false;
}

void Exchange::fail(const error_code& error) const {
  fail(expired_ ? std::string("timed out") : error.message());
}

void Exchange::fail(std::string_view reason) const {
  throw Failure{step_ + ": " + std::string(reason)};
}

asio::awaitable<Response> Exchange::perform() {
  step_ = "preparing the request";
  const auto target = Url::parse(request_.url);
  if (!target) fail("not an absolute http or https URL");
  for (const auto& [name, value] : request_.headers) {
    if (hasControlCharacter(name) || hasControlCharacter(value)) fail("a header holds a control character");
  }
  target_ = *target;
  proxy_ = Proxy::forTarget(target_);
  if (proxy_ && proxy_->at.host.empty()) fail("the proxy setting is not an http URL");

  std::string leadsTo = target_.secure || !proxy_ ? target_.authority(true) : "";
  leadsTo += target_.secure ? " tls" : "";
  if (proxy_) leadsTo += " by " + proxy_->at.authority(true);
  if (auto kept = std::move(session().kept); kept && kept->leadsTo == leadsTo) {
    connection_ = std::move(kept);
    try {
      co_return co_await ask();
    } catch (const Failure& failure) {
      if (!failure.isUnanswered) throw;
    }
  }
  co_await connect();
  connection_->leadsTo = leadsTo;
  co_return co_await ask();
}

asio::awaitable<Response> Exchange::ask() {
  Parser parser;
  try {
    co_await send("sending the request to " + target_.authority(), requestText());
    parser = co_await receive("reading the answer of " + target_.authority(), false);
  } catch (Failure& failure) {
    failure.isUnanswered = !heard_ && !expired_;
    throw;
  }
  if (parser->keep_alive() && connection_->unread.size() == 0) session().kept = std::move(connection_);
  auto message = parser->release();
  co_return Response{static_cast<int>(message.result_int()), std::move(message.body()), std::nullopt};
}

std::string Exchange::requestText() const {
  std::string text = request_.method + " ";
  const bool atProxy = proxy_ && !target_.secure;
  if (atProxy) text += "http://" + target_.authority();
  text += target_.target + " HTTP/1.1\r\nHost: " + target_.authority() + "\r\n";
  if (atProxy && !proxy_->authorization.empty()) {
    text += "Proxy-Authorization: " + proxy_->authorization + "\r\n";
  }
  for (const auto& [name, value] : request_.headers)
    text += name + ": " + value + "\r\n";
  if (request_.method != "GET" || !request_.body.empty()) {
    text += "Content-Length: " + std::to_string(request_.body.size()) + "\r\n";
  }
  return text + "\r\n" + request_.body;
}

asio::awaitable<void> Exchange::connect() {
  for (const auto trust : {Tls::Trust::onDemand, Tls::Trust::whole}) {
    connection_ = std::make_unique<Connection>(session().context);
    co_await connectTo(proxy_ ? proxy_->at : target_);
    if (!target_.secure) co_return;
    if (proxy_) co_await openTunnel();
    if (co_await startTls(trust)) co_return;
  }
}

// Tries the addresses in turn. Together they have the time of one wait, of which each leaves the others a
// share.
asio::awaitable<void> Exchange::connectTo(const Url::Parts& peer) {
  begin("looking up " + peer.host, timeout_);
  const auto givenUp = until_;
  const auto found = Resolver::addressesOf(peer.host, givenUp);
  if (found.addresses.empty()) fail(found.error.empty() ? "timed out" : found.error);
  std::string failure;
  for (std::size_t i = 0; i < found.addresses.size(); ++i) {
    const auto left = std::chrono::ceil<milliseconds>(givenUp - Clock::now());
    const auto others = static_cast<int>(found.addresses.size() - 1 - i);
    begin("connecting to " + peer.authority(true),
          others == 0 ? left : std::min(left / (others + 1), nextAddressAfter));
    const tcp::endpoint endpoint(asio::ip::make_address(found.addresses[i]), peer.port);
    auto& socket = connection_->socket;
    error_code error;
    socket.close(error);
    socket.open(endpoint.protocol(), error);
    if (!error) {
      ::fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
      std::tie(error) = co_await socket.async_connect(endpoint, asResult);
    }
    if (!error) {
      socket.set_option(tcp::no_delay(true), error);
      co_return;
    }
    failure = expired_ ? "timed out" : error.message();
  }
  fail(failure);
}

asio::awaitable<void> Exchange::openTunnel() {
  std::string text =
      "CONNECT " + target_.authority(true) + " HTTP/1.1\r\nHost: " + target_.authority(true) + "\r\n";
  if (!proxy_->authorization.empty()) text += "Proxy-Authorization: " + proxy_->authorization + "\r\n";
  co_await send("sending to the proxy " + proxy_->at.authority(true), text + "\r\n");
  const auto answer = co_await receive("reading the answer of the proxy " + proxy_->at.authority(true), true);
  const auto status = answer->get().result_int();
  if (status < 200 || status > 299) fail("it refused to connect, status " + std::to_string(status));
  if (connection_->unread.size() > 0) fail("it sent more than an answer");
}

// False when the server's issuer is unknown, but might be found by another way of looking.
asio::awaitable<bool> Exchange::startTls(Tls::Trust trust) {
  begin("securing the connection to " + target_.authority(), timeout_);
  SSL_CTX* client = Tls::newClientContext(trust);
  if (!client) fail("TLS is not to be had");
  asio::ssl::context context(client);
  connection_->tls = std::make_unique<asio::ssl::stream<tcp::socket&>>(connection_->socket, context);
  SSL* tls = connection_->tls->native_handle();
  if (!Tls::expectHost(tls, target_.host)) fail("the host name cannot be verified");
  const auto [error] = co_await connection_->tls->async_handshake(asio::ssl::stream_base::client, asResult);
  if (!error) co_return true;
  const auto verdict = Tls::verdictOn(tls);
  if (expired_ || verdict.isTrusted) fail(error);
  if (!verdict.isIssuerUnknown || trust == Tls::Trust::whole) fail(verdict.reason);
  co_return false;
}

asio::awaitable<void> Exchange::send(std::string step, std::string_view text) {
  heard_ = false;
  begin(std::move(step), timeout_);
  while (!text.empty()) {
    const auto bytes = asio::buffer(text);
    const auto [error, count] = connection_->tls
                                    ? co_await connection_->tls->async_write_some(bytes, asResult)
                                    : co_await connection_->socket.async_write_some(bytes, asResult);
    if (error) {
      // A server that refuses a request before it has read it whole has its answer under way.
      if (expired_) fail(error);
      co_return;
    }
    text.remove_prefix(count);
    progress();
  }
}

// False at the end of the stream.
asio::awaitable<bool> Exchange::receiveMore() {
  auto& unread = connection_->unread;
  if (unread.size() > headLimit) fail("the answer's head is too large");
  const auto space = unread.prepare(readSize);
  const auto [error, count] = connection_->tls
                                  ? co_await connection_->tls->async_read_some(space, asResult)
                                  : co_await connection_->socket.async_read_some(space, asResult);
  if (error == asio::error::eof) co_return false;
  if (error) fail(error);
  unread.commit(count);
  heard_ = true;
  progress();
  co_return true;
}

// The final answer, interim ones skipped; the head only of one to CONNECT.
asio::awaitable<Parser> Exchange::receive(std::string step, bool headOnly) {
  begin(std::move(step), timeout_);
  auto& unread = connection_->unread;
  for (;;) {
    auto parser = std::make_unique<beast::http::response_parser<beast::http::string_body>>();
    parser->header_limit(headLimit);
    parser->body_limit(bodyLimit);
    parser->eager(true);
    parser->skip(headOnly);
    while (!parser->is_done()) {
      error_code error;
      if (unread.size() > 0) {
        unread.consume(parser->put(unread.data(), error));
        if (error && error != beast::http::error::need_more) fail(error);
        if (parser->is_done()) break;
      }
      if (co_await receiveMore()) continue;
      if (!parser->got_some()) fail("the connection was closed");
      parser->put_eof(error);
      if (error) fail(error);
    }
    const auto status = parser->get().result_int();
    if (status >= 200 || status == 101) co_return parser;
  }
}

}  // namespace

Response exchange(const Request& request, milliseconds timeout, milliseconds overall) {
  try {
    return Exchange(request, timeout, overall).run();
  } catch (const std::exception& failure) {
    return {0, "", failure.what()};
  }
}

}  // namespace Http
