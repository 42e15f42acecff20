#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "Hook/Guard/RuleEvaluator.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"
#include "Tests/Support/Verdicts.h"

namespace {

using RuleEvaluator::FileSubject;

std::string network(const std::string& url, const GuardConfig& config = GuardConfig::defaults()) {
  TimeBudget budget;
  return described(RuleEvaluator::checkNetworkAccess(url, config, budget));
}

std::string written(const std::string& path) {
  return described(
      RuleEvaluator::checkToolUse("Write", {{"file_path", path}}, GuardConfig::defaults(), "/proj"));
}

TEST(FileRules, NormalisePaths) {
  Sandbox sandbox;
  sandbox.set("QUIB_A", "/var/a");
  sandbox.set("QUIB_AB", "ab");
  for (const auto& row : rows(R"(
      /a/b                     ¦ /proj ¦ /a/b
      a/b                      ¦ /proj ¦ /proj/a/b
      a/./b//c/                ¦       ¦ a/b/c
      ~nobody-of-that-name/x   ¦ /proj ¦ /proj/~nobody-of-that-name/x
      $QUIB_A/x                ¦ /proj ¦ /var/a/x
      x/${QUIB_AB}             ¦ /proj ¦ /proj/x/ab
      ../other/x               ¦ /proj ¦ /other/x
      )"))
    EXPECT_EQ(RuleEvaluator::normalizePath(row[0], row[1]), row[2]) << row[0];
  EXPECT_EQ(RuleEvaluator::normalizePath("~", "/proj"), sandbox.home());
  EXPECT_EQ(RuleEvaluator::normalizePath("~/x", "/proj"), sandbox.home() + "/x");
  std::filesystem::create_directories(sandbox.root() + "/elsewhere/deep");
  std::filesystem::create_directory_symlink(sandbox.root() + "/elsewhere/deep", sandbox.project() + "/link");
  EXPECT_EQ(RuleEvaluator::normalizePath("link/../x", sandbox.project()), sandbox.root() + "/elsewhere/x");
}

TEST(FileRules, FindTheFirstPatternThatMatches) {
  // patterns ¦ path ¦ directory ¦ the pattern that is found
  for (const auto& row : rows(R"--(
      .env                ¦ /any/dir/.env                 ¦ /proj ¦ .env
      .env                ¦ x/.env/                       ¦ /proj ¦ .env
      /proj/*.c           ¦ src/x.c                       ¦ /proj ¦ /proj/*.c
      src/*               ¦ src/x.c                       ¦ /proj ¦ src/*
      docker-compose*.yml ¦ docker-compose/prod.yml       ¦ /proj ¦ docker-compose*.yml
      docker-compose*.yml ¦ /proj/docker-compose/prod.yml ¦ /proj ¦
      *.c x.*             ¦ x.c                           ¦ /proj ¦ *.c
      Makefile            ¦ makefile                      ¦ /proj ¦
      .env                ¦ /proj/.env.x                  ¦ /proj ¦
      ?.c                 ¦ a.c                           ¦ /proj ¦ ?.c
      [ab].c              ¦ b.c                           ¦ /proj ¦ [ab].c
      \*.c                ¦ a.c                           ¦ /proj ¦
                          ¦ a.c                           ¦ /proj ¦
      # two stars match anywhere in the path, and their dot any character
      **/*.pem            ¦ /a/b/x.pem.bak                ¦ /proj ¦ **/*.pem
      .github/**          ¦ /a/xgithub/y                  ¦ /proj ¦ .github/**
      .github/**          ¦ github/y                      ¦       ¦
      **/x.tf             ¦ x.tf                          ¦       ¦
      **/k8s/*.yml$       ¦ /a/k8s/b/c.yml                ¦ /proj ¦
      **/k8s/**.yml$      ¦ /a/k8s/b/c.yml                ¦ /proj ¦ **/k8s/**.yml$
      /***x$              ¦ /a/b/x                        ¦ /proj ¦ /***x$
      **/K8S/**           ¦ /a/k8s/b                      ¦ /proj ¦
      ^src/**             ¦ src/x                         ¦ /proj ¦ ^src/**
      **/(a|b)$           ¦ /x/b                          ¦ /proj ¦ **/(a|b)$
      **/colou?rs$        ¦ /x/colors                     ¦ /proj ¦ **/colou?rs$
      **/( x              ¦ x                             ¦ /proj ¦ x
      **/größe/**         ¦ /x/größe/y                    ¦ /proj ¦ **/größe/**
      **/kelvin           ¦ /x/Kelvin                    ¦ /proj ¦
      /a**z$              ¦ /a␊/z                         ¦       ¦
      /proj               ¦                               ¦ /proj ¦ /proj
      )--")) {
    TimeBudget budget;
    const auto found = RuleEvaluator::matchedFilePattern({row[1], row[2]}, words(row[0]), budget);
    EXPECT_EQ(found.value_or(""), row[3]) << row[0] << " " << row[1];
  }
}

TEST(FileRules, GuardFilesByTheDefaultLists) {
  const Sandbox sandbox;
  const std::map<std::string, std::string> messages = {
      {"block", "block file_protection: Write to protected file blocked: "},
      {"warn", "warn file_protection: Write to sensitive file: "},
      {"infra", "warn infra_protection: Write to infrastructure file: "},
  };
  for (const auto& row : rows(R"(
      block ¦ /proj/.env                     ¦ .env
      block ¦ /proj/.env.example             ¦ .env.*
      block ¦ config/secrets.yml             ¦ **/secrets.yml
      block ¦ /a/monkey.py                   ¦ **/*.key
      block ¦ $HOME/.aws/credentials         ¦ **/credentials*
      block ¦ ~/.config/gcloud/x/y           ¦ **/.config/gcloud/*
      block ¦ .git/config                    ¦ .git/config
      warn  ¦ /proj/package-lock.json        ¦ *lock.json
      warn  ¦ /proj/sub/.gitignore           ¦ .gitignore
      infra ¦ /proj/Dockerfile               ¦ Dockerfile
      infra ¦ /proj/docker-compose.prod.yml  ¦ docker-compose*.yml
      infra ¦ /proj/.github/workflows/ci.yml ¦ .github/**
      infra ¦ main.tf                        ¦ **/*.tf
      )"))
    EXPECT_EQ(written(row[1]), messages.at(row[0]) + row[1] + " (matched: " + row[2] + ")");
  for (const std::string& path :
       words("/proj/src/main.cpp /proj/env /proj/.envrc /proj/x.pe README.md /proj/.git/config "
             "/proj/größe.txt /proj/Dockerfiles /proj/makefile /proj/helm"))
    EXPECT_EQ(written(path), "allow : ") << path;
  EXPECT_EQ(written(""), "allow : ");
}

TEST(FileRules, KeepWritesWithinTheProject) {
  const Sandbox sandbox;
  // passes or is refused ¦ path ¦ directory
  for (const auto& row : rows(R"(
      passes  ¦ /proj/a/b          ¦ /proj
      passes  ¦ /proj              ¦ /proj
      passes  ¦ a                  ¦ /proj
      refused ¦ /projector/x       ¦ /proj
      refused ¦ ../other/x         ¦ /proj
      passes  ¦ ../proj/x          ¦ /proj
      refused ¦ /                  ¦ /proj
      passes  ¦ /tmp/scratch.txt   ¦ /proj
      passes  ¦ /tmpfoo            ¦ /proj
      passes  ¦ /var/folders/x     ¦ /proj
      refused ¦ /var/folder        ¦ /proj
      passes  ¦ /private/tmp/x     ¦ /proj
      refused ¦ /tmp/../etc/x      ¦ /proj
      passes  ¦ /proj/x            ¦ /proj/./
      passes  ¦ x                  ¦ proj
      passes  ¦                    ¦ /proj
      passes  ¦ /x                 ¦
      refused ¦ /x                 ¦ /
      passes  ¦ /                  ¦ /
      )")) {
    const FileSubject file(row[1], row[2]);
    const std::string refused =
        "block path_boundary: Write outside project directory blocked: " + row[1] + " (cwd: " + row[2] + ")";
    EXPECT_EQ(described(RuleEvaluator::checkPathBoundary(file, false)),
              row[0] == "passes" ? "none" : refused);
    EXPECT_EQ(RuleEvaluator::checkPathBoundary(file, true), std::nullopt) << row[1];
  }
}

TEST(NetworkRules, BlockInternalAddresses) {
  const Sandbox sandbox;
  for (const std::string& url : words(R"(
      http://localhost HTTP://LOCALHOST:3000/x https://localhost.example/ http://localhost-x http://127.0.0.1/
      http://127.0.0.1.example/ http://0.0.0.0:80 http://10.0.0.1 http://10.0.0.1.example http://172.16.5.4/
      http://172.31.0.1 https://192.168.1.1 http://169.254.169.254/latest/meta-data http://[::1]:8080
      http://metadata.google.internal/computeMetadata http://METADATA.google.internal http://localhoſt)"))
    EXPECT_EQ(network(url), "block network_access: Access to internal/private URL blocked: " + url);
  for (const std::string& url : words(R"(
      https://example.com http://localhosts/ http://localhost_x/ https://example.com/?u=http://localhost
      ftp://localhost localhost http:/localhost http://user@localhost http://127.0.0.2/ http://127.0.0.10/
      http://172.32.0.1/ http://172.15.0.1/ http://172.1.0.1/ http://203.0.113.5/ http://10.0.0/
      http://110.0.0.1/ http://192.169.1.1/ http://metadata-google.internal/ http://[::2]/)"))
    EXPECT_EQ(network(url), "none") << url;
  EXPECT_EQ(network(""), "none");
  EXPECT_EQ(network(" http://localhost"), "none");
  const std::string longer = "http://localhost/" + std::string(300, 'x');
  EXPECT_TRUE(network(longer).ends_with(longer)) << "the address is quoted whole";
}

TEST(NetworkRules, BlockConfiguredDomains) {
  // domains ¦ whether internal addresses are blocked ¦ address ¦ the domain named, or else the answer
  for (const auto& row : rows(R"(
      ["evil.example"]    ¦ 1 ¦ https://x.y/?evil.example ¦ evil.example
      ["EVIL.Example"]    ¦ 1 ¦ https://evil.EXAMPLE/     ¦ EVIL.Example
      ["example", "evil"] ¦ 1 ¦ https://evil.example/     ¦ example
      ["", "evil"]        ¦ 1 ¦ https://example.com/      ¦
      ["", "evil"]        ¦ 1 ¦ https://evil/             ¦ evil
      ["localhost"]       ¦ 0 ¦ http://localhost          ¦ localhost
      []                  ¦ 0 ¦ http://localhost          ¦
      ["e.il"]            ¦ 1 ¦ https://evil/             ¦
      ["STRASSE.example"] ¦ 1 ¦ https://straße.example    ¦ STRASSE.example
      ["kelvin"]          ¦ 1 ¦ https://Kelvin.example   ¦ kelvin
      )")) {
    const auto config = GuardConfig::fromDict(
        parsed(R"({"blocked_domains": )" + row[0] + R"(, "block_internal_urls": )" + row[1] + "}"));
    EXPECT_EQ(network(row[2], config),
              row[3].empty() ? "none" : "block network_access: Access to blocked domain: " + row[3]);
  }
  GuardConfig both = GuardConfig::defaults();
  both.blocked_domains = {"localhost"};
  EXPECT_TRUE(network("http://localhost", both).ends_with("internal/private URL blocked: http://localhost"));
}

}  // namespace
