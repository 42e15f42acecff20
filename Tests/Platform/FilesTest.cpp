#include "Platform/Files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "Platform/Clock.h"
#include "Platform/Descriptor.h"
#include "Platform/Process.h"
#include "Tests/Support/Sandbox.h"

namespace {

namespace fs = std::filesystem;

class FilesTest : public testing::Test {
 protected:
  std::string file() const { return sandbox.root() + "/file"; }

  static unsigned permissions(const std::string& path) {
    return static_cast<unsigned>(fs::symlink_status(path).permissions());
  }

  Sandbox sandbox;
};

TEST_F(FilesTest, OnlyRegularFilesAreRead) {
  const std::string fifo = sandbox.root() + "/fifo", link = sandbox.root() + "/link";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  sandbox.write(file(), "content");
  fs::create_symlink(file(), link);
  EXPECT_EQ(Files::read(file()), "content");
  EXPECT_EQ(Files::read(link), "content");
  const std::string afterNul = file() + std::string("\0x", 2);
  for (const std::string& path : {fifo, sandbox.root(), sandbox.root() + "/none/x", std::string("/dev/null"),
                                  std::string(), afterNul}) {
    EXPECT_FALSE(Files::read(path)) << path;
    EXPECT_FALSE(Files::forEachLine(path, 0, [](std::string_view) { return true; })) << path;
    EXPECT_FALSE(Files::append(path, "record\n")) << path;
  }
}

TEST_F(FilesTest, AreReadLineByLine) {
  const std::string longLine(5'000'000, 'x');
  const struct {
    std::string content;
    std::int64_t offset;
    std::vector<std::string> lines;
  } rows[] = {
      {"", 0, {""}},
      {"\n", 0, {"", ""}},
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
  for (const auto& row : rows) {
    sandbox.write(file(), row.content);
    std::vector<std::string> lines;
    EXPECT_TRUE(Files::forEachLine(file(), row.offset, [&](std::string_view line) {
      lines.emplace_back(line);
      return line != "stop";
    }));
    EXPECT_TRUE(lines == row.lines) << row.content.substr(0, 20) << " from " << row.offset;
  }
}

TEST_F(FilesTest, AreReplacedWholeWithTheirModeAndLeaveNothingBeside) {
  const std::string directory = sandbox.root() + "/d", other = directory + "/other";
  ASSERT_FALSE(Files::makeDirectories(directory));
  ASSERT_FALSE(Files::write(file(), "old"));
  EXPECT_EQ(permissions(file()), 0600u);
  fs::create_symlink(file(), other);
  ASSERT_FALSE(Files::write(other, "new", 0644));
  EXPECT_EQ(permissions(other), 0644u);
  EXPECT_EQ(contentOf(file()), "old") << "the link is replaced, not its target";
  EXPECT_EQ(contentOf(other), "new");

  EXPECT_TRUE(Files::write(directory, "x")) << "a directory cannot be replaced";
  EXPECT_TRUE(Files::write(sandbox.root() + "/none/file", "x"));
  EXPECT_EQ(Sandbox::tree(sandbox.root()),
            (std::vector<std::string>{"d", "d/other", "file", "home", "project"}));
}

TEST_F(FilesTest, MakeDirectoriesForTheUserAlone) {
  EXPECT_FALSE(Files::makeDirectories(sandbox.root() + "/a/b//c/"));
  EXPECT_FALSE(Files::makeDirectories(sandbox.root() + "/a/b/c"));
  for (const char* made : {"/a", "/a/b", "/a/b/c"})
    EXPECT_EQ(permissions(sandbox.root() + made), 0700u);
  sandbox.write(file(), "");
  EXPECT_EQ(Files::makeDirectories(file()), std::errc::file_exists);
  EXPECT_EQ(Files::makeDirectories(file() + "/d"), std::errc::not_a_directory);
  EXPECT_TRUE(Files::makeDirectories(""));
}

TEST_F(FilesTest, AppendDoesNotJoinATornLine) {
  ASSERT_TRUE(Files::append(file(), "one\n"));
  EXPECT_EQ(permissions(file()), 0600u);
  sandbox.write(file(), "one\ntor");
  ASSERT_TRUE(Files::append(file(), "two\n"));
  ASSERT_TRUE(Files::append(file(), "three\n"));
  EXPECT_EQ(contentOf(file()), "one\ntor\ntwo\nthree\n");
}

TEST_F(FilesTest, AppendNeedsNoRightToRead) {
  sandbox.write(file(), "one\n");
  fs::permissions(file(), fs::perms::owner_write);
  EXPECT_TRUE(sandbox.asOwner([&] { return Files::append(file(), "two\n"); }));
  fs::permissions(file(), fs::perms::owner_read);
  EXPECT_FALSE(sandbox.asOwner([&] { return Files::append(file(), "three\n"); }));
  EXPECT_EQ(contentOf(file()), "one\ntwo\n");
}

TEST_F(FilesTest, AppendWaitsOnceForAllForWhoKeepsTheLock) {
  constexpr int records = 100;
  const auto start = std::chrono::steady_clock::now();
  for (const std::string before : {"whole\n", "torn"})
    for (const int kind : {LOCK_EX, LOCK_SH}) {
      sandbox.write(file(), before);
      const Descriptor holder = openForReading(file());
      ASSERT_EQ(::flock(holder.get(), kind), 0);
      std::string expected = before;
      for (int record = 0; record < records; ++record, expected += "record\n")
        EXPECT_TRUE(Files::append(file(), "record\n"));
      EXPECT_EQ(contentOf(file()), expected);
    }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << "0.1 s of it waiting";
}

TEST(Clock, RendersInUtcWithTruncatedMilliseconds) {
  using namespace std::chrono;
  const std::pair<microseconds, std::string> rows[] = {
      {0ms, "1970-01-01T00:00:00.000Z"},
      {1'769'850'900'123ms, "2026-01-31T09:15:00.123Z"},
      {951'782'399'999ms, "2000-02-28T23:59:59.999Z"},
      {951'782'400'000ms, "2000-02-29T00:00:00.000Z"},
      {-1ms, "1969-12-31T23:59:59.999Z"},
      {1'999us, "1970-01-01T00:00:00.001Z"},
  };
  for (const auto& [time, rendered] : rows) {
    EXPECT_EQ(Clock::dateTime(Clock::Time(time)), rendered);
    EXPECT_EQ(Clock::date(Clock::Time(time)), rendered.substr(0, 10));
  }
}

TEST(Process, PutsNoFileInPlaceOfAClosedStandardStream) {
  EXPECT_TRUE(inChildProcess([] {
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor)
      ::close(descriptor);
    Process::prepare();
    return ::open("/dev/null", O_RDONLY) > STDERR_FILENO;
  }));
}

TEST(Process, RunsAChildThatInheritsNothing) {
  Sandbox sandbox;
  const std::string script = sandbox.root() + "/script";
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
