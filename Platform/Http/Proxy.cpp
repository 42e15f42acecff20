#include "Platform/Http/Proxy.h"

#include <openssl/evp.h>
#include <strings.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/network_v4.hpp>
#include <boost/asio/ip/network_v6.hpp>

#include "Platform/Process.h"
#include "Platform/Text.h"

namespace Proxy {

namespace ip = boost::asio::ip;
using boost::system::error_code;

namespace {

std::optional<std::string> setting(const char* lower, const char* upper) {
  for (const char* name : {lower, upper}) {
    if (auto value = Process::environment(name); value && !value->empty()) return value;
  }
  return std::nullopt;
}

std::string base64(const std::string& text) {
  std::string encoded(4 * ((text.size() + 2) / 3) + 1, '\0');
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  auto* out = reinterpret_cast<unsigned char*>(encoded.data());
  encoded.resize(static_cast<std::size_t>(EVP_EncodeBlock(out, bytes, static_cast<int>(text.size()))));
  return encoded;
}

// A literal address is a network of its own.
bool isInNetwork(const std::string& host, const std::string& network) {
  error_code failure;
  const auto address = ip::make_address(host, failure);
  if (failure) return false;
  const std::string prefix = network.find('/') != network.npos ? "" : address.is_v4() ? "/32" : "/128";
  if (address.is_v4()) {
    const auto within = ip::make_network_v4(network + prefix, failure);
    return !failure && ip::network_v4(address.to_v4(), within.prefix_length()).network() == within.network();
  }
  const auto within = ip::make_network_v6(network + prefix, failure);
  return !failure && ip::network_v6(address.to_v6(), within.prefix_length()).network() == within.network();
}

bool isInDomain(std::string_view host, std::string_view domain) {
  domain.remove_prefix(std::min(domain.find_first_not_of('.'), domain.size()));
  if (domain.empty() || host.size() < domain.size()) return false;
  const auto tail = host.substr(host.size() - domain.size());
  const bool whole = tail.size() == host.size() || host[host.size() - domain.size() - 1] == '.';
  return whole && ::strncasecmp(tail.data(), domain.data(), domain.size()) == 0;
}

bool names(std::string_view item, const Url::Parts& target) {
  if (item == "*") return true;
  if (isInNetwork(target.host, std::string(item))) return true;
  if (const auto colon = item.rfind(':'); colon != item.npos && item.find(':') == colon) {
    if (item.substr(colon + 1) != std::to_string(target.port)) return false;
    item = item.substr(0, colon);
  } else if (const auto end = item.find(']'); item.front() == '[' && end != item.npos) {
    if (end + 1 < item.size() && item.substr(end + 1) != ":" + std::to_string(target.port)) return false;
    item = item.substr(1, end - 1);
  }
  return isInNetwork(target.host, std::string(item)) ||
         (!target.isLiteralV6() && isInDomain(target.host, item));
}

}  // namespace

bool isExempt(const Url::Parts& target, std::string_view list) {
  while (!list.empty()) {
    const auto item = Text::takePart(list, ", \t");
    if (!item.empty() && names(item, target)) return true;
  }
  return false;
}

std::optional<Server> forTarget(const Url::Parts& target) {
  const auto value =
      target.secure ? setting("https_proxy", "HTTPS_PROXY") : setting("http_proxy", "HTTP_PROXY");
  if (!value || isExempt(target, setting("no_proxy", "NO_PROXY").value_or(""))) return std::nullopt;
  Server server;
  const bool hasScheme = value->find("://") != value->npos;
  const auto at = Url::parse(hasScheme ? *value : "http://" + *value);
  if (!at || at->secure) return server;
  server.at = *at;
  if (!at->user.empty()) server.authorization = "Basic " + base64(at->user + ":" + at->password);
  return server;
}

}  // namespace Proxy
