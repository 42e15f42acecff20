#include <gtest/gtest.h>

#include <filesystem>

#include "Hook/Agents/ClaudeInstaller.h"
#include "Hook/Agents/CopilotAdapter.h"
#include "Hook/Agents/CursorAdapter.h"
#include "Platform/Files.h"
#include "Platform/Process.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

namespace {

namespace fs = std::filesystem;

const std::string binary = "/opt/tools/quib-hook";

// `text` with every "@" replaced.
std::string filled(std::string text, const std::string& value) {
  for (std::size_t at = text.find('@'); at != text.npos; at = text.find('@', at + value.size()))
    text.replace(at, 1, value);
  return text;
}

std::string shell(const std::string& command) {
  return Process::run("/bin/sh", {"-c", command}).value_or("");
}

Json::Object hooksIn(const std::string& path) {
  return parsed(contentOf(path)).object("hooks");
}

struct Agent {
  std::string app, name, place;
  bool (*install)(const std::string& binaryPath);
  const char* file;    // without the hooks
  const char* entry;   // "@": the executable
  const char* events;  // "*": of tools, their entries match every tool

  fs::path path(const Sandbox& sandbox) const { return sandbox.home() + place; }

  // The file for this executable when there was none.
  std::string fresh(const std::string& executable) const {
    Json::Object content = parsed(file), hooks;
    for (const std::string& event : words(events)) {
      Json::Object own = parsed(filled(entry, executable));
      if (event.ends_with('*')) own.set("matcher", "*");
      hooks.set(event.substr(0, event.find('*')), Json::Array{own});
    }
    content.set("hooks", std::move(hooks));
    return Json(content).pretty() + (app == "claude" ? "\n" : "");
  }

  std::string failed(const std::string& why) const {
    return "error hook." + app + " failed to write ~" + place + ": " + why;
  }
};

const char* cursorEvents = R"(sessionStart beforeSubmitPrompt preToolUse postToolUse beforeShellExecution
  afterShellExecution beforeMCPExecution afterAgentResponse subagentStart subagentStop stop sessionEnd)";
const char* copilotEvents = R"(sessionStart userPromptSubmitted preToolUse postToolUse postToolUseFailure
  subagentStart subagentStop agentStop sessionEnd notification)";
const char* claudeEvents = R"(ConfigChange CwdChanged Elicitation ElicitationResult FileChanged Notification
  InstructionsLoaded PermissionDenied* PermissionRequest* PostCompact PostToolUse* PostToolUseFailure*
  PreCompact PreToolUse* SessionEnd SessionStart Stop StopFailure SubagentStart SubagentStop TaskCompleted
  TaskCreated TeammateIdle UserPromptSubmit WorktreeRemove)";
const Agent cursor{"cursor",
                   "Cursor",
                   "/.cursor/hooks.json",
                   CursorAdapter::install,
                   R"({"version":1})",
                   R"({"command":"'@' --app cursor --profile cursor"})",
                   cursorEvents};
const Agent copilot{"copilot",
                    "Copilot",
                    "/.copilot/hooks/obrisk.json",
                    CopilotAdapter::install,
                    R"({"version":1,"disableAllHooks":false})",
                    R"({"type":"command","command":"'@' --app copilot --profile copilot"})",
                    copilotEvents};
const Agent claude{"claude",
                   "Claude Code",
                   "/.claude/settings.json",
                   ClaudeInstaller::install,
                   "{}",
                   R"({"hooks":[{"type":"command","command":"'@'","timeout":1320}]})",
                   claudeEvents};
const Agent agents[] = {cursor, copilot, claude};

// The last diagnostics record.
std::string lastRecord(const Sandbox& sandbox) {
  const auto records = jsonLines(sandbox.diagnostics());
  if (records.empty()) return "";
  const Json::Object& last = records.back();
  return last.text("level") + " " + last.text("category") + " " + last.text("message");
}

