#include "Platform/Paths.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "Platform/Process.h"
#include "Tests/Support/Sandbox.h"

namespace {

TEST(Paths, HaveOneStandardForm) {
  Sandbox sandbox;
  std::filesystem::create_directories(sandbox.root() + "/real/deep");
  std::filesystem::create_symlink(sandbox.root() + "/real/deep", sandbox.root() + "/link");
  const std::string root = sandbox.root(), home = sandbox.home();
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},
      {"/", "/"},
      {"//a///b/", "/a/b"},
      {"/a/./b/.", "/a/b"},
      {"/no/such/../b", "/no/b"},
      {"/../..", "/"},
      {"a/./b//c/", "a/b/c"},
      {"a/../b", "a/../b"},
      {".", ""},
      {"~", home},
      {"~/x/../y", home + "/y"},
      {"~no-such-user/x", "~no-such-user/x"},
      {"/a/~", "/a/~"},
      {root + "/link/../x", root + "/real/x"},
      {root + "/link/x", root + "/link/x"},
      {"/private/no/such/file", "/private/no/such/file"},
      {"/private" + root, root},
      {"/privately", "/privately"},
  };
  for (const auto& [path, standard] : rows)
    EXPECT_EQ(Paths::standardize(path), standard) << path;
}

TEST(Paths, ExpandVariablesLiterally) {
  Sandbox sandbox;
  sandbox.set("QUIB_A", "one");
  sandbox.set("QUIB_AB", "$QUIB_A");
  const std::pair<const char*, const char*> rows[] = {
      {"$QUIB_A/x", "one/x"}, {"${QUIB_A}/x${QUIB_A}", "one/xone"},
      {"$QUIB_ABC", "oneC"},  {"$QUIB_NONE/x", "$QUIB_NONE/x"},
      {"$quib_a", "$quib_a"}, {"${QUIB_A", "${QUIB_A"},
  };
  for (const auto& [path, expanded] : rows)
    EXPECT_EQ(Paths::expandVariables(path), expanded) << path;
}

TEST(Paths, EndInAComponent) {
  const std::pair<const char*, const char*> rows[] = {
      {"", ""}, {"/", "/"}, {"//", "/"}, {"a", "a"}, {"/a/b", "b"}, {"/a/b/", "b"}, {"a/.env", ".env"},
  };
  for (const auto& [path, last] : rows)
    EXPECT_EQ(Paths::lastComponent(path), last) << path;
}

TEST(Paths, GlobCrossesSlashesAndSeesLeadingDots) {
  struct Row {
    const char* pattern;
    const char* candidate;
    bool matches;
  };
  const Row rows[] = {
      {"*.pem", "/a/b/.x.pem", true},
      {"release/*", "release/2.0/rc", true},
      {"?env", ".env", true},
      {"a?c", "a/c", true},
      {"[a-c]x", "bx", true},
      {"[!a]x", "ax", false},
      {"\\*", "*", true},
      {"\\*", "x", false},
      {"main", "Main", false},
      {"main", "maint", false},
  };
  for (const Row& row : rows)
    EXPECT_EQ(Paths::glob(row.pattern, row.candidate), row.matches) << row.pattern << " " << row.candidate;
}

}  // namespace
