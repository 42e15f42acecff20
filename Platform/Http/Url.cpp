#include "Platform/Http/Url.h"

#include <algorithm>
#include <boost/url.hpp>
#include <charconv>

#include "Platform/Text.h"

namespace Url {

namespace urls = boost::urls;

std::string Parts::authority(bool alwaysWithPort) const {
  std::string text = isLiteralV6() ? "[" + host + "]" : host;
  if (alwaysWithPort || port != (secure ? 443 : 80)) text += ":" + std::to_string(port);
  return text;
}

namespace {

// A URL's authority behind its user, and what follows it. Boost.URL 1.81 ends it as soon as what it has read
// is a host or a port, and takes what is left of "127.0.0.1.test" or ":80x" for the path.
struct Authority {
  std::string_view host;              // with its brackets
  std::optional<std::uint16_t> port;  // absent when there is none, or an empty one
  std::string_view rest;
};

// `url` is one by its grammar, and has an authority. Absent when that is none.
std::optional<Authority> authorityOf(std::string_view url) {
  url.remove_prefix(url.find("//") + 2);
  const auto end = std::min(url.find_first_of("/?#"), url.size());
  auto text = url.substr(0, end);
  text.remove_prefix(text.find('@') + 1);
  const auto host = text.substr(0, text.starts_with('[') ? text.find(']') + 1 : text.find(':'));
  if (host.find('@') != host.npos) return std::nullopt;
  Authority authority{host, std::nullopt, url.substr(end)};
  text.remove_prefix(host.size());
  if (text.empty() || text == ":") return authority;
  std::uint16_t port = 0;
  const auto [stop, error] = std::from_chars(text.data() + 1, text.data() + text.size(), port);
  if (text.front() != ':' || error != std::errc() || stop != text.data() + text.size()) return std::nullopt;
  authority.port = port;
  return authority;
}

}  // namespace

std::optional<Parts> parse(const std::string& url) {
  const auto view = urls::parse_uri(url);
  if (!view || !view->has_authority()) return std::nullopt;
  Parts parts;
  parts.secure = view->scheme_id() == urls::scheme::https;
  if (!parts.secure && view->scheme_id() != urls::scheme::http) return std::nullopt;

  // An escape in a host could smuggle a line feed into the request; no real host needs one.
  const auto authority = authorityOf(url);
  if (!authority || authority->host.find('%') != std::string::npos) return std::nullopt;
  parts.host = Text::trim(authority->host, "[]");
  parts.port = authority->port.value_or(parts.secure ? 443 : 80);
  if (parts.host.empty() || parts.port == 0) return std::nullopt;
  parts.target = authority->rest.substr(0, authority->rest.find('#'));
  if (!parts.target.starts_with('/')) parts.target.insert(0, "/");
  parts.user = view->user();
  parts.password = view->password();
  return parts;
}

bool isUrl(const std::string& text) {
  const auto view = urls::parse_uri_reference(text);
  return !text.empty() && view && (!view->has_authority() || authorityOf(text));
}

std::optional<std::string> withPathAndQuery(const std::string& url, const std::string& path,
                                            const std::string& name, const std::string& value) {
  if (!isUrl(url)) return std::nullopt;
  std::string result = url.substr(0, url.find_first_of("?#"));
  result.erase(result.find_last_not_of('/') + 1);
  return result + "/" + path.substr(std::min(path.find_first_not_of('/'), path.size())) + "?" +
         urls::encode(name, urls::unreserved_chars) + "=" + urls::encode(value, urls::unreserved_chars);
}

std::string withoutUserInfo(std::string_view url) {
  const auto pathEnd = std::min(url.find_first_of("?#"), url.size());
  const auto authority = url.substr(0, pathEnd).find("//");
  const bool hasAuthority = authority != url.npos;
  const auto end = hasAuthority ? std::min(url.find_first_of("/?#", authority + 2), url.size()) : pathEnd;
  const auto at = url.substr(0, end).rfind('@');
  if (at == url.npos) return std::string(url);
  // Without an authority the text is no usable URL, but may well be a mistyped one with a password in it.
  const auto begin = hasAuthority ? authority + 2 : url.substr(0, at).rfind('/') + 1;
  return std::string(url.substr(0, begin)).append(url.substr(at + 1));
}

}  // namespace Url
