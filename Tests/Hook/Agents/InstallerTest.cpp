#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "Hook/Agents/ClaudeInstaller.h"
#include "Hook/Agents/CopilotAdapter.h"
#include "Hook/Agents/CursorAdapter.h"
#include "Platform/Files.h"
#include "Tests/Support/Sandbox.h"

namespace {

namespace fs = std::filesystem;

using Names = std::vector<std::string>;

const std::string binary = "/opt/tools/quib-hook";

struct Agent {
  const char* name;
  bool (*install)(const std::string& binaryPath);
  std::string place;
  std::string category;

  fs::path file(const Sandbox& sandbox) const { return sandbox.home() + place; }
};

const Agent cursor{"Cursor", CursorAdapter::install, "/.cursor/hooks.json", "hook.cursor"};
const Agent copilot{"Copilot", CopilotAdapter::install, "/.copilot/hooks/obrisk.json", "hook.copilot"};
const Agent claude{"Claude Code", ClaudeInstaller::install, "/.claude/settings.json", "hook.claude"};
const Agent agents[] = {cursor, copilot, claude};

Json::Object hooksIn(const std::string& path) {
  return parsed(contentOf(path)).object("hooks");
}

// The last diagnostics record.
std::string lastRecord(const Sandbox& sandbox) {
  const auto records = jsonLines(sandbox.diagnostics());
  if (records.empty()) return "";
  const Json::Object& last = records.back();
  return last.text("level") + " " + last.text("category") + " " + last.text("message");
}

std::string failed(const Agent& agent, const std::string& why) {
  return "error " + agent.category + " failed to write ~" + agent.place + ": " + why;
}

TEST(Installers, SayWhereTheyInstalledAndInstallOnce) {
  for (const Agent& agent : agents)
    for (const std::string executable : {binary.c_str(), "/opt/guard"}) {
      Sandbox sandbox;
      const fs::path path = agent.file(sandbox);
      ASSERT_TRUE(agent.install(executable)) << agent.name;
      EXPECT_EQ(lastRecord(sandbox),
                "default " + agent.category + " installed " + agent.name + " hooks at " + path.string());
      EXPECT_EQ(Files::mode(path), 0600u) << agent.name;
      const std::string first = contentOf(path);
      EXPECT_TRUE(agent.install(executable)) << agent.name;
      EXPECT_EQ(contentOf(path), first) << agent.name;
      EXPECT_EQ(Sandbox::tree(path.parent_path()), Names{path.filename()}) << agent.name;
    }
}

TEST(Installers, RegisterTheirEvents) {
  const struct {
    const Agent& agent;
    Json entry;
    Json::Object file;  // without the hooks
    Names events;
  } rows[] = {
      {cursor,
       Json::Object{{"command", "'/opt/tools/quib-hook' --app cursor --profile cursor"}},
       {{"version", 1}},
       {"sessionStart", "beforeSubmitPrompt", "preToolUse", "postToolUse", "beforeShellExecution",
        "afterShellExecution", "beforeMCPExecution", "afterAgentResponse", "subagentStart", "subagentStop",
        "stop", "sessionEnd"}},
      {copilot,
       Json::Object{{"type", "command"},
                    {"command", "'/opt/tools/quib-hook' --app copilot --profile copilot"}},
       {{"version", 1}, {"disableAllHooks", false}},
       {"sessionStart", "userPromptSubmitted", "preToolUse", "postToolUse", "postToolUseFailure",
        "subagentStart", "subagentStop", "agentStop", "sessionEnd", "notification"}},
  };
  for (const auto& row : rows) {
    Sandbox sandbox;
    const fs::path path = row.agent.file(sandbox), other = path.parent_path() / "other.json";
    sandbox.write(path, R"({"version":3,"hooks":{"stop":[{"command":"/old/quib-hook"}]},"note":1})");
    sandbox.write(other, "{}");
    ASSERT_TRUE(row.agent.install(binary)) << row.agent.name;
    Json::Object expected = row.file, hooks;
    for (const std::string& event : row.events)
      hooks.set(event, Json::Array{row.entry});
    expected.set("hooks", std::move(hooks));
    EXPECT_EQ(contentOf(path), Json(expected).pretty()) << row.agent.name;
    EXPECT_EQ(contentOf(other), "{}") << row.agent.name;
  }
}

TEST(Installers, RefuseAPathThatNoCommandLineCanName) {
  const std::pair<const char*, const char*> rows[] = {
      {"/home/o'brien/quib-hook", "the path of this executable contains a single quote"},
      {"/home/\xFF/quib-hook", "the path of this executable is not UTF-8"},
      {"", "the path of this executable is unknown"},
  };
  for (const Agent& agent : agents)
    for (const auto& [path, why] : rows) {
      Sandbox sandbox;
      EXPECT_FALSE(agent.install(path)) << agent.name << ": " << why;
      EXPECT_EQ(lastRecord(sandbox), failed(agent, why));
      EXPECT_FALSE(Files::exists(agent.file(sandbox))) << agent.name << ": " << why;
    }
}

// All that there is in a directory, told apart by its kind.
Names kindsIn(const fs::path& directory) {
  Names found;
  for (const std::string& name : Sandbox::tree(directory))
    found.push_back(name + " " +
                    std::to_string(static_cast<int>(fs::symlink_status(directory / name).type())));
  return found;
}

TEST(Installers, LeaveWhatCannotBeReplaced) {
  const struct {
    std::string why;
    std::function<void(const fs::path& path)> damage;
  } rows[] = {
      {"it is not a regular file", [](const fs::path& path) { ::mkfifo(path.c_str(), 0600); }},
      {"it is not a regular file", [](const fs::path& path) { fs::create_directory(path); }},
      {"it is not a regular file",
       [](const fs::path& path) { fs::create_symlink(path.parent_path(), path); }},
      {"Too many levels of symbolic links", [](const fs::path& path) { fs::create_symlink(path, path); }},
      {"Too many levels of symbolic links",
       [](const fs::path& path) {
         fs::create_symlink("second", path);
         fs::create_symlink("third", path.parent_path() / "second");
         fs::create_symlink(path, path.parent_path() / "third");
       }},
      {"Not a directory",
       [](const fs::path& path) {
         fs::remove(path.parent_path());
         ASSERT_FALSE(Files::write(path.parent_path(), "a file"));
       }},
  };
  for (const Agent& agent : agents)
    for (const auto& row : rows) {
      Sandbox sandbox;
      const fs::path path = agent.file(sandbox);
      fs::create_directories(path.parent_path());
      row.damage(path);
      const Names before = kindsIn(path.parent_path().parent_path());
      const bool isRead = agent.name == claude.name && Files::exists(path);
      EXPECT_FALSE(agent.install(binary)) << agent.name << ": " << row.why;
      EXPECT_EQ(lastRecord(sandbox), failed(agent, isRead ? "the present file cannot be read" : row.why));
      fs::remove_all(sandbox.home() + "/.obrisk");
      EXPECT_EQ(kindsIn(path.parent_path().parent_path()), before) << agent.name << ": " << row.why;
    }
}

TEST(Installers, KeepTheModeOfTheFileAndTheLinkToIt) {
  for (const Agent& agent : agents) {
    Sandbox sandbox;
    const fs::path path = agent.file(sandbox), real = sandbox.root() + "/dotfiles/hooks";
    sandbox.write(real, "{}");
    fs::permissions(real, fs::perms(0640));
    fs::create_directories(path.parent_path());
    fs::create_symlink(real, path.parent_path() / "middle");
    fs::create_symlink("middle", path);
    for (const unsigned mode : {0640u, 0600u}) {
      EXPECT_TRUE(agent.install(binary)) << agent.name;
      EXPECT_TRUE(fs::is_symlink(path)) << agent.name;
      EXPECT_FALSE(hooksIn(real).empty()) << agent.name;
      EXPECT_EQ(Files::mode(real), mode) << agent.name;
      fs::remove_all(real.parent_path());  // the link now leads nowhere
    }
  }
}

TEST(Installers, LoseNothingThatTheyMayNotRead) {
  const struct {
    const Agent& agent;
    bool installed;
    std::string keptAs;
  } rows[] = {{cursor, true, ".bak"}, {copilot, true, ""}, {claude, false, ""}};
  for (const auto& [agent, installed, keptAs] : rows) {
    Sandbox sandbox;
    const std::string path = agent.file(sandbox), before = R"({"hooks":{"stop":[{"command":"mine"}]}})";
    sandbox.write(path, before);
    fs::permissions(path, fs::perms::none);
    EXPECT_EQ(sandbox.asOwner([&] { return agent.install(binary); }), installed) << agent.name;
    EXPECT_EQ(sandbox.asOwner([&] { return Files::read(path).has_value(); }), installed) << agent.name;
    fs::permissions(path + keptAs, fs::perms::owner_read);
    EXPECT_EQ(contentOf(path + keptAs) == before, agent.name != copilot.name) << agent.name;
  }
}

// What becomes of the list of one event; every row stands alone under an event that this hook registers
// ("preToolUse") and under one that it does not ("beforeTabFileRead").
TEST(CursorInstaller, KeepsTheEntriesOfOtherTools) {
  const struct {
    const char* sentence;
    const char* before;
    const char* after;  // without this hook's own; empty: the event is dropped
    bool losesContent = false;
  } rows[] = {
      {"another tool's entry stays as it is",
       R"([{"command":"/lint","timeout":5,"s":"\uD83D\uDE00 \u0001�"}])",
       R"([{"command":"\/lint","s":"😀 \u0001�","timeout":5}])"},
      {"an older entry goes, whatever its place and options",
       R"([{"command":"a"},{"command":"/usr/bin/quib-hook --app cursor"},{"command":"b"}])",
       R"([{"command":"a"},{"command":"b"}])"},
      {"an event with older entries only is emptied", R"([{"command":"'/x/quib-hook-2' --profile y"}])", ""},
      {"the name is told by its letters' case", R"([{"command":"Quib-Hook"}])",
       R"([{"command":"Quib-Hook"}])"},
      {"an entry without a string command stays", R"([{"command":["quib-hook"]},{"prompt":"quib-hook"}])",
       R"([{"command":["quib-hook"]},{"prompt":"quib-hook"}])"},
      {"a value that is no list is dropped", R"("quib")", "", true},
      {"a list that holds more than objects is dropped", R"([{"command":"a"},"b"])", "", true},
      {"an empty list is dropped", "[]", ""},
      {"an integer is rounded", R"([{"n":[12345678901234567890]}])", R"([{"n":[12345678901234567168]}])",
       true},
      {"a number is cut", R"([{"n":1e400}])", R"([{"n":1.7976931348623157e+308}])", true},
      {"a string is mended", R"([{"s":"\ud800�"}])", R"([{"s":"��"}])", true},
      {"a name is mended", R"([{"\udfff":1}])", R"([{"�":1}])", true},
      {"a member is named twice", R"([{"a":1,"\u0061":2}])", R"([{"a":2}])", true},
  };
  for (const auto& row : rows) {
    Sandbox sandbox;
    const std::string path = cursor.file(sandbox);
    const std::string before = std::string(R"({"version":1,"hooks":{"preToolUse":)") + row.before +
                               R"(,"beforeTabFileRead":)" + row.before + "}}";
    sandbox.write(path, before);
    ASSERT_TRUE(CursorAdapter::install(binary));

    const Json::Object hooks = hooksIn(path);
    Json::Array others = hooks.list("preToolUse");
    ASSERT_FALSE(others.empty()) << row.sentence;
    EXPECT_NE(others.back().asObject()->text("command").find(binary), std::string::npos) << row.sentence;
    others.pop_back();
    EXPECT_EQ(others.empty() ? "" : Json(others).compact(), row.after) << row.sentence;
    const Json* foreign = hooks.find("beforeTabFileRead");
    EXPECT_EQ(foreign ? foreign->compact() : "", row.after) << row.sentence;
    EXPECT_EQ(Files::read(path + ".bak"), row.losesContent ? std::optional(before) : std::nullopt)
        << row.sentence;
  }
}

TEST(CursorInstaller, CopiesAFileAsideBeforeItLosesWhatItHeld) {
  const char* rows[] = {
      R"({"version":1,"hooks":{"stop":[{"command":"mine"}]},)",  // cut short
      "",
      "// comments\n{}",
      R"(["hooks"])",
      R"({"hooks":["mine"]})",
      R"({"note":"no hooks at all"})",
      R"({"version":2,"hooks":{}})",
      R"({"version":1,"hooks":{},"note":"mine"})",
      R"({"version":1,"hooks":{"stop":[{"command":"mine"}]},"hooks":{}})",
  };
  for (const std::string before : rows) {
    Sandbox sandbox;
    const std::string path = cursor.file(sandbox);
    sandbox.write(path, before);
    sandbox.write(path + ".bak", "the user's own copy");
    fs::permissions(path, fs::perms(0644));
    ASSERT_TRUE(CursorAdapter::install(binary)) << before;
    EXPECT_EQ(contentOf(path + ".bak"), "the user's own copy");
    EXPECT_EQ(contentOf(path + ".bak.2"), before);
    EXPECT_EQ(Files::mode(path + ".bak.2"), 0644u);

    const std::string after = contentOf(path);
    EXPECT_EQ(hooksIn(path).size(), 12u) << before;
    EXPECT_TRUE(CursorAdapter::install(binary));
    EXPECT_EQ(contentOf(path), after);
    EXPECT_FALSE(Files::exists(path + ".bak.3")) << before;
  }
}

}  // namespace
