// A home, a state directory and a disk that fail: the agent is answered all the same, and no file is lost,
// torn or put where it does not belong.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "Hook/Agents/ClaudeInstaller.h"
#include "Hook/Agents/CopilotAdapter.h"
#include "Hook/Agents/CursorAdapter.h"
#include "Hook/ControlPlane/ActivityLog.h"
#include "Hook/Guard/HookHandler.h"
#include "Hook/State/SessionStore.h"
#include "Hook/Transcript/LLMCallDedupe.h"
#include "Platform/Files.h"
#include "Platform/Log.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionFixture.h"

namespace fs = std::filesystem;

namespace {

class FileFaults : public SessionFixture {
 protected:
  FileFaults() { sandbox.write(sandbox.root() + "/transcript", transcriptOf(1)); }

  std::vector<Json::Object> events() const {
    return everyEvent(sandbox.project(), sandbox.root() + "/transcript");
  }

  // Plays every event; each must be answered as it would be with nothing wrong but the files.
  void play(const char* about) {
    for (const Json::Object& each : events()) {
      const auto result = sandbox.run({}, each);
      EXPECT_EQ(result.status, 0) << about << ": " << each.text("hook_event_name");
      EXPECT_TRUE(Json::parseObject(result.output)) << about << ": " << each.text("hook_event_name");
      EXPECT_EQ(result.error, "") << about;
    }
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

TEST_F(FileFaults, AHomeOrAStateDirectoryThatIsNoneLosesNothing) {
  const std::string home = sandbox.root() + "/other", state = sandbox.state(),
                    beside = sandbox.root() + "/beside";
  const std::string logs = home + "/.obrisk/logs", log = logs + "/hook.activity.jsonl";
  const auto file = [this](const std::string& path) { sandbox.write(path, "kept"); };
  const auto directory = [](const std::string& path) { fs::create_directories(path); };
  const auto linkTo = [](const std::string& target) {
    return [target](const fs::path& path) {
      fs::create_directories(path.parent_path());
      fs::create_symlink(target, path);
    };
  };
  const auto fifo = [](const fs::path& path) {
    fs::create_directories(path.parent_path());
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  };
  const struct {
    const char* name;
    std::string place;
    std::function<void(const std::string& path)> damage;
  } rows[] = {
      {"no home", home, [](const std::string&) {}},
      {"a home that is a file", home, file},
      {"a home that links to itself", home, linkTo(home)},
      {"a file where the logs go", logs, file},
      {"a dangling link where the logs go", logs, linkTo(beside)},
      {"a directory where the log goes", log, directory},
      {"a FIFO that nobody reads where the log goes", log, fifo},
      {"a full device where the log goes", log, linkTo("/dev/full")},
      {"a directory where the profiles are", home + "/.obrisk/config", directory},
      {"a file where the record of calls goes", home + "/.obrisk/cc-dedupe", file},
      {"a state directory that is a file", state, file},
      {"a state directory that is a dangling link", state, linkTo(beside)},
      {"a state directory that links to itself", state, linkTo(state)},
      {"a state directory that links to a file", state, linkTo(sandbox.root() + "/transcript")},
      {"a state directory that is a device", state, linkTo("/dev/null")},
  };
  configureByEnvironment(home);
  const std::string transcript = contentOf(sandbox.root() + "/transcript");
  for (const auto& [name, place, damage] : rows) {
    damage(place);
    const auto before = fs::symlink_status(place).type();
    const auto completed = plane.requests("*/complete/").size();
    play(name);
    // Without a state directory a session's end is that of an unknown one.
    EXPECT_EQ(plane.requests("*/complete/").size() - completed, place == state ? 0u : 1u) << name;
    if (before != fs::file_type::not_found) {
      EXPECT_EQ(fs::symlink_status(place).type(), before) << name;
    }
    if (before == fs::file_type::regular) {
      EXPECT_EQ(contentOf(place), "kept") << name;
    }
    EXPECT_FALSE(Files::exists(beside)) << name;
    for (const std::string& each : {home, state})
      fs::remove_all(each);
  }
  EXPECT_EQ(contentOf(sandbox.root() + "/transcript"), transcript);
}

// The root of the file system, where "/.obrisk" would be, is the sandbox; no user database is there.
TEST_F(FileFaults, AHomeThatNobodyKnowsIsNotTheRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a process another root";
  sandbox.write(sandbox.root() + "/.obrisk/config", "[claude-code]\napi_url = http://u\napi_key = k\n");
  sandbox.write(sandbox.root() + "/.obrisk/guard.json", R"({"git_block_hard_reset":false})");
  sandbox.write(sandbox.root() + "/.obrisk/cc-dedupe/run.json", R"(["a"])");
  const auto before = Sandbox::tree(sandbox.root());
  for (const char* home : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_TRUE(inChildProcess([&] {
      if (::chroot(sandbox.root().c_str()) != 0 || ::chdir("/project") != 0) return false;
      home ? sandbox.set("HOME", home) : sandbox.unset("HOME");
      ActivityLog::record("POST", "http://u", 200, 1, 2, "", std::nullopt);
      Log::Category{"hook"}.error("a message");
      LLMCallDedupe::save("other", {"a"});
      return !ObriskHookConfig::load(std::nullopt, "claude", "none").isConfigured() &&
             LLMCallDedupe::load("run").empty() &&
             HookHandler::loadEffectiveConfig("").git_block_hard_reset &&
             !CursorAdapter::install("/quib-hook") && !CopilotAdapter::install("/quib-hook") &&
             !ClaudeInstaller::install("/quib-hook");
    })) << (home ? "empty" : "not set");
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
  for (const std::string& path : {sandbox.root(), sandbox.home(), sandbox.home() + "/.obrisk",
                                  sandbox.home() + "/.obrisk/config", sandbox.state()})
    fs::permissions(path, fs::perms(0755));
  sandbox.inChild = [] {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(126);
  };
  play("a home and a state directory of another user");
  EXPECT_EQ(Sandbox::tree(sandbox.state()), std::vector<std::string>{"other.json"});
  EXPECT_EQ(contentOf(sandbox.stateFile("other")), "kept");
  EXPECT_EQ(Sandbox::tree(sandbox.home()), (std::vector<std::string>{".obrisk", ".obrisk/config"}));
}

// The signal that a file beyond its limit raises would end the process unanswered.
TEST_F(FileFaults, AFileSizeLimitEndsNeitherTheProcessNorAFile) {
  sandbox.configure(plane.url());
  for (rlim_t bytes : {200, 300, 400, 600}) {
    ASSERT_FALSE(SessionStore::save(started()));
    sandbox.inChild = [bytes] {
      const rlimit limit{bytes, bytes};
      ::signal(SIGXFSZ, SIG_DFL);
      ::setrlimit(RLIMIT_FSIZE, &limit);
    };
    for (const Json::Object& each : events()) {
      const bool known = SessionStore::load("s").has_value();
      const auto result = sandbox.run({}, each);
      EXPECT_EQ(result.status, 0) << bytes << each.text("hook_event_name");
      EXPECT_TRUE(Json::parseObject(result.output)) << bytes << each.text("hook_event_name");
      const bool ends =
          each.text("hook_event_name") == "Stop" || each.text("hook_event_name") == "SessionEnd";
      if (known && !ends) {
        EXPECT_TRUE(SessionStore::load("s")) << "the record was lost over " << each.text("hook_event_name");
      }
    }
    expectNoTemporaryFile(sandbox.state());
    sandbox.inChild = nullptr;
    EXPECT_TRUE(nextLineIsWhole(sandbox.activityLog())) << bytes;
    fs::remove_all(sandbox.home() + "/.obrisk/logs");
  }
}

// A file system of its own in memory, gone at the end of the scope.
class Disk {
 public:
  Disk(const std::string& path, const char* size) : path_(path) {
    fs::create_directory(path);
    mounted_ = ::geteuid() == 0 && ::mount("tmpfs", path.c_str(), "tmpfs", 0, size) == 0;
  }
  ~Disk() {
    if (mounted_) ::umount2(path_.c_str(), MNT_DETACH);
  }
  Disk(const Disk&) = delete;
  Disk& operator=(const Disk&) = delete;
  bool mounted() const { return mounted_; }

 private:
  std::string path_;
  bool mounted_ = false;
};

TEST_F(FileFaults, AFullDiskKeepsTheOldRecordAndWholeLines) {
  const std::string disk = sandbox.root() + "/disk";
  const Disk mount(disk, "size=64k");
  if (!mount.mounted()) GTEST_SKIP() << "only root, where it may mount, can fill a disk of its own";
  configureByEnvironment(disk);
  sandbox.set("OBRISK_CC_STATE_DIR", disk + "/state");
  ASSERT_FALSE(SessionStore::save(started()));
  const std::string log = disk + "/.obrisk/logs/hook.activity.jsonl";
  ASSERT_FALSE(Files::makeDirectories(disk + "/.obrisk/logs"));
  // The log keeps part of a page, so that a line ends torn when the disk is full.
  ASSERT_TRUE(Files::append(log, "{" + std::string(3800, ' ') + "}\n"));
  for (int number = 0; Files::append(disk + "/fill", std::string(4095, 'x') + "\n") && number < 32;
       ++number) {
  }
  for (int round = 0; round < 4; ++round) {
    const auto result = sandbox.run({}, event("UserPromptSubmit", {{"prompt", "p"}}));
    EXPECT_EQ(result.output, R"({"continue":true})");
    EXPECT_EQ(stored().session_id, "s");
  }
  fs::remove(disk + "/fill");
  EXPECT_TRUE(nextLineIsWhole(log));
  EXPECT_EQ(stored().span_count, 1);
  expectNoTemporaryFile(disk);
}

}  // namespace
