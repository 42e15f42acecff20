// Files that fail, hostile input, and what an event takes of the machine: the agent is answered all the same,
// and no file is lost, torn or put where it does not belong.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "Hook/Agents/ClaudeInstaller.h"
#include "Hook/Agents/CopilotAdapter.h"
#include "Hook/Agents/CursorAdapter.h"
#include "Hook/ControlPlane/ActivityLog.h"
#include "Hook/Guard/HookHandler.h"
#include "Hook/State/SessionStore.h"
#include "Hook/Transcript/LLMCallDedupe.h"
#include "Platform/Files.h"
#include "Platform/Log.h"
#include "Platform/Process.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionFixture.h"
#include "Tests/Support/Table.h"

namespace fs = std::filesystem;

namespace {

class FileFaults : public SessionFixture {
 protected:
  FileFaults() { sandbox.write(sandbox.root() + "/transcript", transcriptOf(3)); }

  std::vector<Json::Object> events() const {
    return everyEvent(sandbox.project(), sandbox.root() + "/transcript");
  }

  static void expectAnswer(const Sandbox::Result& result, const std::string& about) {
    EXPECT_EQ(result.status, 0) << about;
    EXPECT_EQ(result.error, "") << about;
    const auto object = Json::parseObject(result.output);
    EXPECT_EQ(object ? Json(*object).compact() : "one compact object", result.output) << about;
  }

  void play(const std::string& about) {
    for (const Json::Object& each : events())
      expectAnswer(sandbox.run({}, each), about + ": " + each.text("hook_event_name"));
  }

  void expectNoTemporaryFile(const std::string& directory) {
    for (const std::string& name : Sandbox::tree(directory))
      EXPECT_EQ(name.find(Files::temporaryPrefix), name.npos) << "a temporary file was left";
  }

  // Whether the next event's first line in the log is one of its own, however the last one ended.
  bool nextLineIsWhole(const std::string& log) {
    const std::string before = contentOf(log);
    EXPECT_EQ(sandbox.run({}, event("UserPromptSubmit")).status, 0);
    return contentOf(log).substr(before.size()).starts_with(before.ends_with('\n') ? "{" : "\n{");
  }

