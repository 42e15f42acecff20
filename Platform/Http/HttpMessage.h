// HTTP/1.1 as bytes: requests as they are sent, and answers put together from what arrives. Nothing here
// throws; what is no answer has a problem.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Http/Proxy.h"
#include "Platform/Http/Request.h"
#include "Platform/Http/Url.h"

namespace HttpMessage {

// Whether no header holds a control character.
bool canBeSent(const Http::Request& request);

// `request` in the form that goes to `target`, or to the proxy that passes it on there.
std::string textOf(const Http::Request& request, const Url::Parts& target,
                   const std::optional<Proxy::Server>& proxy);

// Asks `proxy` for a tunnel to `target`.
std::string tunnelText(const Url::Parts& target, const Proxy::Server& proxy);

// One final answer; the interim ones before it are passed over.
class Answer {
 public:
  enum class Extent { whole, headOnly };  // an answer to CONNECT has no body

  explicit Answer(Extent extent);
  ~Answer();

  // Takes what belongs to the answer off the front of `bytes`, and says how much that was.
  std::size_t take(std::string_view bytes);
  // The stream has ended, with `rest` not taken.
  void end(std::string_view rest);

  bool isWhole() const;
  const std::string& problem() const { return problem_; }  // empty: none

  // Of a whole answer.
  int status() const;
  bool keepsConnection() const;
  std::string takeBody();

 private:
  struct Parser;

  std::size_t put(std::string_view bytes);

  Extent extent_;
  std::unique_ptr<Parser> parser_;
  std::string problem_;
};

}  // namespace HttpMessage
