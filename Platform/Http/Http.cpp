#include "Platform/Http/Http.h"

#include <fcntl.h>

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <memory>
#include <string_view>

#include "Platform/Http/HttpMessage.h"
#include "Platform/Http/Proxy.h"
#include "Platform/Http/Resolver.h"
#include "Platform/Http/Tls.h"
#include "Platform/Http/Url.h"

namespace Http {

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using HttpMessage::Answer;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr std::size_t readSize = 16 * 1024;
constexpr milliseconds nextAddressAfter{3'000};
constexpr auto asResult = asio::as_tuple(asio::use_awaitable);

struct Connection {
  Connection(asio::io_context& context, std::string where) : leadsTo(std::move(where)), socket(context) {}

  std::string leadsTo;
  tcp::socket socket;
  std::unique_ptr<asio::ssl::stream<tcp::socket&>> tls;  // absent: plain
  boost::beast::flat_buffer unread;
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

// A transport error, thrown within this file only.
struct Failure {
  std::string description;
};

class Exchange {
 public:
  Exchange(const Request& request, milliseconds timeout, Clock::time_point end)
      : request_(request), timeout_(timeout), end_(end) {}

  Response run();

 private:
  Response drive(asio::awaitable<Response> work);
  asio::awaitable<Response> askAnew();
  asio::awaitable<Response> ask();
  asio::awaitable<void> connectTo(const Url::Parts& peer);
  asio::awaitable<void> openTunnel();
  asio::awaitable<bool> startTls(Tls::Trust trust);
  asio::awaitable<void> fetch(Answer& answer, std::string text, const std::string& peer);
  void send();

  void begin(std::string step, milliseconds wait);
  void waitFor(milliseconds time);
  [[noreturn]] void fail(const error_code& error) const;
  [[noreturn]] void fail(const std::string& reason) const;

  const Request& request_;
  const milliseconds timeout_;
  const Clock::time_point end_;
  Url::Parts target_;
  std::optional<Proxy::Server> proxy_;
  std::string leadsTo_;
  std::unique_ptr<Connection> connection_;
  std::string text_;                // what is sent
  std::string_view unsent_;         // the rest of it; empty when no write is under way
  std::string step_;                // what is being done, for the description of an error
  Clock::time_point until_ = end_;  // when the step is given up
  bool expired_ = false;            // it was
  bool heard_ = false;              // a byte of the answer has arrived
};

Response Exchange::run() {
  step_ = "preparing the request";
  const auto target = Url::parse(request_.url);
  if (!target) fail("not an absolute http or https URL");
  if (!HttpMessage::canBeSent(request_)) fail("a header holds a control character");
  target_ = *target;
  proxy_ = Proxy::forTarget(target_);
  if (proxy_ && proxy_->at.host.empty()) fail("the proxy setting is not an http URL");

  if (target_.secure || !proxy_) leadsTo_ = target_.authority(true) + (target_.secure ? " tls" : "");
  if (proxy_) leadsTo_ += " by " + proxy_->at.authority(true);
  connection_ = std::move(session().kept);
  if (connection_ && connection_->leadsTo == leadsTo_) {
    try {
      return drive(ask());
    } catch (const Failure&) {
      if (heard_ || expired_) throw;
    }
  }
  return drive(askAnew());
}

// Runs the conversation one completion at a time: whatever it waits for is cancelled when its time is up.
Response Exchange::drive(asio::awaitable<Response> work) {
  asio::io_context& context = session().context;
  context.restart();
  Response response;
  std::exception_ptr failure;
  bool done = false;
  asio::co_spawn(context, std::move(work), [&](std::exception_ptr reason, Response answer) {
    done = true;
    failure = std::move(reason);
    response = std::move(answer);
  });
  error_code ignored;
  while (!done) {
    if (context.run_one_until(until_) > 0) continue;
    expired_ = true;
    if (connection_ && Clock::now() < end_) {
      connection_->socket.cancel(ignored);
    } else if (connection_) {
      connection_->socket.close(ignored);  // what is ready already cannot be cancelled, and might never pause
    }
    context.poll_one();
  }
  // What was answered before it was sent whole is not sent on.
  for (; !unsent_.empty(); context.run_one())
    connection_->socket.close(ignored);
  if (failure) std::rethrow_exception(failure);
  return response;
}

void Exchange::begin(std::string step, milliseconds wait) {
  step_ = std::move(step);
  waitFor(wait);
}

void Exchange::waitFor(milliseconds time) {
  until_ = std::min(Clock::now() + time, end_);
  expired_ = false;
}

void Exchange::fail(const error_code& error) const {
  fail(expired_ ? "timed out" : error.message());
}

void Exchange::fail(const std::string& reason) const {
  throw Failure{step_ + ": " + reason};
}

asio::awaitable<Response> Exchange::askAnew() {
  for (const auto trust : {Tls::Trust::onDemand, Tls::Trust::whole}) {
    connection_ = std::make_unique<Connection>(session().context, leadsTo_);
    co_await connectTo(proxy_ ? proxy_->at : target_);
    if (!target_.secure) break;
    if (proxy_) co_await openTunnel();
    if (co_await startTls(trust)) break;
  }
  co_return co_await ask();
}

asio::awaitable<Response> Exchange::ask() {
  Answer answer(Answer::Extent::whole);
  co_await fetch(answer, HttpMessage::textOf(request_, target_, proxy_), target_.authority());
  const bool isUsedUp = !unsent_.empty() || connection_->unread.size() > 0;
  if (answer.keepsConnection() && !isUsedUp) session().kept = std::move(connection_);
  co_return Response{answer.status(), answer.takeBody(), std::nullopt};
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
  Answer answer(Answer::Extent::headOnly);
  co_await fetch(answer, HttpMessage::tunnelText(target_, *proxy_),
                 "the proxy " + proxy_->at.authority(true));
  const int status = answer.status();
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
  if (!verdict.needsWhole || trust == Tls::Trust::whole) fail(verdict.reason);
  co_return false;
}

// Reads while it sends: a server may refuse a request before it has read it whole.
asio::awaitable<void> Exchange::fetch(Answer& answer, std::string text, const std::string& peer) {
  begin("asking " + peer, timeout_);
  heard_ = false;
  text_ = std::move(text);
  unsent_ = text_;
  send();
  while (!answer.isWhole()) {
    auto& [leadsTo, socket, tls, unread] = *connection_;
    const auto space = unread.prepare(readSize);
    const auto [error, count] = tls ? co_await tls->async_read_some(space, asResult)
                                    : co_await socket.async_read_some(space, asResult);
    if (error && error != asio::error::eof) fail(error);
    unread.commit(count);
    const std::string_view bytes(static_cast<const char*>(unread.data().data()), unread.size());
    if (error) {
      answer.end(bytes);
    } else {
      heard_ = true;
      waitFor(timeout_);
      unread.consume(answer.take(bytes));
    }
    if (!answer.problem().empty()) fail(answer.problem());
  }
}

// An error is no matter yet: the answer may be under way.
void Exchange::send() {
  const auto then = [this](const error_code& error, std::size_t count) {
    unsent_.remove_prefix(error ? unsent_.size() : count);
    if (error) return;
    waitFor(timeout_);
    if (!unsent_.empty()) send();
  };
  const auto bytes = asio::buffer(unsent_);
  connection_->tls ? connection_->tls->async_write_some(bytes, then)
                   : connection_->socket.async_write_some(bytes, then);
}

}  // namespace

Response exchange(const Request& request, milliseconds timeout, milliseconds overall) {
  const auto end = Clock::now() + overall;
  try {
    return Exchange(request, timeout, end).run();
  } catch (const Failure& failure) {
    return Clock::now() >= end ? Response{} : Response{0, "", failure.description};
  } catch (const std::exception& failure) {
    return {0, "", failure.what()};
  }
}

}  // namespace Http
