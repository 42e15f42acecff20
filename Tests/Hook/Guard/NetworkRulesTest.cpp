#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "Hook/Guard/RuleEvaluator.h"
#include "Tests/Support/Verdicts.h"

namespace {

std::string check(const std::string& url, const GuardConfig& config = GuardConfig::defaults()) {
  TimeBudget budget;
  return described(RuleEvaluator::checkNetworkAccess(url, config, budget));
}

std::string internal(const std::string& url) {
  return "block network_access: Access to internal/private URL blocked: " + url;
}
std::string domain(const std::string& entry) {
  return "block network_access: Access to blocked domain: " + entry;
}

TEST(NetworkRules, BlocksInternalAddresses) {
  const std::vector<std::string> blocked = {
      "http://localhost",
      "HTTP://LOCALHOST:3000/x",
      "https://localhost.example/",
      "http://localhost-x",
      "http://127.0.0.1/",
      "http://127.0.0.1.example/",
      "http://0.0.0.0:80",
      "http://10.0.0.1",
      "http://10.0.0.1.example",
      "http://172.16.5.4/",
      "http://172.31.0.1",
      "https://192.168.1.1",
      "http://169.254.169.254/latest/meta-data",
      "http://metadata.google.internal/computeMetadata",
      "http://METADATA.google.internal",
      "http://[::1]:8080",
      "http://localhost/" + std::string(300, 'x'),
      "http://localho\u017Ft",  // the long s folds to s
  };
  for (const std::string& url : blocked)
    EXPECT_EQ(check(url), internal(url));
}

TEST(NetworkRules, LetsTheRestPass) {
  const std::vector<std::string> passing = {
      "",
      "https://example.com",
      "http://localhosts/",
      "http://localhost_x/",
      " http://localhost",
      "https://example.com/?u=http://localhost",
      "ftp://localhost",
      "localhost",
      "http:/localhost",
      "http://user@localhost",
      "http://127.0.0.2/",
      "http://127.0.0.10/",
      "http://172.32.0.1/",
      "http://172.15.0.1/",
      "http://172.1.0.1/",
      "http://203.0.113.5/",
      "http://10.0.0/",
      "http://110.0.0.1/",
      "http://192.169.1.1/",
      "http://metadata-google.internal/",
      "http://[::2]/",
  };
  for (const std::string& url : passing)
    EXPECT_EQ(check(url), "none") << url;
}

TEST(NetworkRules, BlocksConfiguredDomains) {
  struct Row {
    const char* sentence;
    std::vector<std::string> domains;
    bool blockInternal;
    std::string url, expected;
  };
  const std::vector<Row> rows = {
      {"an entry stands anywhere in the address",
       {"evil.example"},
       true,
       "https://x.y/?evil.example",
       domain("evil.example")},
      {"case is ignored and the entry named as configured",
       {"EVIL.Example"},
       true,
       "https://evil.EXAMPLE/",
       domain("EVIL.Example")},
      {"the first entry is named", {"example", "evil"}, true, "https://evil.example/", domain("example")},
      {"an empty entry matches nothing", {"", "evil"}, true, "https://example.com/", "none"},
      {"an empty entry hides no other", {"", "evil"}, true, "https://evil/", domain("evil")},
      {"internal addresses go first", {"localhost"}, true, "http://localhost", internal("http://localhost")},
      {"where they are not blocked, entries still are",
       {"localhost"},
       false,
       "http://localhost",
       domain("localhost")},
      {"without either all passes", {}, false, "http://localhost", "none"},
      {"an entry is text, not a pattern", {"e.il"}, true, "https://evil/", "none"},
      {"letters beyond ASCII fold",
       {"STRASSE.example"},
       true,
       "https://straße.example",
       domain("STRASSE.example")},
  };
  for (const Row& row : rows) {
    GuardConfig config = GuardConfig::defaults();
    config.blocked_domains = row.domains;
    config.block_internal_urls = row.blockInternal;
    EXPECT_EQ(check(row.url, config), row.expected) << row.sentence;
  }
}

TEST(NetworkRules, BlocksAnAddressThatCannotBeComparedInTime) {
  using namespace std::chrono_literals;
  GuardConfig config;
  config.blocked_domains.assign(20'000, std::string(300, 'a') + "b");
  TimeBudget budget(100ms);
  const auto start = std::chrono::steady_clock::now();
  const std::string url = "https://" + std::string(1'000'000, 'a');
  EXPECT_NE(RuleEvaluator::checkNetworkAccess(url, config, budget), std::nullopt);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

}  // namespace