TEST(Installers, RegisterTheirEventsOnce) {
  for (const Agent& agent : agents)
    for (const std::string executable : {binary.c_str(), "/opt/guard"}) {
      Sandbox sandbox;
      const fs::path path = agent.path(sandbox);
      if (agent.app == "copilot") sandbox.write(path, R"({"version":3,"hooks":5,"note":1})");
      for (int time = 0; time < 2; ++time) {
        ASSERT_TRUE(agent.install(executable)) << agent.name;
        EXPECT_EQ(contentOf(path), agent.fresh(executable));
      }
      EXPECT_EQ(lastRecord(sandbox),
                "default hook." + agent.app + " installed " + agent.name + " hooks at " + path.string());
      EXPECT_EQ(Files::mode(path), 0600u) << agent.name;
      EXPECT_EQ(Files::list(path.parent_path()), std::vector<std::string>{path.filename()}) << agent.name;
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
      EXPECT_EQ(lastRecord(sandbox), agent.failed(why));
      EXPECT_FALSE(Files::exists(agent.path(sandbox))) << agent.name << ": " << why;
    }
}

// What is done to the file $f in its directory, and why it stays.
TEST(Installers, LeaveWhatCannotBeReplaced) {
  for (const Agent& agent : agents)
    for (const auto& row : rows(R"(
mkfifo $f      ¦ it is not a regular file
mkdir $f       ¦ it is not a regular file
ln -s "$PWD" $f ¦ it is not a regular file
ln -s $f $f    ¦ Too many levels of symbolic links
ln -s b $f; ln -s "$PWD/c" b; ln -s $f c ¦ Too many levels of symbolic links
d=$PWD; cd ..; rmdir "$d"; echo a file > "$d" ¦ Not a directory
)")) {
      Sandbox sandbox;
      const fs::path path = agent.path(sandbox), folder = path.parent_path();
      fs::create_directories(folder);
      shell("cd '" + folder.string() + "'; f=" + path.filename().string() + "; " + row[0]);
      const std::string kept = shell("ls -lAR '" + folder.string() + "'");
      const bool isRead = agent.app == "claude" && Files::exists(path);
      EXPECT_FALSE(agent.install(binary)) << agent.name << ": " << row[0];
      EXPECT_EQ(lastRecord(sandbox), agent.failed(isRead ? "the present file cannot be read" : row[1]));
      EXPECT_EQ(shell("ls -lAR '" + folder.string() + "'"), kept) << agent.name << ": " << row[0];
    }
}

