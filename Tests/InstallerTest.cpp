#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "Hook/ClaudeInstaller.h"
#include "Hook/CopilotAdapter.h"
#include "Hook/CursorAdapter.h"
#include "Platform/Files.h"
#include "Tests/Support/Sandbox.h"

namespace {

namespace fs = std::filesystem;

const std::string binary = "/opt/tools/quib-hook";
const std::string cursorCommand = "'/opt/tools/quib-hook' --app cursor --profile cursor";
const std::string copilotCommand = "'/opt/tools/quib-hook' --app copilot --profile copilot";

using Names = std::vector<std::string>;

std::string cursorFile(const Sandbox& sandbox) {
  return sandbox.home() + "/.cursor/hooks.json";
}
std::string copilotFile(const Sandbox& sandbox) {
  return sandbox.home() + "/.copilot/hooks/obrisk.json";
}
std::string claudeFile(const Sandbox& sandbox) {
  return sandbox.home() + "/.claude/settings.json";
}

Json::Object readFile(const std::string& path) {
  return parsed(contentOf(path));
}

std::string text(const Json& value) {
  return value.compact();
}

// The last diagnostics record: its level, category and message.
Names lastRecord(const Sandbox& sandbox) {
  const auto records = jsonLines(sandbox.diagnostics());
  if (records.empty()) return {};
  return {records.back().text("level"), records.back().text("category"), records.back().text("message")};
}

std::set<std::string> namesOf(const Json::Object& object) {
  std::set<std::string> names;
  for (const auto& [name, value] : object)
    names.insert(name);
  return names;
}

struct Agent {
  const char* name;
  bool (*install)(const std::string& binaryPath);
  std::string (*file)(const Sandbox& sandbox);
  const char* category;
  const char* place;  // as messages name the file
};

const Agent agents[] = {
    {"Cursor", CursorAdapter::install, cursorFile, "hook.cursor", "~/.cursor/hooks.json"},
    {"Copilot", CopilotAdapter::install, copilotFile, "hook.copilot", "~/.copilot/hooks/obrisk.json"},
    {"Claude Code", ClaudeInstaller::install, claudeFile, "hook.claude", "~/.claude/settings.json"},
};

TEST(Installers, SayWhereTheyInstalledAndInstallOnce) {
  for (const Agent& agent : agents) {
    Sandbox sandbox;
    const std::string path = agent.file(sandbox);
    ASSERT_TRUE(agent.install(binary)) << agent.name;
    EXPECT_EQ(lastRecord(sandbox), (Names{"default", agent.category,
                                          "installed " + std::string(agent.name) + " hooks at " + path}));
    EXPECT_EQ(Files::mode(path), 0600u) << agent.name;

    const std::string first = contentOf(path);
    EXPECT_TRUE(agent.install(binary)) << agent.name;
    EXPECT_EQ(contentOf(path), first) << agent.name;
    EXPECT_EQ(Sandbox::tree(fs::path(path).parent_path()), Names{fs::path(path).filename()}) << agent.name;
  }
}

TEST(Installers, InstallOnceWhateverTheExecutableIsCalled) {
  for (const Agent& agent : agents) {
    Sandbox sandbox;
    ASSERT_TRUE(agent.install("/opt/guard")) << agent.name;
    const std::string first = contentOf(agent.file(sandbox));
    EXPECT_TRUE(agent.install("/opt/guard")) << agent.name;
    EXPECT_EQ(contentOf(agent.file(sandbox)), first) << agent.name;
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
      EXPECT_EQ(lastRecord(sandbox),
                (Names{"error", agent.category, "failed to write " + std::string(agent.place) + ": " + why}));
      EXPECT_FALSE(Files::exists(agent.file(sandbox))) << agent.name << ": " << why;
    }
}

TEST(Installers, ReportAFileThatCannotBeWritten) {
  for (const Agent& agent : agents) {
    Sandbox sandbox;
    const fs::path directory = fs::path(agent.file(sandbox)).parent_path();
    sandbox.write(directory, "a file where a directory should be");
    EXPECT_FALSE(agent.install(binary)) << agent.name;
    EXPECT_EQ(lastRecord(sandbox),
              (Names{"error", agent.category,
                     "failed to write " + std::string(agent.place) + ": Not a directory"}));
    EXPECT_EQ(contentOf(directory), "a file where a directory should be");
  }
}

TEST(Installers, ReplaceNothingButRegularFiles) {
  for (const Agent& agent : agents) {
    Sandbox sandbox;
    const fs::path path = agent.file(sandbox);
    fs::create_directories(path.parent_path());
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(agent.install(binary)) << agent.name;
    EXPECT_EQ(lastRecord(sandbox).front(), "error") << agent.name;
    EXPECT_TRUE(fs::is_fifo(path)) << agent.name;
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
    EXPECT_TRUE(agent.install(binary)) << agent.name;
    EXPECT_TRUE(fs::is_symlink(path)) << agent.name;
    EXPECT_FALSE(readFile(real).object("hooks").empty()) << agent.name;
    EXPECT_EQ(Files::mode(real), 0640u) << agent.name;

    fs::remove_all(real.parent_path());  // the link now leads nowhere
    EXPECT_TRUE(agent.install(binary)) << agent.name;
    EXPECT_TRUE(fs::is_symlink(path)) << agent.name;
    EXPECT_FALSE(readFile(real).object("hooks").empty()) << agent.name;
  }
}

TEST(CursorInstaller, RegistersItsEventsInANewFile) {
  Sandbox sandbox;
  ASSERT_TRUE(CursorAdapter::install(binary));
  const Json::Object file = readFile(cursorFile(sandbox));
  EXPECT_EQ(namesOf(file), (std::set<std::string>{"hooks", "version"}));
  EXPECT_EQ(text(*file.find("version")), "1");
  EXPECT_EQ(
      namesOf(file.object("hooks")),
      (std::set<std::string>{"sessionStart", "beforeSubmitPrompt", "preToolUse", "postToolUse",
                             "beforeShellExecution", "afterShellExecution", "beforeMCPExecution",
                             "afterAgentResponse", "subagentStart", "subagentStop", "stop", "sessionEnd"}));
  for (const auto& [event, entries] : file.object("hooks"))
    EXPECT_EQ(entries, Json(Json::Array{Json::Object{{"command", cursorCommand}}})) << event;
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
      {"another tool's entry stays as it is", R"([{"command":"lint","timeout":5}])",
       R"([{"command":"lint","timeout":5}])"},
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
  };
  for (const auto& row : rows) {
    Sandbox sandbox;
    const std::string before = std::string(R"({"version":1,"hooks":{"preToolUse":)") + row.before +
                               R"(,"beforeTabFileRead":)" + row.before + "}}";
    sandbox.write(cursorFile(sandbox), before);
    ASSERT_TRUE(CursorAdapter::install(binary));

    const Json::Object hooks = readFile(cursorFile(sandbox)).object("hooks");
    Json::Array others = hooks.list("preToolUse");
    ASSERT_FALSE(others.empty()) << row.sentence;
    EXPECT_EQ(others.back(), Json(Json::Object{{"command", cursorCommand}})) << row.sentence;
    others.pop_back();
    EXPECT_EQ(others.empty() ? "" : text(others), row.after) << row.sentence;
    const Json* foreign = hooks.find("beforeTabFileRead");
    EXPECT_EQ(foreign ? text(*foreign) : "", row.after) << row.sentence;

    const auto copy = Files::read(cursorFile(sandbox) + ".bak");
    EXPECT_EQ(copy, row.losesContent ? std::optional(before) : std::nullopt) << row.sentence;
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
  };
  for (const std::string before : rows) {
    Sandbox sandbox;
    sandbox.write(cursorFile(sandbox), before);
    sandbox.write(cursorFile(sandbox) + ".bak", "the user's own copy");
    fs::permissions(cursorFile(sandbox), fs::perms(0644));
    ASSERT_TRUE(CursorAdapter::install(binary)) << before;
    EXPECT_EQ(contentOf(cursorFile(sandbox) + ".bak"), "the user's own copy");
    EXPECT_EQ(contentOf(cursorFile(sandbox) + ".bak.2"), before);
    EXPECT_EQ(Files::mode(cursorFile(sandbox) + ".bak.2"), 0644u);

    const std::string after = contentOf(cursorFile(sandbox));
    EXPECT_EQ(namesOf(parsed(after)), (std::set<std::string>{"hooks", "version"})) << before;
    EXPECT_EQ(text(*parsed(after).find("version")), "1") << before;
    EXPECT_EQ(parsed(after).object("hooks").size(), 12u) << before;
    EXPECT_TRUE(CursorAdapter::install(binary));
    EXPECT_EQ(contentOf(cursorFile(sandbox)), after);
    EXPECT_FALSE(Files::exists(cursorFile(sandbox) + ".bak.3")) << before;
  }
}

