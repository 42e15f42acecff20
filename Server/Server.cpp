#include "Server/Server.h"

#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <boost/url.hpp>
#include <csignal>

namespace LocalControlPlane {

namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;

// Completion as values: std::tuple<error_code, ...>.
constexpr auto awaited = net::as_tuple(net::use_awaitable);

Request requestOf(const http::request<http::string_body>& message, bool fromLoopback) {
  const auto header = [&message](std::string_view name) { return std::string(message[name]); };
  Request request;
  request.method = std::string(message.method_string());
  request.target = std::string(message.target());
  if (const auto url = boost::urls::parse_origin_form(message.target())) {
    request.target = std::string(url->encoded_path());
    const auto process = url->params().find("process");
    if (process != url->params().end()) request.process = (*process).value;
  }
  request.key = header("X-Quib-Key");
  request.device = header("X-Quib-Device");
  request.tenant = header("X-Quib-Tenant");
  request.host = header("Host");
  request.known = header("If-None-Match");
  request.fromLoopback = fromLoopback;
  return request;
}

http::response<http::string_body> responseOf(Reply reply, unsigned version, bool keepAlive) {
  http::response<http::string_body> response{static_cast<http::status>(reply.status), version};
  response.set(http::field::content_type, reply.contentType);
  response.set(http::field::cache_control, "no-store");
  response.set("X-Content-Type-Options", "nosniff");
  response.set("Cross-Origin-Resource-Policy", "same-origin");
  response.set("Referrer-Policy", "no-referrer");
  const std::string own = reply.nonce.empty() ? "'none'" : "'nonce-" + reply.nonce + "'";
  response.set("Content-Security-Policy",
               "default-src 'none'; connect-src 'self'; img-src data:; script-src " + own + "; style-src " +
                   own + "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
  if (!reply.tag.empty()) response.set(http::field::etag, reply.tag);
  response.keep_alive(keepAlive);
  response.body() = std::move(reply.body);
  response.prepare_payload();
  return response;
}

Reply refusalOf(const beast::error_code& error) {
  if (error == http::error::body_limit) return {413, R"({"error":"the body is too large"})"};
  if (error == http::error::header_limit) return {431, R"({"error":"the head is too large"})"};
  return {400, R"({"error":"this is not HTTP"})"};
}

// Whether the client broke the protocol, as opposed to having gone or being too slow.
bool isMisuse(const beast::error_code& error) {
  return error.category() == make_error_code(http::error::bad_method).category() &&
         error != http::error::end_of_stream && error != http::error::partial_message;
}

// Reads what an answer was given without, for a while, for closing on unread bytes would take the answer
// away.
net::awaitable<void> drain(beast::tcp_stream& stream) {
  std::array<char, 16'384> scrap;
  beast::error_code ignored;
  stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
  stream.expires_after(std::chrono::seconds(2));
  for (std::size_t total = 0; total < 64'000'000;) {
    const auto [error, count] = co_await stream.async_read_some(net::buffer(scrap), awaited);
    if (error) break;
    total += count;
  }
}

}  // namespace

struct Server::Listener {
  ControlPlane& controlPlane;
  Limits limits;
  int connections = 0;
  net::io_context context{1};
  tcp::acceptor acceptor{context};

  net::awaitable<void> accept();
  net::awaitable<void> serve(tcp::socket socket);
  net::awaitable<bool> exchange(beast::tcp_stream& stream, beast::flat_buffer& buffer, bool fromLoopback);
};

net::awaitable<void> Server::Listener::accept() {
  for (;;) {
    auto [error, socket] = co_await acceptor.async_accept(awaited);
    if (error == net::error::operation_aborted) co_return;
    if (error) {  // out of descriptors, most likely: some will come free
      net::steady_timer pause(context, std::chrono::milliseconds(100));
      co_await pause.async_wait(awaited);
    } else if (connections < limits.connections) {
      ++connections;
      net::co_spawn(context, serve(std::move(socket)), [this](const std::exception_ptr&) { --connections; });
    }
  }
}

net::awaitable<void> Server::Listener::serve(tcp::socket socket) {
  beast::error_code error;
  const tcp::endpoint peer = socket.remote_endpoint(error);
  socket.set_option(tcp::no_delay(true), error);
  beast::tcp_stream stream(std::move(socket));
  beast::flat_buffer buffer;
  stream.expires_after(limits.firstHead);
  while (co_await exchange(stream, buffer, peer.address().is_loopback())) {
    stream.expires_after(limits.idle);
  }
  stream.socket().shutdown(tcp::socket::shutdown_both, error);
}

// One request and its answer; whether the connection may serve another.
net::awaitable<bool> Server::Listener::exchange(beast::tcp_stream& stream, beast::flat_buffer& buffer,
                                                bool fromLoopback) {
  http::request_parser<http::string_body> parser;
  parser.header_limit(limits.head);
  parser.body_limit(limits.body);
  auto [error, headBytes] = co_await http::async_read_header(stream, buffer, parser, awaited);
  Request request;
  std::optional<Reply> refusal;
  if (!error) {
    request = requestOf(parser.get(), fromLoopback);
    refusal = controlPlane.refuse(request);
    stream.expires_after(limits.exchange);
    if (!refusal) std::tie(error, headBytes) = co_await http::async_read(stream, buffer, parser, awaited);
  }
  if (error) {
    if (!isMisuse(error)) co_return false;
    refusal = refusalOf(error);
  }
  request.body = std::move(parser.get().body());
  const bool keepAlive = !refusal && parser.get().keep_alive();
  const auto response = responseOf(refusal ? *refusal : controlPlane.answer(request), 11, keepAlive);
  stream.expires_after(limits.exchange);
  const auto [writeError, written] = co_await http::async_write(stream, response, awaited);
  if (refusal && !writeError) co_await drain(stream);
  co_return keepAlive && !writeError;
}

Server::Server(ControlPlane& controlPlane, const std::string& address, std::uint16_t port, Limits limits)
    : listener_(new Listener{controlPlane, limits}) {
  beast::error_code error;
  const tcp::endpoint endpoint(net::ip::make_address(address, error), port);
  if (error) throw std::runtime_error("\"" + address + "\" is not an IP address");
  tcp::acceptor& acceptor = listener_->acceptor;
  acceptor.open(endpoint.protocol(), error);
  if (!error) acceptor.set_option(net::socket_base::reuse_address(true), error);
  if (!error) acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(net::socket_base::max_listen_connections, error);
  if (error)
    throw std::runtime_error("cannot listen on " + address + " port " + std::to_string(port) + ": " +
                             error.message());
  net::co_spawn(listener_->context, listener_->accept(), net::detached);
}

Server::~Server() = default;

std::string Server::url() const {
  const tcp::endpoint endpoint = listener_->acceptor.local_endpoint();
  const std::string address = endpoint.address().to_string();
  const std::string host = endpoint.address().is_v6() ? "[" + address + "]" : address;
  return "http://" + host + ":" + std::to_string(endpoint.port());
}

bool Server::run(bool untilSignal) {
  bool signalled = false;
  net::signal_set signals(listener_->context);
  if (untilSignal) {
    signals.add(SIGINT);
    signals.add(SIGTERM);
    signals.async_wait([&](beast::error_code error, int) {
      if (error) return;
      signalled = true;
      listener_->context.stop();
    });
  }
  listener_->context.restart();
  listener_->context.run();
  return signalled;
}

// As an event of its own, so that a stop that comes before `run` is not forgotten.
void Server::stop() {
  net::post(listener_->context, [this] { listener_->context.stop(); });
}

}  // namespace LocalControlPlane
