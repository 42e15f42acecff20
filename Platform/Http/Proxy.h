// Which proxy a request goes through, by HTTPS_PROXY, HTTP_PROXY and NO_PROXY (or the same in lower case,
// which comes first).
#pragma once

#include <optional>
#include <string>

#include "Platform/Http/Url.h"

namespace Proxy {

struct Server {
  Url::Parts at;              // the host is empty when the setting cannot be used: it is no http URL
  std::string authorization;  // value of the header; empty when the setting has no credentials
};

// Absent when the request goes straight to its target.
std::optional<Server> forTarget(const Url::Parts& target);

// Whether `list`, the value of NO_PROXY, names the target: items separated by commas or blanks, each "*", a
// domain (with its subdomains; a leading dot is of no account), a literal address or a network in CIDR form,
// and with ":port" for that port only.
bool isExempt(const Url::Parts& target, std::string_view list);

}  // namespace Proxy