TEST(CopilotInstaller, ReplacesItsFileWhole) {
  Sandbox sandbox;
  sandbox.write(copilotFile(sandbox), R"({"version":3,"hooks":{"stop":[{"command":"mine"}]},"note":1})");
  sandbox.write(sandbox.home() + "/.copilot/hooks/other.json", "{}");
  ASSERT_TRUE(CopilotAdapter::install(binary));
  Json::Object file = readFile(copilotFile(sandbox));
  EXPECT_EQ(namesOf(file), (std::set<std::string>{"disableAllHooks", "hooks", "version"}));
  EXPECT_EQ(text(*file.find("version")), "1");
  EXPECT_EQ(text(*file.find("disableAllHooks")), "false");
  EXPECT_EQ(namesOf(file.object("hooks")),
            (std::set<std::string>{"sessionStart", "userPromptSubmitted", "preToolUse", "postToolUse",
                                   "postToolUseFailure", "subagentStart", "subagentStop", "agentStop",
                                   "sessionEnd", "notification"}));
  for (const auto& [event, entries] : file.object("hooks"))
    EXPECT_EQ(entries, Json(Json::Array{Json::Object{{"type", "command"}, {"command", copilotCommand}}}))
        << event;
  EXPECT_EQ(contentOf(sandbox.home() + "/.copilot/hooks/other.json"), "{}");
}

}  // namespace