TEST(Installers, KeepTheModeOfTheFileAndTheLinkToIt) {
  for (const Agent& agent : agents) {
    Sandbox sandbox;
    const fs::path path = agent.path(sandbox), real = sandbox.root() + "/dotfiles/hooks";
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

// Cursor's unreadable file is moved aside, Copilot's replaced, Claude Code's left.
TEST(Installers, LoseNothingThatTheyMayNotRead) {
  for (const Agent& agent : agents) {
    Sandbox sandbox;
    const bool installs = agent.app != "claude", keeps = agent.app != "copilot";
    const std::string path = agent.path(sandbox), kept = path + (installs && keeps ? ".bak" : "");
    sandbox.write(path, "{\"mine\":1}");
    fs::permissions(path, fs::perms::none);
    EXPECT_EQ(sandbox.asOwner([&] { return agent.install(binary); }), installs) << agent.name;
    EXPECT_EQ(sandbox.asOwner([&] { return Files::read(path).has_value(); }), installs) << agent.name;
    fs::permissions(kept, fs::perms::owner_read);
    EXPECT_EQ(contentOf(kept) == "{\"mine\":1}", keeps) << agent.name;
  }
}

// "list": the list of an event, registered here or not, and what is kept of it; "file": a whole file, of
// which nothing is kept. "copied": that loses something.
TEST(CursorInstaller, KeepsTheEntriesOfOtherToolsAndCopiesWhatItLoses) {
  for (const auto& row : rows(R"(
list ¦ [{"command":"/l","n":5,"s":"\uD83D\uDE00 \u0001�"}] ¦ [{"command":"\/l","n":5,"s":"😀 \u0001�"}] ¦ ∅
list ¦ [{"command":"a"},{"command":"/b/quib-hook -x"},{"command":"c"}] ¦ [{"command":"a"},{"command":"c"}]
list ¦ [{"command":"'/x/quib-hook-2' --profile y"}]
list ¦ [{"command":"Quib-Hook"}] ¦ [{"command":"Quib-Hook"}]
list ¦ [{"command":["quib-hook"]},{"prompt":"quib-hook"}] ¦ [{"command":["quib-hook"]},{"prompt":"quib-hook"}]
list ¦ []
list ¦ "quib"                    ¦ ∅ ¦ copied
list ¦ [{"command":"a"},"b"]     ¦ ∅ ¦ copied
list ¦ [{"n":[12345678901234567890]}] ¦ [{"n":[12345678901234567168]}] ¦ copied
list ¦ [{"n":1e400}]             ¦ [{"n":1.7976931348623157e+308}] ¦ copied
list ¦ [{"s":"\ud800�"}]         ¦ [{"s":"��"}] ¦ copied
list ¦ [{"\udfff":1}]            ¦ [{"�":1}]    ¦ copied
list ¦ [{"a":1,"\u0061":2}]      ¦ [{"a":2}]    ¦ copied
file ¦ {}
file ¦ ∅                         ¦ ∅ ¦ copied
file ¦ {"version":1,"hooks":{},  ¦ ∅ ¦ copied
file ¦ // comments␊{}            ¦ ∅ ¦ copied
file ¦ ["hooks"]                 ¦ ∅ ¦ copied
file ¦ {"hooks":["mine"]}        ¦ ∅ ¦ copied
file ¦ {"note":"no hooks"}       ¦ ∅ ¦ copied
file ¦ {"version":2,"hooks":{}}  ¦ ∅ ¦ copied
file ¦ {"version":1,"hooks":{},"note":"mine"} ¦ ∅ ¦ copied
file ¦ {"version":1,"hooks":{"stop":[{"command":"mine"}]},"hooks":{}} ¦ ∅ ¦ copied
)")) {
    Sandbox sandbox;
    const std::string path = cursor.path(sandbox);
    const char* lists = R"({"version":1,"hooks":{"preToolUse":@,"beforeTabFileRead":@}})";
    const std::string before = row[0] == "list" ? filled(lists, row[1]) : row[1];
    Json::Object expected = parsed(cursor.fresh(binary)), hooks = expected.object("hooks");
    if (!row[2].empty()) {
      Json::Array kept = *Json::parse(row[2])->asList();
      hooks.set("beforeTabFileRead", kept);
      kept.push_back(hooks.list("preToolUse")[0]);
      hooks.set("preToolUse", kept);
    }
    expected.set("hooks", hooks);
    sandbox.write(path, before);
    sandbox.write(path + ".bak", "the user's own copy");
    fs::permissions(path, fs::perms(0644));
    for (int time = 0; time < 2; ++time) {
      ASSERT_TRUE(CursorAdapter::install(binary)) << before;
      EXPECT_EQ(contentOf(path), Json(expected).pretty()) << before;
    }
    EXPECT_EQ(contentOf(path + ".bak"), "the user's own copy");
    EXPECT_EQ(Files::read(path + ".bak.2"), row[3].empty() ? std::nullopt : std::optional(before)) << before;
    EXPECT_EQ(Files::mode(path + ".bak.2").value_or(0644), 0644u);
    EXPECT_FALSE(Files::exists(path + ".bak.3")) << before;
  }
}

// "list": the list of an event that is not registered here, and what is kept of it ("=": every byte); "file":
// a whole file, and what it begins and ends with, "@" for what is written; "left": a file that stays, and
// why.
TEST(ClaudeInstaller, LeavesEveryOtherByteOfTheFile) {
  for (const auto& row : rows(R"(
list ¦ [{"matcher":"Bash","hooks":[{"type":"command","command":"/lint"}]}] ¦ =
list ¦ [{"hooks":[{"command":"quib-hook"},1.0],"":2}] ¦ [␊      {"hooks":[␊          1.0␊        ],"":2}␊    ]
list ¦ [{"hooks":[7]} , {"hooks":[{"command":"/a/quib-hook --x"}]}] ¦ [␊      {"hooks":[7]}␊    ]
list ¦ [{"hooks":[{"command":"/a/quib-hook"}]}] ¦ []
list ¦ [{"hooks":[]},{}]                        ¦ =
list ¦ [ ]                                      ¦ =
list ¦ ["quib-hook",{"hooks":"quib-hook"},{"hooks":["quib-hook",{"command":7}]}] ¦ =
list ¦ [{"n":[9223372036854775808,1e400,0.10],"s":"\ud800\/ ]}\"","d":1, "d":[{}, 2]}] ¦ =
list ¦ [1,[],"WorktreeCreate"],"WorktreeCreate":[] ¦ =
file ¦ {}                                       ¦ {␊  "hooks": @␊}
file ¦ ␠{ ␊ } ␊␠                                ¦ ␠{␊  "hooks": @␊} ␊␠
file ¦ {"a":1}                                  ¦ {"a":1,␊  "hooks": @}
file ¦ {␊␉"a":[1e5, 98765432109876543210, 0.10]␊}␊ ¦ {␊␉"a":[1e5, 98765432109876543210, 0.10],␊  "hooks": @␊}␊
file ¦ {"a":"\ud800 \"}","hooks" : { } ,"b":"x\\"} ¦ {"a":"\ud800 \"}","hooks" : @ ,"b":"x\\"}
file ¦ {"hooks":{},"b":-1E400 , "c":{"hooks":{"Stop":5}}} ¦ {"hooks":@,"b":-1E400 , "c":{"hooks":{"Stop":5}}}
file ¦ {"a":{"b":["]}",{}]},"h\u006foks":{}}    ¦ {"a":{"b":["]}",{}]},"h\u006foks":@}
file ¦ {"hooks":1,"a":null,"hooks":{}}          ¦ {"hooks":1,"a":null,"hooks":@}
file ¦ {"a":true␊,"b":false}                    ¦ {"a":true␊,"b":false,␊  "hooks": @}
file ¦ {"hooks":{"Stop":[{"hooks":[{"command":"quib-hook"}]},7]}} ¦ {"hooks":{"Stop":[␊      7,␊      @}}
left ¦ ∅                                        ¦ the present file is not a JSON object
left ¦ {"hooks":{},}                            ¦ the present file is not a JSON object
left ¦ [{"hooks":{}}]                           ¦ the present file is not a JSON object
left ¦ {"hooks":[]}                             ¦ its "hooks" is not an object
left ¦ {"hooks":null}                           ¦ its "hooks" is not an object
left ¦ {"hooks":{"Stop":{"command":"a"}}}       ¦ an event in its "hooks" has no list
left ¦ {"hooks":{"NoSuchEvent":"a"}}            ¦ an event in its "hooks" has no list
)")) {
    Sandbox sandbox;
    const fs::path path = claude.path(sandbox);
    const bool isList = row[0] == "list", isLeft = row[0] == "left";
    const std::string start = R"({"hooks":{"WorktreeCreate":)",
                      before = isList ? start + row[1] + "}}" : row[1];
    const std::string after = isList ? start + (row[2] == "=" ? row[1] : row[2]) + ",\n@}}" : row[2];
    sandbox.write(path, before);
    EXPECT_EQ(ClaudeInstaller::install(binary), !isLeft) << before;
    const std::string first = contentOf(path);
    if (isLeft) {
      EXPECT_EQ(first, before);
      EXPECT_EQ(lastRecord(sandbox), claude.failed(row[2]));
    } else {
      EXPECT_TRUE(first.starts_with(after.substr(0, after.find('@')))) << first;
      EXPECT_TRUE(first.ends_with(after.substr(after.find('@') + 1))) << first;
      EXPECT_EQ(hooksIn(path).size(), isList ? 26u : 25u) << first;
      EXPECT_TRUE(ClaudeInstaller::install(binary));
      EXPECT_EQ(contentOf(path), first);
    }
    EXPECT_EQ(Files::list(path.parent_path()), std::vector<std::string>{"settings.json"}) << before;
  }
}

}  // namespace
