// The list of promises against the tests: each must name one that is there.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "Tests/Support/Sandbox.h"

namespace {

namespace fs = std::filesystem;

const fs::path source = QUIB_SOURCE_DIR;

// Calls `visit` with every text between backquotes that matches the expression.
template <typename Visit>
int forEachName(const std::string& document, const std::string& expression, Visit&& visit) {
  const std::regex quoted("`(" + expression + ")`");
  int count = 0;
  for (std::sregex_iterator at(document.begin(), document.end(), quoted), end; at != end; ++at, ++count)
    visit((*at)[1].str());
  return count;
}

TEST(Promises, EachNamesATestOrAFuzzerThatIsThere) {
  const std::string document = contentOf((source / "Docs/reliability.md").string());
  std::string tests;
  for (const auto& entry : fs::recursive_directory_iterator(source / "Tests"))
    if (entry.path().extension() == ".cpp") tests += contentOf(entry.path().string());
  const int named = forEachName(document, R"([A-Z]\w+\.[A-Z]\w+)", [&](std::string name) {
    name.replace(name.find('.'), 1, ", ");
    const bool isThere =
        tests.find("TEST(" + name + ")") != tests.npos || tests.find("TEST_F(" + name + ")") != tests.npos;
    EXPECT_TRUE(isThere) << name;
  });
  const int fuzzers = forEachName(document, R"(\w+Fuzz)", [](const std::string& name) {
    EXPECT_TRUE(fs::exists(source / "Fuzz" / (name + ".cpp"))) << name;
  });
  EXPECT_GT(named, 30);
  EXPECT_GT(fuzzers, 7);
}

}  // namespace