  void configureByEnvironment(const std::string& home) {
    sandbox.set("HOME", home);
    sandbox.set("OBRISK_API_URL", plane.url());
    sandbox.set("OBRISK_API_KEY", "key");
  }
};

using HostileInput = FileFaults;

TEST_F(FileFaults, AHomeOrAStateDirectoryThatIsNoneLosesNothing) {
  const std::string home = sandbox.root() + "/other", state = sandbox.state();
  configureByEnvironment(home);
  const std::string transcript = contentOf(sandbox.root() + "/transcript");
  // Where, below the sandbox, and what a shell puts there.
  for (const auto& row : rows(R"(
    other                                  ¦ true
    other                                  ¦ printf kept >
    other                                  ¦ ln -s other
    other/.obrisk/logs                     ¦ printf kept >
    other/.obrisk/logs                     ¦ ln -s ../../beside
    other/.obrisk/logs/hook.activity.jsonl ¦ mkdir
    other/.obrisk/logs/hook.activity.jsonl ¦ mkfifo
    other/.obrisk/logs/hook.activity.jsonl ¦ ln -s /dev/full
    other/.obrisk/config                   ¦ mkdir
    other/.obrisk/cc-dedupe                ¦ printf kept >
    state                                  ¦ printf kept >
    state                                  ¦ ln -s beside
    state                                  ¦ ln -s state
    state                                  ¦ ln -s transcript
    state                                  ¦ ln -s /dev/null
  )")) {
    const std::string place = sandbox.root() + "/" + row[0], about = row[0] + ": " + row[1];
    Process::run("/bin/sh", {"-c", "mkdir -p \"$(dirname " + place + ")\"; " + row[1] + " " + place});
    const auto before = fs::symlink_status(place).type();
    const auto completed = plane.requests("*/complete/").size();
    play(about);
    // Without a state directory a session's end is that of an unknown one.
    EXPECT_EQ(plane.requests("*/complete/").size() - completed, row[0] == "state" ? 0u : 1u) << about;
    if (row[1] != "true") {
      EXPECT_EQ(fs::symlink_status(place).type(), before) << about;
    }
    if (before == fs::file_type::regular) {
      EXPECT_EQ(contentOf(place), "kept") << about;
    }
    EXPECT_FALSE(Files::exists(sandbox.root() + "/beside")) << about;
    for (const std::string& each : {home, state})
      fs::remove_all(each);
  }
  EXPECT_EQ(contentOf(sandbox.root() + "/transcript"), transcript);
}

// The root of the file system, where "/.obrisk" would be, is the sandbox; no user database is there.
TEST_F(FileFaults, AHomeThatNobodyKnowsIsNotTheRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a process another root";
  const std::string directory = sandbox.root() + "/.obrisk/";
  sandbox.write(directory + "config", "[claude-code]\napi_url = http://u\napi_key = k\n");
  sandbox.write(directory + "guard.json", R"({"git_block_hard_reset":false})");
  sandbox.write(directory + "cc-dedupe/run.json", R"(["a"])");
  const auto before = Sandbox::tree(sandbox.root());
  for (const bool isSet : {false, true}) {
    EXPECT_TRUE(inChildProcess([&] {
      if (::chroot(sandbox.root().c_str()) != 0 || ::chdir("/project") != 0) return false;
      isSet ? sandbox.set("HOME", "") : sandbox.unset("HOME");
      ActivityLog::record("POST", "http://u", 200, 1, 2, "", std::nullopt);
      Log::Category{"hook"}.error("a message");
      LLMCallDedupe::save("other", {"a"});
      return !ObriskHookConfig::load(std::nullopt, "claude", "none").isConfigured() &&
             LLMCallDedupe::load("run").empty() &&
             HookHandler::loadEffectiveConfig("").git_block_hard_reset &&
             !CursorAdapter::install("/quib-hook") && !CopilotAdapter::install("/quib-hook") &&
             !ClaudeInstaller::install("/quib-hook");
    })) << isSet;
    EXPECT_EQ(Sandbox::tree(sandbox.root()), before);
  }
}

TEST_F(FileFaults, AnotherUsersDirectories) {
  // The executable may lie where only this user finds it.
  bool reachable = ::geteuid() == 0;
  for (fs::path each = QUIB_HOOK_EXECUTABLE; each != each.parent_path(); each = each.parent_path())
    reachable = reachable && (fs::status(each).permissions() & fs::perms::others_exec) != fs::perms::none;
  if (!reachable) GTEST_SKIP() << "only root, with an executable that others reach, can become another";
  sandbox.configure(plane.url());
  ASSERT_FALSE(Files::makeDirectories(sandbox.state()));
  sandbox.write(sandbox.stateFile("other"), "kept");
  for (const char* path : {"", "/home", "/home/.obrisk", "/home/.obrisk/config", "/state"})
    fs::permissions(sandbox.root() + path, fs::perms(0755));
  sandbox.inChild = [] {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(126);
  };
  play("a home and a state directory of another user");
  EXPECT_EQ(Sandbox::tree(sandbox.state()), words("other.json"));
  EXPECT_EQ(contentOf(sandbox.stateFile("other")), "kept");
  EXPECT_EQ(Sandbox::tree(sandbox.home()), words(".obrisk .obrisk/config"));
}

// The signal that a file beyond its limit raises would end the process unanswered.
TEST_F(FileFaults, AFileSizeLimitEndsNeitherTheProcessNorAFile) {
  sandbox.configure(plane.url());
  for (const rlim_t bytes : {200, 300, 400, 600}) {
    ASSERT_FALSE(SessionStore::save(started()));
    sandbox.inChild = [bytes] {
      const rlimit limit{bytes, bytes};
      ::signal(SIGXFSZ, SIG_DFL);
      ::setrlimit(RLIMIT_FSIZE, &limit);
    };
    for (const Json::Object& each : events()) {
      const std::string name = each.text("hook_event_name");
      const bool stays = SessionStore::load("s") && name != "Stop" && name != "SessionEnd";
      expectAnswer(sandbox.run({}, each), name);
      EXPECT_TRUE(SessionStore::load("s") || !stays) << "the record was lost over " << name;
    }
    expectNoTemporaryFile(sandbox.state());
    sandbox.inChild = nullptr;
    EXPECT_TRUE(nextLineIsWhole(sandbox.activityLog())) << bytes;
    fs::remove_all(sandbox.home() + "/.obrisk/logs");
  }
}

TEST_F(FileFaults, AFullDiskKeepsTheOldRecordAndWholeLines) {
  const std::string disk = sandbox.root() + "/disk", log = disk + "/.obrisk/logs/hook.activity.jsonl";
  fs::create_directory(disk);
  if (::geteuid() != 0 || ::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k") != 0)
    GTEST_SKIP() << "only root, where it may mount, can fill a disk of its own";
  const std::shared_ptr<const char> mounted(disk.c_str(),
                                            [](const char* path) { ::umount2(path, MNT_DETACH); });
  configureByEnvironment(disk);
  sandbox.set("OBRISK_CC_STATE_DIR", disk + "/state");
  ASSERT_FALSE(SessionStore::save(started()));
  // The log keeps part of a page, so that a line ends torn when the disk is full.
  sandbox.write(log, "{" + std::string(3800, ' ') + "}\n");
  for (int number = 0; Files::append(disk + "/fill", std::string(4095, 'x') + "\n") && number < 32;
       ++number) {
  }
  for (int round = 0; round < 4; ++round) {
    EXPECT_EQ(sandbox.run({}, event("UserPromptSubmit", {{"prompt", "p"}})).output, R"({"continue":true})");
    EXPECT_EQ(stored().session_id, "s");
  }
  fs::remove(disk + "/fill");
  EXPECT_TRUE(nextLineIsWhole(log));
  EXPECT_EQ(stored().span_count, 1);
  expectNoTemporaryFile(disk);
}

// One damage at random.
std::string damaged(std::string text, std::mt19937& random) {
  const auto at = random() % text.size();
  switch (random() % 4) {
    case 0:
      return text.substr(0, at);
    case 1:
      text[at] = static_cast<char>(random());
      return text;
    case 2:
      return text.insert(at, std::string(1 + random() % 3, static_cast<char>(random())));
    default:  // a value of another kind in place of a string
      const auto values = words("null [] {} 1e999 -9223372036854775809 true");
      const auto colon = text.find(":\"", at);
      const auto end = colon == text.npos ? text.npos : text.find('"', colon + 2);
      return end == text.npos ? text : text.replace(colon + 1, end - colon, values[random() % values.size()]);
  }
}

TEST_F(HostileInput, EveryDamagedEventOfEveryAgentHasItsAnswer) {
  std::vector<std::string> seeds;
  for (const Json::Object& each : events())
    seeds.push_back(Json(each).compact());
  const std::string corpus = QUIB_SOURCE_DIR "/Fuzz/Corpus/Event";
  for (const std::string& name : Files::list(corpus))
    seeds.push_back(contentOf(corpus + "/" + name).substr(1));
  std::mt19937 random{1};
  for (const std::string& seed : seeds)
    for (const std::string& app : words("claude cursor copilot")) {
      const std::string input = damaged(seed, random);
      EXPECT_TRUE(SessionStore::load("s") || !SessionStore::save(started()));
      expectAnswer(sandbox.run({"--app", app}, input), app + " " + input);
    }
}

TEST_F(HostileInput, AProcessThatMayOpenNoFileStillAnswers) {
  sandbox.configure(plane.url(), "reviewer");
  ASSERT_FALSE(SessionStore::save(started()));
  std::vector<pid_t> processes;  // all at once: they wait for their retries
  const auto pathOf = [&](rlim_t files) { return sandbox.root() + "/process-" + std::to_string(files); };
  for (rlim_t files = 3; files < 15; ++files) {
    sandbox.inChild = [files] {
      const rlimit limit{files, files};
      ::setrlimit(RLIMIT_NOFILE, &limit);
    };
    const std::string path = pathOf(files);
    sandbox.write(path, Json(events()[files]).compact());
    processes.push_back(sandbox.start({}, path, path + "-out", path + "-err"));
  }
  for (rlim_t files = 3; files < 15; ++files) {
    int status = 0;
    ::waitpid(processes[files - 3], &status, 0);
    // Below what the loader needs no program starts.
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127 && files < 5) continue;
    expectAnswer({status, contentOf(pathOf(files) + "-out"), contentOf(pathOf(files) + "-err")},
                 std::to_string(files) + " descriptors");
  }
}

TEST_F(HostileInput, AnIdentifierThatIsAPathLeavesEveryFileAloneThatIsNoSession) {
  const std::string precious = sandbox.home() + "/precious.json";
  sandbox.write(precious, R"({"precious":true})");
  for (const char* id : {"../home/precious", "/etc/passwd", ".", "..", "a/../../home/precious", "\x01", ""})
    for (const std::string& name : words("Stop SessionEnd SessionStart SubagentStart")) {
      Json::Object each = event(name);
      each.set("session_id", id);
      expectAnswer(sandbox.run({}, each), id);
    }
  EXPECT_EQ(contentOf(precious), R"({"precious":true})");
}

}  // namespace
