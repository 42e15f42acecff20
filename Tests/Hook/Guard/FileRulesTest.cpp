#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "Hook/Guard/RuleEvaluator.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Verdicts.h"

namespace {

std::string fileWrite(const std::string& path, const GuardConfig& config = GuardConfig::defaults()) {
  TimeBudget budget;
  return described(RuleEvaluator::checkFileWrite({path, "/proj"}, config, budget));
}
std::string infraFile(const std::string& path) {
  TimeBudget budget;
  return described(RuleEvaluator::checkInfraFile({path, "/proj"}, GuardConfig::defaults(), budget));
}

TEST(FileRules, NormalisesPaths) {
  Sandbox sandbox;
  sandbox.set("QUIB_A", "/var/a");
  sandbox.set("QUIB_AB", "ab");
  struct Row {
    const char* sentence;
    std::string path, cwd, expected;
  };
  const std::vector<Row> rows = {
      {"an absolute path stays", "/a/b", "/proj", "/a/b"},
      {"a relative path is taken from the directory", "a/b", "/proj", "/proj/a/b"},
      {"without a directory it stays relative", "a/./b//c/", "", "a/b/c"},
      {"a lone tilde is the home directory", "~", "/proj", sandbox.home()},
      {"a tilde before a slash, too", "~/x", "/proj", sandbox.home() + "/x"},
      {"an unknown user's tilde stays", "~nobody-of-that-name/x", "/proj", "/proj/~nobody-of-that-name/x"},
      {"a variable is replaced", "$QUIB_A/x", "/proj", "/var/a/x"},
      {"so is one in braces", "${QUIB_A}/x", "/proj", "/var/a/x"},
      {"the longer name goes first", "x/$QUIB_AB", "/proj", "/proj/x/ab"},
      {"a name of other case is another", "/$quib_a", "/proj", "/$quib_a"},
      {"an unknown variable stays", "/$QUIB_UNKNOWN/x", "/proj", "/$QUIB_UNKNOWN/x"},
      {"a tilde inside is a character", "/a/~/b", "/proj", "/a/~/b"},
      {"a parent is resolved", "../other/x", "/proj", "/other/x"},
      {"the root has no parent", "/../../x", "/proj", "/x"},
      {"a relative path keeps its parents", "../x", "", "../x"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(RuleEvaluator::normalizePath(row.path, row.cwd), row.expected) << row.sentence;
  }
}

TEST(FileRules, FindsTheFirstPatternThatMatches) {
  struct Row {
    const char* sentence;
    std::vector<std::string> patterns;
    std::string path, cwd, expected;  // empty: none
  };
  const std::vector<Row> rows = {
      {"the name matches", {".env"}, "/any/dir/.env", "/proj", ".env"},
      {"the name of the normalised path matches", {".env"}, "x/.env/", "/proj", ".env"},
      {"the normalised path matches", {"/proj/*.c"}, "src/x.c", "/proj", "/proj/*.c"},
      {"the path as it stands matches", {"src/*"}, "src/x.c", "/proj", "src/*"},
      {"a star crosses directories",
       {"docker-compose*.yml"},
       "docker-compose/prod.yml",
       "/proj",
       "docker-compose*.yml"},
      {"but the name alone does not hold them",
       {"docker-compose*.yml"},
       "/proj/docker-compose/prod.yml",
       "/proj",
       ""},
      {"the first in the list is named", {"*.c", "x.*"}, "x.c", "/proj", "*.c"},
      {"case counts", {"Makefile"}, "makefile", "/proj", ""},
      {"a glob covers all of its text", {".env"}, "/proj/.env.x", "/proj", ""},
      {"a question mark is a character", {"?.c"}, "a.c", "/proj", "?.c"},
      {"brackets are a choice", {"[ab].c"}, "b.c", "/proj", "[ab].c"},
      {"a backslash escapes", {"\\*.c"}, "a.c", "/proj", ""},
      {"no list, no match", {}, "a.c", "/proj", ""},
      {"two stars match anywhere", {"**/*.pem"}, "/a/b/x.pem.bak", "/proj", "**/*.pem"},
      {"their dot is any character", {".github/**"}, "/a/xgithub/y", "/proj", ".github/**"},
      {"but must be one", {".github/**"}, "github/y", "", ""},
      {"two stars need their slash", {"**/x.tf"}, "x.tf", "", ""},
      {"one star beside them stays in its directory", {"**/k8s/*.yml$"}, "/a/k8s/b/c.yml", "/proj", ""},
      {"where two would not", {"**/k8s/**.yml$"}, "/a/k8s/b/c.yml", "/proj", "**/k8s/**.yml$"},
      {"three stars are two and one", {"/***x$"}, "/a/b/x", "/proj", "/***x$"},
      {"their case counts", {"**/K8S/**"}, "/a/k8s/b", "/proj", ""},
      {"the path as it stands is searched, too", {"^src/**"}, "src/x", "/proj", "^src/**"},
      {"a choice in the converted text", {"**/(a|b)$"}, "/x/b", "/proj", "**/(a|b)$"},
      {"an optional character", {"**/colou?rs$"}, "/x/colors", "/proj", "**/colou?rs$"},
      {"a conversion that is invalid is skipped", {"**/(", "x"}, "x", "/proj", "x"},
      {"a path beyond ASCII", {"**/größe/**"}, "/x/größe/y", "/proj", "**/größe/**"},
      {"letters are not folded there", {"**/kelvin"}, "/x/\u212Aelvin", "/proj", ""},
      {"a line break stops two stars", {"/a**z$"}, "/a\n/z", "", ""},
      {"the empty path is still its directory's", {"/proj"}, "", "/proj", "/proj"},
  };
  for (const Row& row : rows) {
    TimeBudget budget;
    const auto found = RuleEvaluator::matchedFilePattern({row.path, row.cwd}, row.patterns, budget);
    EXPECT_EQ(found.value_or(""), row.expected) << row.sentence;
  }
}

TEST(FileRules, GuardsFilesByTheDefaultLists) {
  const Sandbox sandbox;
  struct Row {
    std::string path, pattern;  // empty: none
  };
  const std::vector<Row> blocked = {
      {"/proj/.env", ".env"},
      {"/proj/.env.example", ".env.*"},
      {"/proj/.env.local", ".env.*"},
      {"config/secrets.yml", "**/secrets.yml"},
      {"/a/x.pem", "**/*.pem"},
      {"/a/id_rsa.pub", "**/id_rsa"},
      {"$HOME/.aws/credentials", "**/credentials*"},
      {"~/.aws/config", "**/.aws/config"},
      {"~/.config/gcloud/x/y", "**/.config/gcloud/*"},
      {".git/config", ".git/config"},
      {"/a/.npmrc", "**/.npmrc"},
      {"/a/monkey.py", "**/*.key"},  // the dot of a pattern with two stars is any character
  };
  for (const Row& row : blocked) {
    EXPECT_EQ(fileWrite(row.path), "block file_protection: Write to protected file blocked: " + row.path +
                                       " (matched: " + row.pattern + ")");
  }
  EXPECT_TRUE(fileWrite("~/.ssh/authorized_keys").starts_with("block"));
  const std::vector<Row> warned = {
      {"/proj/package-lock.json", "*lock.json"},
      {"Cargo.lock", "*.lock"},
      {"/proj/sub/.gitignore", ".gitignore"},
  };
  for (const Row& row : warned) {
    EXPECT_EQ(fileWrite(row.path), "warn file_protection: Write to sensitive file: " + row.path +
                                       " (matched: " + row.pattern + ")");
  }
  for (const std::string path : {"", "/proj/src/main.cpp", "/proj/env", "/proj/.envrc", "/proj/x.pe",
                                 "README.md", "/proj/.git/config", "/proj/größe.txt"}) {
    EXPECT_EQ(fileWrite(path), "none") << path;
  }
}

TEST(FileRules, ProtectsBeforeItWarns) {
  GuardConfig config;
  config.protected_file_patterns = {"b"};
  config.warn_file_patterns = {"*"};
  EXPECT_TRUE(fileWrite("b", config).starts_with("block"));
  EXPECT_TRUE(fileWrite("a", config).starts_with("warn"));
}

TEST(FileRules, ObjectsToAPathThatCannotBeComparedInTime) {
  using namespace std::chrono_literals;
  GuardConfig config;
  config.protected_file_patterns = {"*" + std::string(100'000, 'a') + "b"};
  TimeBudget budget(100ms);
  const auto start = std::chrono::steady_clock::now();
  const auto verdict =
      RuleEvaluator::checkFileWrite({"/" + std::string(1'000'000, 'a'), "/proj"}, config, budget);
  EXPECT_TRUE(verdict && verdict->action == Verdict::Action::block);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

TEST(FileRules, WarnsOfInfrastructureByTheDefaultList) {
  struct Row {
    std::string path, pattern;
  };
  const std::vector<Row> rows = {
      {"/proj/Dockerfile", "Dockerfile"},
      {"Dockerfile.dev", "Dockerfile.*"},
      {"/proj/docker-compose.prod.yml", "docker-compose*.yml"},
      {"/proj/.github/workflows/ci.yml", ".github/**"},
      {"/proj/.gitlab-ci/x", ".gitlab-ci/**"},
      {"main.tf", "**/*.tf"},
      {"/x/terraform/y", "**/terraform/**"},
      {"deploy/k8s/x.yml", "**/k8s/**"},
      {"Makefile", "Makefile"},
      {"a/vercel.json", "vercel.json"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(infraFile(row.path), "warn infra_protection: Write to infrastructure file: " + row.path +
                                       " (matched: " + row.pattern + ")");
  }
  for (const std::string path : {"", "/proj/Dockerfiles", "/proj/makefile", "/proj/helm", "/proj/src/x.c"}) {
    EXPECT_EQ(infraFile(path), "none") << path;
  }
}

TEST(FileRules, KeepsWritesWithinTheProject) {
  const Sandbox sandbox;
  struct Row {
    const char* sentence;
    std::string path, cwd;
    bool passes;
  };
  const std::vector<Row> rows = {
      {"a file beneath", "/proj/a/b", "/proj", true},
      {"the directory itself", "/proj", "/proj", true},
      {"a relative file", "a", "/proj", true},
      {"a neighbour of the same beginning", "/projector/x", "/proj", false},
      {"a parent's file", "../other/x", "/proj", false},
      {"a way out and in again", "../proj/x", "/proj", true},
      {"the root", "/", "/proj", false},
      {"a temporary file", "/tmp/scratch.txt", "/proj", true},
      {"whatever begins as the temporary directory does", "/tmpfoo", "/proj", true},
      {"the per-user temporary directories", "/var/folders/x", "/proj", true},
      {"another directory of variable data", "/var/folder", "/proj", false},
      {"the private temporary directory", "/private/tmp/x", "/proj", true},
      {"a way out of the temporary directory", "/tmp/../etc/x", "/proj", false},
      {"a directory that is not in standard form", "/proj/x", "/proj/./", true},
      {"a relative directory's file", "x", "proj", true},
      {"an empty path", "", "/proj", true},
      {"an empty directory", "/x", "", true},
      {"everything is outside of the root", "/x", "/", false},
      {"but the root itself", "/", "/", true},
  };
  for (const Row& row : rows) {
    const std::string refused = "block path_boundary: Write outside project directory blocked: " + row.path +
                                " (cwd: " + row.cwd + ")";
    EXPECT_EQ(described(RuleEvaluator::checkPathBoundary({row.path, row.cwd}, false)),
              row.passes ? "none" : refused)
        << row.sentence;
    EXPECT_EQ(RuleEvaluator::checkPathBoundary({row.path, row.cwd}, true), std::nullopt) << row.sentence;
  }
}

TEST(FileRules, FollowsLinksOutOfTheProjectWhereParentsLeadThroughThem) {
  const Sandbox sandbox;
  std::filesystem::create_directories(sandbox.root() + "/elsewhere/deep");
  std::filesystem::create_directory_symlink(sandbox.root() + "/elsewhere/deep", sandbox.project() + "/link");
  EXPECT_EQ(RuleEvaluator::normalizePath("link/../x", sandbox.project()), sandbox.root() + "/elsewhere/x");
}

}  // namespace
