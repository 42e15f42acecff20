#include "Platform/Http/Proxy.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "Platform/Process.h"

namespace Proxy {

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

// The bits of a literal address, 4 or 16 bytes; empty for anything else.
std::string addressBytes(const std::string& text) {
  char bytes[16];
  if (inet_pton(AF_INET, text.c_str(), bytes) == 1) return {bytes, 4};
  if (inet_pton(AF_INET6, text.c_str(), bytes) == 1) return {bytes, 16};
  return {};
}

bool isInNetwork(const std::string& host, std::string_view network) {
  const auto slash = network.find('/');
  const std::string address = addressBytes(host);
  const std::string base = addressBytes(std::string(network.substr(0, slash)));
  if (address.empty() || address.size() != base.size()) return false;
  std::size_t bits = address.size() * 8;
  if (slash != network.npos) {
    const auto digits = network.substr(slash + 1);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), bits);
    if (error != std::errc() || end != digits.data() + digits.size() || bits > address.size() * 8)
      return false;
  }
  const auto whole = bits / 8;
  if (std::memcmp(address.data(), base.data(), whole) != 0) return false;
  const int mask = 0xff00 >> (bits % 8) & 0xff;
  return mask == 0 || ((address[whole] ^ base[whole]) & mask) == 0;
}

bool isInDomain(std::string_view host, std::string_view domain) {
  while (!domain.empty() && domain.front() == '.')
    domain.remove_prefix(1);
  if (domain.empty() || host.size() < domain.size()) return false;
  const auto tail = host.substr(host.size() - domain.size());
  const bool whole = tail.size() == host.size() || host[host.size() - domain.size() - 1] == '.';
  return whole && ::strncasecmp(tail.data(), domain.data(), domain.size()) == 0;
}

bool names(std::string_view item, const Url::Parts& target) {
  if (item == "*") return true;
  if (isInNetwork(target.host, item)) return true;
  if (const auto colon = item.rfind(':'); colon != item.npos && item.find(':') == colon) {
    if (item.substr(colon + 1) != std::to_string(target.port)) return false;
    item = item.substr(0, colon);
  } else if (const auto end = item.find(']'); item.front() == '[' && end != item.npos) {
    if (end + 1 < item.size() && item.substr(end + 1) != ":" + std::to_string(target.port)) return false;
    item = item.substr(1, end - 1);
  }
  return isInNetwork(target.host, item) || (!target.isLiteralV6() && isInDomain(target.host, item));
}

}  // namespace

bool isExempt(const Url::Parts& target, std::string_view list) {
  while (!list.empty()) {
    const auto end = std::min(list.find_first_of(", \t"), list.size());
    const auto item = list.substr(0, end);
    if (!item.empty() && names(item, target)) return true;
    list.remove_prefix(std::min(end + 1, list.size()));
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
