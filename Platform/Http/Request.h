// What is asked of a server.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Http {

struct Request {
  std::string method;  // "GET" or "POST"
  std::string url;     // absolute, http or https; a user and password in it are not sent
  std::vector<std::pair<std::string, std::string>> headers;
  std::string_view body;  // outlives the exchange
};

}  // namespace Http
