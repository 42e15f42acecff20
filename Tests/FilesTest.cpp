#include "Platform/Files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "Platform/Clock.h"
#include "Platform/Process.h"
#include "Tests/Support/Sandbox.h"

namespace {

namespace fs = std::filesystem;

unsigned permissions(const std::string& path) {
  return static_cast<unsigned>(fs::symlink_status(path).permissions());
}

TEST(Files, OnlyRegularFilesAreRead) {
  Sandbox sandbox;
  std::string fifo = sandbox.root() + "/fifo", file = sandbox.root() + "/file",
              link = sandbox.root() + "/link";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  sandbox.write(file, "content");
  fs::create_symlink(file, link);
  EXPECT_EQ(Files::read(file), "content");
  EXPECT_EQ(Files::read(link), "content");
  for (const std::string& path :
       {fifo, sandbox.root(), std::string("/dev/null"), sandbox.root() + "/none", std::string()})
    EXPECT_FALSE(Files::read(path)) << path;
  EXPECT_FALSE(Files::append(fifo, "record\n"));
  EXPECT_FALSE(Files::append(sandbox.root(), "record\n"));
  EXPECT_FALSE(Files::read(file + std::string("\0x", 2))) << "a NUL must not cut the name short";
}

TEST(Files, AreReadLineByLine) {
  Sandbox sandbox;
  std::string file = sandbox.root() + "/file", fifo = sandbox.root() + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::vector<std::string> lines;
  auto collect = [&](std::string_view line) {
    lines.emplace_back(line);
    return line != "stop";
  };
  struct Row {
    std::string content;
    std::int64_t offset;
    std::vector<std::string> lines;
  };
  const std::string longLine(5'000'000, 'x');
  const Row rows[] = {
      {"", 0, {""}},
      {"\n", 0, {"", ""}},
      {"a\nb", 0, {"a", "b"}},
      {"a\n\nb\n", 0, {"a", "", "b", ""}},
      {"a\nb", 1, {"", "b"}},
      {"a\nb", 3, {""}},
      {"a\nb", 4, {"a", "b"}},
      {"a\nb", -1, {"a", "b"}},
      {"a\r\nb\n\r\n\r\r\n", 0, {"a\r\nb", "\r\n\r\r\n"}},
      {"a\r\nb", 2, {"", "b"}},
      {"a\nstop\nb", 0, {"a", "stop"}},
      {"a\n" + longLine + "\r\n" + longLine + "\nb", 0, {"a", longLine + "\r\n" + longLine, "b"}},
  };
  for (const Row& row : rows) {
    sandbox.write(file, row.content);
    lines.clear();
    EXPECT_TRUE(Files::forEachLine(file, row.offset, collect));
    EXPECT_TRUE(lines == row.lines) << row.content.substr(0, 20) << " from " << row.offset;
  }
  for (const std::string& path : {fifo, sandbox.root(), sandbox.root() + "/none"})
    EXPECT_FALSE(Files::forEachLine(path, 0, collect)) << path;
}

TEST(Files, AreReplacedWholeWithTheirModeAndLeaveNothingBeside) {
  Sandbox sandbox;
  std::string directory = sandbox.root() + "/d", file = directory + "/file", other = directory + "/other";
  ASSERT_FALSE(Files::makeDirectories(directory));
  ASSERT_FALSE(Files::write(file, "old"));
  EXPECT_EQ(permissions(file), 0600u);
  fs::create_symlink(file, other);
  ASSERT_FALSE(Files::write(other, "new", 0644));
  EXPECT_EQ(permissions(other), 0644u);
  EXPECT_EQ(contentOf(file), "old") << "the link is replaced, not its target";
  EXPECT_EQ(contentOf(other), "new");
  EXPECT_EQ(Files::list(directory), (std::vector<std::string>{"file", "other"}));

  EXPECT_TRUE(Files::write(directory, "x")) << "a directory cannot be replaced";
  EXPECT_TRUE(Files::write(sandbox.root() + "/none/file", "x"));
  EXPECT_EQ(Files::list(sandbox.root()), (std::vector<std::string>{"d", "home", "project"}));
}

TEST(Files, MakeDirectoriesForTheUserAlone) {
  Sandbox sandbox;
  EXPECT_FALSE(Files::makeDirectories(sandbox.root() + "/a/b//c/"));
  EXPECT_FALSE(Files::makeDirectories(sandbox.root() + "/a/b/c"));
  EXPECT_EQ(permissions(sandbox.root() + "/a"), 0700u);
  EXPECT_EQ(permissions(sandbox.root() + "/a/b/c"), 0700u);
  sandbox.write(sandbox.root() + "/file", "");
  EXPECT_EQ(Files::makeDirectories(sandbox.root() + "/file"), std::errc::file_exists);
  EXPECT_EQ(Files::makeDirectories(sandbox.root() + "/file/d"), std::errc::not_a_directory);
  EXPECT_TRUE(Files::makeDirectories(""));
}

TEST(Files, AppendDoesNotJoinATornLine) {
  Sandbox sandbox;
  std::string file = sandbox.root() + "/log";
  ASSERT_TRUE(Files::append(file, "one\n"));
  EXPECT_EQ(permissions(file), 0600u);
  sandbox.write(file, "one\ntor");
  ASSERT_TRUE(Files::append(file, "two\n"));
  ASSERT_TRUE(Files::append(file, "three\n"));
  EXPECT_EQ(contentOf(file), "one\ntor\ntwo\nthree\n");
}

TEST(Files, AFullDiskLeavesTheOldFileOrWholeLines) {
  Sandbox sandbox;
  std::string file = sandbox.root() + "/state", log = sandbox.root() + "/log";
  sandbox.write(file, "old");
  sandbox.write(log, std::string(90, '.') + "\n");
  pid_t child = ::fork();
  if (child == 0) {
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{100, 100};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    bool refused = Files::write(file, std::string(1000, 'x')) && !Files::append(log, "0123456789abcdef\n");
    ::_exit(refused ? 0 : 1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(contentOf(file), "old");
  ASSERT_TRUE(Files::append(log, "next\n"));
  EXPECT_TRUE(contentOf(log).ends_with("\nnext\n"));
  EXPECT_EQ(Files::list(sandbox.root()), (std::vector<std::string>{"home", "log", "project", "state"}));
}

TEST(Clock, RendersInUtcWithTruncatedMilliseconds) {
  using namespace std::chrono;
  struct Row {
    std::int64_t milliseconds;
    const char* rendered;
  };
  const Row rows[] = {
      {0, "1970-01-01T00:00:00.000Z"},
      {1'769'850'900'123, "2026-01-31T09:15:00.123Z"},
      {951'782'399'999, "2000-02-28T23:59:59.999Z"},
      {951'782'400'000, "2000-02-29T00:00:00.000Z"},
      {-1, "1969-12-31T23:59:59.999Z"},
  };
  for (const Row& row : rows) {
    Clock::Time time{milliseconds(row.milliseconds)};
    EXPECT_EQ(Clock::dateTime(time), row.rendered);
    EXPECT_EQ(Clock::date(time), std::string(row.rendered).substr(0, 10));
  }
  EXPECT_EQ(Clock::dateTime(Clock::Time(microseconds(1'999))), "1970-01-01T00:00:00.001Z");
}

TEST(Process, PutsNoFileInPlaceOfAClosedStandardStream) {
  pid_t child = ::fork();
  if (child == 0) {
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor)
      ::close(descriptor);
    Process::prepare();
    ::_exit(::open("/dev/null", O_RDONLY) > STDERR_FILENO ? 0 : 1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST(Process, RunsAChildThatInheritsNothing) {
  Sandbox sandbox;
  std::string script = sandbox.root() + "/script";
  ASSERT_FALSE(
      Files::write(script, "#!/bin/sh\ncat; ls /proc/self/fd | wc -l; echo \"$2\"; echo hidden >&2\n", 0700));
  // The listing has the three standard descriptors, the directory that it reads, and what this test
  // inherited.
  int expected = 4;
  for (int descriptor = 3; descriptor < 256; ++descriptor)
    expected += ::fcntl(descriptor, F_GETFD) == 0;
  EXPECT_EQ(Process::run(script, {"a", "b c"}), std::to_string(expected) + "\nb c\n");
  EXPECT_FALSE(Process::run(sandbox.root() + "/none", {}));
}

TEST(Process, KnowsTheHome) {
  Sandbox sandbox;
  EXPECT_EQ(Process::home(), sandbox.home());
  sandbox.set("HOME", "");
  EXPECT_TRUE(Process::home().starts_with("/"));
}

}  // namespace
