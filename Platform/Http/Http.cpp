#include "Platform/Http/Http.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <string_view>

#include "Platform/Http/Connection.h"
#include "Platform/Http/HttpMessage.h"
#include "Platform/Http/Proxy.h"
#include "Platform/Http/Resolver.h"
#include "Platform/Http/Url.h"

namespace Http {

namespace {

using HttpMessage::Answer;

// What one exchange leaves for the next.
std::unique_ptr<Connection> kept;

class Exchange {
 public:
  Exchange(const Request& request, const Timeouts& timeout)
      : request_(request), idle_(timeout.idle), end_(Clock::now() + timeout.overall) {}

  Response run();
  // What becomes of it when it fails.
  Response outcomeOf(const Failure& failure) const;

 private:
  void connect(const std::string& endpoint);
  void openTunnel();
  Response ask();
  bool fetch(Answer& answer, const std::string& text, const std::string& peer);
  Clock::time_point stepDeadline() const;

  const Request& request_;
  const std::chrono::milliseconds idle_;
  const Clock::time_point end_;
  Url::Parts target_;
  std::optional<Proxy::Server> proxy_;
  std::unique_ptr<Connection> connection_;
  bool receivedAny_ = false;  // a byte of the answer
  std::string step_ = "preparing the request";
};

Response Exchange::run() {
  const auto target = Url::parse(request_.url);
  if (!target) throw Failure{"not an absolute http or https URL"};
  if (!HttpMessage::canBeSent(request_)) throw Failure{"a header holds a control character"};
  target_ = *target;
  proxy_ = Proxy::forTarget(target_);
  if (proxy_ && proxy_->at.host.empty()) throw Failure{"the proxy setting is not an http URL"};

  std::string endpoint;
  if (target_.secure || !proxy_) endpoint = target_.authority(true) + (target_.secure ? " tls" : "");
  if (proxy_) endpoint += " by " + proxy_->at.authority(true);
  connection_ = std::move(kept);
  if (connection_ && connection_->endpoint == endpoint) {
    try {
      return ask();
    } catch (const Failure& failure) {
      if (receivedAny_ || failure.isTimeout) throw;
    }
  }
  connect(endpoint);
  return ask();
}

Response Exchange::outcomeOf(const Failure& failure) const {
  return Clock::now() >= end_ ? Response{} : Response{0, "", step_ + ": " + failure.reason};
}

// For the step that begins now, or that has just got further.
Clock::time_point Exchange::stepDeadline() const {
  const auto now = Clock::now();
  if (now >= end_) throw Failure{"timed out", true};
  return std::min(now + idle_, end_);
}

void Exchange::connect(const std::string& endpoint) {
  const Url::Parts& server = proxy_ ? proxy_->at : target_;
  for (const auto trust : {Tls::Trust::onDemand, Tls::Trust::whole}) {
    step_ = "looking up " + server.host;
    const auto deadline = stepDeadline();
    const auto found = Resolver::addressesOf(server.host, server.port, deadline);
    if (found.addresses.empty()) throw Failure{found.error.empty() ? "timed out" : found.error};
    step_ = "connecting to " + server.authority(true);
    connection_ = std::make_unique<Connection>(endpoint, found.addresses, deadline);
    if (!target_.secure) return;
    if (proxy_) openTunnel();
    step_ = "securing the connection to " + target_.authority();
    if (connection_->secure(target_.host, trust, stepDeadline())) return;
  }
}

void Exchange::openTunnel() {
  Answer answer(Answer::Extent::headOnly);
  fetch(answer, HttpMessage::tunnelText(target_, *proxy_), "the proxy " + proxy_->at.authority(true));
  const int status = answer.status();
  if (status < 200 || status > 299) throw Failure{"it refused to connect, status " + std::to_string(status)};
  if (!connection_->unread.empty()) throw Failure{"it sent more than an answer"};
}

Response Exchange::ask() {
  Answer answer(Answer::Extent::whole);
  const bool isSent = fetch(answer, HttpMessage::textOf(request_, target_, proxy_), target_.authority());
  if (isSent && connection_->unread.empty() && answer.keepsConnection()) kept = std::move(connection_);
  return {answer.status(), answer.takeBody(), std::nullopt};
}

// Receives while it sends: a server may refuse a request before it has read it whole. False when it has.
bool Exchange::fetch(Answer& answer, const std::string& text, const std::string& peer) {
  step_ = "asking " + peer;
  std::string_view unsent = text;
  std::string& unread = connection_->unread;
  while (!answer.isWhole()) {
    switch (connection_->advance(unsent, stepDeadline())) {
      case Connection::Progress::sent:
        break;
      case Connection::Progress::received:
        receivedAny_ = true;
        unread.erase(0, answer.take(unread));
        break;
      case Connection::Progress::ended:
        answer.end(unread);
        break;
    }
    if (!answer.problem().empty()) throw Failure{answer.problem()};
  }
  return unsent.empty();
}

}  // namespace

Response exchange(const Request& request, const Timeouts& timeout) {
  Exchange exchange(request, timeout);
  try {
    return exchange.run();
  } catch (const Failure& failure) {
    return exchange.outcomeOf(failure);
  } catch (const std::exception& failure) {
    return {0, "", failure.what()};
  }
}

}  // namespace Http
