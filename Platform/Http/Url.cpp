#include "Platform/Http/Url.h"

#include <algorithm>
#include <boost/url.hpp>

namespace Url {

namespace urls = boost::urls;

std::string Parts::authority(bool alwaysWithPort) const {
  std::string text = isLiteralV6() ? "[" + host + "]" : host;
  if (alwaysWithPort || port != (secure ? 443 : 80)) text += ":" + std::to_string(port);
  return text;
}

std::optional<Parts> parse(const std::string& url) {
  const auto view = urls::parse_uri(url);
  if (!view) return std::nullopt;
  Parts parts;
  parts.secure = view->scheme_id() == urls::scheme::https;
  if (!parts.secure && view->scheme_id() != urls::scheme::http) return std::nullopt;

  // An escape in a host could smuggle a line feed into the request; no real host needs one.
  parts.host = view->encoded_host_address();
  if (parts.host.empty() || parts.host.find('%') != parts.host.npos) return std::nullopt;
  parts.port = parts.secure ? 443 : 80;
  if (view->has_port() && !view->port().empty()) {
    parts.port = view->port_number();  // 0 when it is beyond 65535
    if (parts.port == 0) return std::nullopt;
  }
  parts.target = view->encoded_target();
  if (parts.target.empty() || parts.target.front() != '/') parts.target.insert(0, "/");
  parts.user = view->user();
  parts.password = view->password();
  return parts;
}

bool isUrl(const std::string& text) {
  return !text.empty() && urls::parse_uri_reference(text).has_value();
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
