// URLs as texts, by the grammar of RFC 3986. Nothing here fails: what does not parse is absent.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Url {

// Where an http or https URL leads.
struct Parts {
  bool secure = false;
  std::string host;  // a name or a literal address, without brackets
  std::uint16_t port = 0;
  std::string target;  // path and query, at least "/"
  std::string user;    // decoded, as is the password
  std::string password;

  bool isLiteralV6() const { return host.find(':') != host.npos; }
  // Host and port as they stand in a URL; `alwaysWithPort` or not, a port other than the scheme's is there.
  std::string authority(bool alwaysWithPort = false) const;
};

// Absent when `url` is not an absolute http or https URL with a host and a port that exists.
std::optional<Parts> parse(const std::string& url);

// Whether `text` is a URL by its grammar, whatever its scheme, a relative reference included; the empty text
// is not, nor one with a port beyond 65535.
bool isUrl(const std::string& text);

// `url` with `path` appended as path components (exactly one "/" between the two) and the query set to the
// one item `name`=`value`, percent-encoded. Absent when `url` is not a URL.
std::optional<std::string> withPathAndQuery(const std::string& url, const std::string& path,
                                            const std::string& name, const std::string& value);

// `url` without the user and password that it may carry: what may be shown and logged.
std::string withoutUserInfo(std::string_view url);

}  // namespace Url
