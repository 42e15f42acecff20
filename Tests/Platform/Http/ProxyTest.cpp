#include "Platform/Http/Proxy.h"

#include <gtest/gtest.h>

#include "Tests/Support/Sandbox.h"

namespace {

TEST(ProxyTest, NoProxyNamesDomainsAddressesNetworksAndPorts) {
  const struct {
    const char* list;
    const char* url;
    bool exempt;
  } rows[] = {
      {"", "http://a.test/", false},
      {"*", "http://a.test/", true},
      {"a.test", "http://a.test/", true},
      {"a.test", "http://A.TEST/", true},
      {"a.test", "http://x.a.test/", true},
      {".a.test", "http://x.a.test/", true},
      {".a.test", "http://a.test/", true},
      {"a.test", "http://xa.test/", false},
      {"test", "http://a.test/", true},
      {"b.test, a.test", "http://a.test/", true},
      {"b.test a.test", "http://a.test/", true},
      {"a.test:8080", "http://a.test:8080/", true},
      {"a.test:8080", "http://a.test/", false},
      {"a.test:443", "https://a.test/", true},
      {"10.1.2.3", "http://10.1.2.3/", true},
      {"0.1.2.3", "http://10.1.2.3/", false},
      {"10.0.0.0/8", "http://10.1.2.3/", true},
      {"10.0.0.0/8", "http://11.1.2.3/", false},
      {"10.1.2.0/31", "http://10.1.2.2/", false},
      {"10.1.2.0/99", "http://10.1.2.0/", false},
      {"0.0.0.0/0", "http://10.1.2.3/", true},
      {"::1", "http://[::1]/", true},
      {"::1", "http://[::2]/", false},
      {"0:0:0:0:0:0:0:1", "http://[::1]/", true},
      {"FE80::A", "http://[fe80::a]/", true},
      {"[::1]", "http://[::1]:8080/", true},
      {"[::1]:80", "http://[::1]/", true},
      {"[::1]:81", "http://[::1]/", false},
      {"fe80::/10", "http://[fe80::1]/", true},
      {"2001:db8::/33", "http://[2001:db8:7fff::1]/", true},
      {"2001:db8::/33", "http://[2001:db8:8000::1]/", false},
      {"::/0", "http://10.1.2.3/", false},
      {"::1/129", "http://[::1]/", false},
      {",,", "http://a.test/", false},
      {".", "http://a.test/", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Proxy::isExempt(*Url::parse(row.url), row.list), row.exempt) << row.list << " " << row.url;
  }
}

TEST(ProxyTest, TheVariableOfTheTargetsSchemeNamesTheProxyLowerCaseFirst) {
  Sandbox sandbox;
  sandbox.set("HTTP_PROXY", "http://upper.test:1");
  sandbox.set("http_proxy", "http://lower.test:2");
  sandbox.set("https_proxy", "");
  sandbox.set("HTTPS_PROXY", "secure.test:3");
  const auto proxyOf = [](const char* url) {
    const auto server = Proxy::forTarget(*Url::parse(url));
    return server ? server->at.authority() : "none";
  };
  EXPECT_EQ(proxyOf("http://a.test/"), "lower.test:2");
  EXPECT_EQ(proxyOf("https://a.test/"), "secure.test:3");
  sandbox.set("NO_PROXY", "a.test");
  EXPECT_EQ(proxyOf("http://a.test/"), "none");
  EXPECT_EQ(proxyOf("https://b.test/"), "secure.test:3");
}

}  // namespace
