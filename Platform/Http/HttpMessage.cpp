#include "Platform/Http/HttpMessage.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

namespace HttpMessage {

namespace http = boost::beast::http;
using boost::system::error_code;

namespace {

constexpr std::uint32_t headLimit = 64 * 1024;
constexpr std::uint64_t bodyLimit = 16 * 1024 * 1024;
constexpr int switchingProtocols = 101;

bool hasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char c) { return (c < ' ' && c != '\t') || c == 127; });
}

std::string authorization(const Proxy::Server& proxy) {
  return proxy.authorization.empty() ? "" : "Proxy-Authorization: " + proxy.authorization + "\r\n";
}

// Up to the end of the empty line; 0 when that is not there yet.
std::size_t headSize(std::string_view bytes) {
  for (auto end = bytes.find('\n'); end != bytes.npos; end = bytes.find('\n', end + 1)) {
    const auto rest = bytes.substr(end + 1);
    if (rest.starts_with("\n")) return end + 2;
    if (rest.starts_with("\r\n")) return end + 3;
  }
  return 0;
}

// There are servers that end lines with a line feed only, or leave out the reason and the blank before it.
// The parser knows neither.
std::string tidied(std::string_view head) {
  std::string text;
  for (const char c : head) {
    if (c == '\n' && !text.ends_with('\r')) text += '\r';
    text += c;
  }
  constexpr std::size_t statusEnd = std::string_view("HTTP/1.1 200").size();
  if (text.find('\r') == statusEnd) text.insert(statusEnd, 1, ' ');
  return text;
}

}  // namespace

bool canBeSent(const Http::Request& request) {
  return std::none_of(request.headers.begin(), request.headers.end(), [](const auto& header) {
    return hasControlCharacter(header.first) || hasControlCharacter(header.second);
  });
}

std::string textOf(const Http::Request& request, const Url::Parts& target,
                   const std::optional<Proxy::Server>& proxy) {
  const bool atProxy = proxy && !target.secure;
  std::string text = request.method + " ";
  if (atProxy) text += "http://" + target.authority();
  text += target.target + " HTTP/1.1\r\nHost: " + target.authority() + "\r\n";
  if (atProxy) text += authorization(*proxy);
  for (const auto& [name, value] : request.headers)
    text += name + ": " + value + "\r\n";
  if (request.method != "GET" || !request.body.empty()) {
    text += "Content-Length: " + std::to_string(request.body.size()) + "\r\n";
  }
  return text.append("\r\n").append(request.body);
}

std::string tunnelText(const Url::Parts& target, const Proxy::Server& proxy) {
  const std::string at = target.authority(true);
  return "CONNECT " + at + " HTTP/1.1\r\nHost: " + at + "\r\n" + authorization(proxy) + "\r\n";
}

struct Answer::Parser {
  explicit Parser(Extent extent) {
    http.header_limit(headLimit);
    http.body_limit(bodyLimit);
    http.eager(true);
    http.skip(extent == Extent::headOnly);
  }
  http::response_parser<http::string_body> http;
};

Answer::Answer(Extent extent) : extent_(extent), parser_(std::make_unique<Parser>(extent)) {}

Answer::~Answer() = default;

std::size_t Answer::take(std::string_view bytes) {
  constexpr std::string_view mark = "HTTP/";
  std::size_t taken = 0;
  while (!isWhole() && problem_.empty() && taken < bytes.size()) {
    const auto rest = bytes.substr(taken);
    std::size_t count;
    if (parser_->http.is_header_done()) {
      count = put(rest);
    } else if ((count = headSize(rest)) > 0) {
      put(tidied(rest.substr(0, count)));
    } else if (!rest.starts_with(mark.substr(0, rest.size()))) {
      problem_ = "bad version";
    }
    if (count == 0 && rest.size() > headLimit) problem_ = "header limit exceeded";
    if (count == 0) break;
    taken += count;
  }
  return taken;
}

std::size_t Answer::put(std::string_view bytes) {
  auto& parser = parser_->http;
  error_code error;
  const auto count = parser.put(boost::asio::buffer(bytes), error);
  if (error && (error != http::error::need_more || !parser.is_header_done())) {
    problem_ = error.message();
  } else if (status() < 100) {
    problem_ = "bad status";
  } else if (status() < 200 && status() != switchingProtocols) {
    parser_ = std::make_unique<Parser>(extent_);
  }
  return count;
}

void Answer::end(std::string_view rest) {
  error_code error = http::error::partial_message;
  const bool hasHead = parser_->http.is_header_done();
  if (hasHead) parser_->http.put_eof(error);
  if (error) problem_ = hasHead || !rest.empty() ? error.message() : "the connection was closed";
}

bool Answer::isWhole() const {
  return parser_->http.is_done();
}

int Answer::status() const {
  return static_cast<int>(parser_->http.get().result_int());
}

bool Answer::keepsConnection() const {
  return parser_->http.keep_alive() && status() != switchingProtocols;
}

std::string Answer::takeBody() {
  return std::move(parser_->http.get().body());
}

}  // namespace HttpMessage
