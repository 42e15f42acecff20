#include "Hook/Transcript/LLMCallDedupe.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "Platform/Files.h"
#include "Tests/Support/Sandbox.h"

namespace {

namespace fs = std::filesystem;

using Ids = std::set<std::string>;

TEST(LLMCallDedupe, KeepsARunsIdsSortedInAFileOfItsOwn) {
  Sandbox sandbox;
  const std::string directory = sandbox.home() + "/.obrisk/cc-dedupe";
  EXPECT_EQ(LLMCallDedupe::load("run_1"), Ids());
  LLMCallDedupe::save("run_1", {"b", "a", "B", "x/y", "é"});
  LLMCallDedupe::save("run_2", {"c"});
  EXPECT_EQ(contentOf(directory + "/run_1.json"), R"(["B","a","b","x\/y","é"])");
  EXPECT_EQ(LLMCallDedupe::load("run_1"), (Ids{"a", "b", "B", "x/y", "é"}));
  LLMCallDedupe::save("run_1", {"z"});
  EXPECT_EQ(LLMCallDedupe::load("run_1"), Ids{"z"}) << "a save replaces what was there";
  EXPECT_EQ(Sandbox::tree(directory), (std::vector<std::string>{"run_1.json", "run_2.json"}));
}

TEST(LLMCallDedupe, HasADirectoryForEachProject) {
  Sandbox sandbox;
  const std::string base = sandbox.home() + "/.obrisk/cc-dedupe";
  const std::pair<const char*, std::string> rows[] = {
      {"", base + "/r.json"},
      {" \t ", base + "/r.json"},
      {"key", base + "/key/r.json"},
      {"\t a key ", base + "/a key/r.json"},
      {"\nkey\n", base + "/\nkey\n/r.json"},
  };
  for (const auto& [key, path] : rows) {
    sandbox.set("OBRISK_PROJECT_KEY", key);
    EXPECT_EQ(LLMCallDedupe::path("r"), path);
    LLMCallDedupe::save("r", {key});
    EXPECT_EQ(LLMCallDedupe::load("r"), Ids{key});
    EXPECT_TRUE(fs::exists(path)) << path;
  }
}

TEST(LLMCallDedupe, KnowsNothingOfTheEmptyRun) {
  Sandbox sandbox;
  sandbox.write(LLMCallDedupe::path("").value(), R"(["a"])");
  EXPECT_EQ(LLMCallDedupe::load(""), Ids());
  LLMCallDedupe::save("", {"b"});
  EXPECT_EQ(contentOf(LLMCallDedupe::path("").value()), R"(["a"])");
}

TEST(LLMCallDedupe, ReadsADamagedFileAsNoIds) {
  Sandbox sandbox;
  const std::pair<const char*, Ids> rows[] = {
      {"", {}},       {R"(["a",1])", {}}, {R"(["a")", {}}, {R"({"a":1})", {}},
      {R"("a")", {}}, {"[\"\xFF\"]", {}}, {"[]", {}},      {R"(["b","a","b"])", {"a", "b"}},
  };
  for (const auto& [content, ids] : rows) {
    sandbox.write(LLMCallDedupe::path("r").value(), content);
    EXPECT_EQ(LLMCallDedupe::load("r"), ids) << content;
  }
}

TEST(LLMCallDedupe, LeavesTheFileAsItWasWhenItCannotBeReplaced) {
  Sandbox sandbox;
  const std::string path = LLMCallDedupe::path("r").value();
  LLMCallDedupe::save("r", {"a"});
  fs::create_directories(path + ".tmp/full");
  LLMCallDedupe::save("r", {"a", "b"});
  EXPECT_EQ(LLMCallDedupe::load("r"), Ids{"a"});
  fs::remove_all(path + ".tmp");

  sandbox.write(path + ".tmp", "left behind by a kill");
  LLMCallDedupe::save("r", {"a", "b"});
  EXPECT_EQ(LLMCallDedupe::load("r"), (Ids{"a", "b"}));
  EXPECT_FALSE(fs::exists(path + ".tmp"));

  sandbox.write(sandbox.home() + "/.obrisk/cc-dedupe/file", "");
  sandbox.set("OBRISK_PROJECT_KEY", "file");
  LLMCallDedupe::save("r", {"a"});
  EXPECT_EQ(LLMCallDedupe::load("r"), Ids()) << "a file where the directory should be";
}

}  // namespace
