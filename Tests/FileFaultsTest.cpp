// A home, a state directory and a disk that fail: the agent is answered all the same, and no file is lost,
// torn or put where it does not belong.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "Hook/SessionStore.h"
#include "Platform/Files.h"
#include "Tests/Support/Events.h"
#include "Tests/Support/SessionFixture.h"

namespace fs = std::filesystem;

namespace {

constexpr uid_t nobody = 65534;

class FileFaults : public SessionFixture {
 protected:
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

  void become(uid_t user) {
    sandbox.inChild = [user] {
      if (::setgid(user) != 0 || ::setuid(user) != 0) ::_exit(126);
    };
  }

  bool mayBecomeAnother() const {
    // The executable may lie where only this user finds it.
    if (::geteuid() != 0) return false;
    for (fs::path each = QUIB_HOOK_EXECUTABLE; each != each.parent_path(); each = each.parent_path())
      if ((fs::status(each).permissions() & fs::perms::others_exec) == fs::perms::none) return false;
    return true;
  }

  void give(const std::string& path, uid_t user, mode_t mode) {
    ASSERT_EQ(::chown(path.c_str(), user, user), 0);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  }
};

TEST_F(FileFaults, AStateDirectoryThatIsNoneTakesNothingAndLosesNothing) {
  sandbox.configure(plane.url());
  const std::string state = sandbox.state(), beside = sandbox.root() + "/beside";
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"a file", [&] { sandbox.write(state, "kept"); }},
      {"a dangling link", [&] { fs::create_symlink(beside, state); }},
      {"a link to itself", [&] { fs::create_symlink(state, state); }},
      {"a link to a file",
       [&] {
         sandbox.write(beside, "kept");
         fs::create_symlink(beside, state);
       }},
      {"a device", [&] { fs::create_symlink("/dev/null", state); }},
  };
  for (const auto& [name, damage] : rows) {
    damage();
    const auto before = fs::symlink_status(state).type();
    play(name);
    EXPECT_EQ(fs::symlink_status(state).type(), before) << name;
    std::error_code ignored;
    if (fs::is_regular_file(state, ignored)) {
      EXPECT_EQ(contentOf(state), "kept") << name;
    }
    fs::remove(state);
    fs::remove(beside);
  }
}

TEST_F(FileFaults, ALinkInPlaceOfASessionsFileIsReplacedAndItsTargetKept) {
  sandbox.configure(plane.url());
  const std::string target = sandbox.root() + "/target";
  ASSERT_FALSE(SessionStore::save(started()));
  fs::rename(sandbox.stateFile("s"), target);
  fs::create_symlink(target, sandbox.stateFile("s"));
  const std::string before = contentOf(target);
  EXPECT_EQ(sandbox.run({}, event("UserPromptSubmit")).status, 0);
  EXPECT_EQ(contentOf(target), before);
  EXPECT_FALSE(fs::is_symlink(sandbox.stateFile("s")));
  EXPECT_EQ(stored().span_count, 1);
}

TEST_F(FileFaults, AHomeThatIsNoneOrMayNotBeWritten) {
  const std::string home = sandbox.root() + "/other";
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"missing", [&] {}},
      {"a file", [&] { sandbox.write(home, "kept"); }},
      {"a link to itself", [&] { fs::create_symlink(home, home); }},
      {"a file where the logs go", [&] { sandbox.write(home + "/.obrisk/logs", "kept"); }},
      {"a directory where the log goes",
       [&] { fs::create_directories(home + "/.obrisk/logs/hook.activity.jsonl"); }},
      {"a directory where the profiles are", [&] { fs::create_directories(home + "/.obrisk/config"); }},
      {"a directory where the record of calls goes", [&] { sandbox.write(home + "/.obrisk/cc-dedupe", ""); }},
  };
  sandbox.set("HOME", home);
  sandbox.set("OBRISK_API_URL", plane.url());
  sandbox.set("OBRISK_API_KEY", "key");
  sandbox.write(sandbox.root() + "/transcript", transcriptOf(1));
  for (const auto& [name, damage] : rows) {
    damage();
    const auto before = plane.requests("*/complete/").size();
    play(name);
    EXPECT_EQ(plane.requests("*/complete/").size(), before + 1) << name << ": not recorded as ever";
    fs::remove_all(home);
  }
}

TEST_F(FileFaults, AnotherUsersDirectories) {
  if (!mayBecomeAnother())
    GTEST_SKIP() << "only root, with an executable that others reach, can become another";
  sandbox.configure(plane.url());
  const std::string config = sandbox.home() + "/.obrisk/config";
  give(sandbox.root(), 0, 0755);
  give(sandbox.home(), 0, 0755);
  give(sandbox.home() + "/.obrisk", 0, 0755);
  give(config, 0, 0644);
  ASSERT_FALSE(Files::makeDirectories(sandbox.state()));
  give(sandbox.state(), 0, 0755);
  sandbox.write(sandbox.stateFile("other"), "kept");
  become(nobody);
  play("a home and a state directory of another user");
  EXPECT_EQ(Sandbox::tree(sandbox.state()), std::vector<std::string>{"other.json"});
  EXPECT_EQ(contentOf(sandbox.stateFile("other")), "kept");
  EXPECT_EQ(Sandbox::tree(sandbox.home()), (std::vector<std::string>{".obrisk", ".obrisk/config"}));
}

// The signal that a file beyond its limit raises would end the process unanswered.
TEST_F(FileFaults, AFileSizeLimitEndsNeitherTheProcessNorAFile) {
  sandbox.configure(plane.url());
  sandbox.write(sandbox.root() + "/transcript", transcriptOf(3));
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
    for (const std::string& name : Sandbox::tree(sandbox.state()))
      EXPECT_EQ(name.find(".quib-"), name.npos) << "a temporary file was left";
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
  sandbox.set("HOME", disk);
  sandbox.set("OBRISK_CC_STATE_DIR", disk + "/state");
  sandbox.set("OBRISK_API_URL", plane.url());
  sandbox.set("OBRISK_API_KEY", "key");
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
  EXPECT_EQ(sandbox.run({}, event("UserPromptSubmit")).status, 0);
  const std::string lines = contentOf(log);
  const std::string last = lines.substr(lines.rfind('\n', lines.size() - 2) + 1);
  EXPECT_TRUE(Json::parseObject(last)) << "the line after the disk was full: " << last;
  EXPECT_EQ(stored().span_count, 1);
  for (const std::string& name : Sandbox::tree(disk))
    EXPECT_EQ(name.find(".quib-"), name.npos) << "a temporary file was left";
}

}  // namespace
