#include "Platform/Files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <thread>

#include "Platform/Clock.h"
#include "Platform/Descriptor.h"
#include "Platform/Paths.h"
#include "Platform/Process.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

namespace {

namespace fs = std::filesystem;

class FilesTest : public testing::Test {
 protected:
  static unsigned permissions(const std::string& path) {
    return static_cast<unsigned>(fs::symlink_status(path).permissions());
  }
  // The lines of the file from `offset` on, in parentheses; no more after "stop".
  std::string lines(std::int64_t offset) const {
    std::string found;
    const auto visit = [&](std::string_view line) {
      found.append("(").append(line).append(")");
      return line != "stop";
    };
    EXPECT_TRUE(Files::forEachLine(file, offset, visit));
    return found;
  }

  Sandbox sandbox;
  const std::string file = sandbox.root() + "/file";
};

TEST_F(FilesTest, OnlyRegularFilesAreRead) {
  const std::string fifo = sandbox.root() + "/fifo", link = sandbox.root() + "/link";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  sandbox.write(file, "content");
  fs::create_symlink(file, link);
  EXPECT_EQ(Files::read(file), "content");
  EXPECT_EQ(Files::read(link), "content");
  EXPECT_TRUE(inChildProcess([&] { return ::close(STDIN_FILENO) == 0 && Files::read(file) == "content"; }));
  for (const std::string& path : {fifo, sandbox.root(), sandbox.root() + "/none/x", std::string("/dev/null"),
                                  std::string(), file + std::string("\0x", 2)}) {
    EXPECT_FALSE(Files::read(path)) << path;
    EXPECT_FALSE(Files::forEachLine(path, 0, [](std::string_view) { return true; })) << path;
    EXPECT_FALSE(Files::append(path, "record\n")) << path;
  }
}

TEST_F(FilesTest, AreReadLineByLine) {
  for (const auto& row : rows(R"(
                      ¦ 0  ¦ ()
      ␊               ¦ 0  ¦ ()()
      a␊␊b␊           ¦ 0  ¦ (a)()(b)()
      a␊b             ¦ 1  ¦ ()(b)
      a␊b             ¦ 3  ¦ ()
      a␊b             ¦ 4  ¦ (a)(b)
      a␊b             ¦ -1 ¦ (a)(b)
      a␍␊b␊␍␊␍␍␊      ¦ 0  ¦ (a␍␊b)(␍␊␍␍␊)
      a␍␊b            ¦ 2  ¦ ()(b)
      a␊stop␊b        ¦ 0  ¦ (a)(stop)
      )")) {
    sandbox.write(file, row[0]);
    EXPECT_EQ(lines(std::stoi(row[1])), row[2]) << row[0] << " from " << row[1];
  }
  const std::string longLine(5'000'000, 'x');
  sandbox.write(file, "a\n" + longLine + "\r\n" + longLine + "\nb");
  EXPECT_TRUE(lines(0) == "(a)(" + longLine + "\r\n" + longLine + ")(b)");
}

// A line that memory does not hold.
TEST_F(FilesTest, SayWhenALineCannotBeRead) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer reserves more memory than the limit";
#endif
  sandbox.write(file, "");
  fs::resize_file(file, Files::longestLine);
  EXPECT_TRUE(inChildProcess([&] {
    const rlimit limit{Files::longestLine / 2, Files::longestLine / 2};
    int visited = 0;
    const auto visit = [&](std::string_view) { return ++visited; };
    return ::setrlimit(RLIMIT_DATA, &limit) == 0 && !Files::forEachLine(file, 0, visit) && visited == 0;
  }));
}

TEST_F(FilesTest, AreReplacedWholeWithTheirModeAndLeaveNothingBeside) {
  const std::string directory = sandbox.root() + "/d", other = directory + "/other";
  ASSERT_FALSE(Files::makeDirectories(directory));
  ASSERT_FALSE(Files::write(file, "old"));
  EXPECT_EQ(permissions(file), 0600u);
  fs::create_symlink(file, other);
  ASSERT_FALSE(Files::write(other, "new", 0644));
  EXPECT_EQ(permissions(other), 0644u);
  EXPECT_EQ(contentOf(file), "old") << "the link is replaced, not its target";
  EXPECT_EQ(contentOf(other), "new");
  EXPECT_TRUE(Files::write(directory, "x")) << "a directory cannot be replaced";
  EXPECT_TRUE(Files::write(sandbox.root() + "/none/file", "x"));
  EXPECT_EQ(Sandbox::tree(sandbox.root()), words("d d/other file home project"));
  EXPECT_TRUE(Files::remove(file));
  EXPECT_FALSE(Files::remove(file));
}

TEST_F(FilesTest, MakeDirectoriesForTheUserAlone) {
  EXPECT_FALSE(Files::makeDirectories(sandbox.root() + "/a/b//c/"));
  EXPECT_FALSE(Files::makeDirectories(sandbox.root() + "/a/b/c"));
  for (const char* made : {"/a", "/a/b", "/a/b/c"})
    EXPECT_EQ(permissions(sandbox.root() + made), 0700u);
  sandbox.write(file, "");
  EXPECT_EQ(Files::makeDirectories(file), std::errc::file_exists);
  EXPECT_EQ(Files::makeDirectories(file + "/d"), std::errc::not_a_directory);
  EXPECT_TRUE(Files::makeDirectories(""));
}

TEST_F(FilesTest, AppendWaitsForAnotherWriterToEndItsLine) {
  sandbox.write(file, "torn");
  Descriptor holder = openForReading(file);
  ASSERT_EQ(::flock(holder.get(), LOCK_EX), 0);
  std::thread other([&] {
    ::usleep(20'000);
    ::flock(holder.get(), LOCK_UN);
  });
  EXPECT_TRUE(Files::append(file, "record\n"));
  other.join();
  EXPECT_EQ(contentOf(file), "torn\nrecord\n");
}

TEST_F(FilesTest, AppendWaitsOnceForAllForWhoKeepsTheLock) {
  const std::clock_t before = std::clock();
  for (const std::string content : {"whole\n", "torn"})
    for (const int kind : {LOCK_EX, LOCK_SH}) {
      sandbox.write(file, content);
      const Descriptor holder = openForReading(file);
      ASSERT_EQ(::flock(holder.get(), kind), 0);
      std::string expected = content;
      for (int record = 0; record < 100; ++record, expected += "record\n")
        EXPECT_TRUE(Files::append(file, "record\n"));
      EXPECT_EQ(contentOf(file), expected);
    }
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC);
}

TEST_F(FilesTest, AppendNeedsNoRightToRead) {
  ASSERT_TRUE(Files::append(file, "one\n"));
  EXPECT_EQ(permissions(file), 0600u);
  fs::permissions(file, fs::perms::owner_write);
  EXPECT_TRUE(sandbox.asOwner([&] { return Files::append(file, "two\n"); }));
  fs::permissions(file, fs::perms::owner_read);
  EXPECT_FALSE(sandbox.asOwner([&] { return Files::append(file, "three\n"); }));
  EXPECT_EQ(contentOf(file), "one\ntwo\n");
}

TEST(Paths, HaveOneStandardForm) {
  Sandbox sandbox;
  sandbox.set("ROOT", sandbox.root());
  sandbox.set("QUIB_A", "one");
  sandbox.set("QUIB_AB", "$QUIB_A");
  fs::create_directories(sandbox.root() + "/real/deep");
  fs::create_symlink(sandbox.root() + "/real/deep", sandbox.root() + "/link");
  for (const auto& row : rows(R"(
                         ¦
      /                  ¦ /
      //a///b/           ¦ /a/b
      /a/./b/.           ¦ /a/b
      /no/such/../b      ¦ /no/b
      /../..             ¦ /
      a/./b//c/          ¦ a/b/c
      a/../b             ¦ a/../b
      .                  ¦
      ~                  ¦ $ROOT/home
      ~/x/../y           ¦ $ROOT/home/y
      ~no-such-user/x    ¦ ~no-such-user/x
      /a/~               ¦ /a/~
      $ROOT/link/../x    ¦ $ROOT/real/x
      $ROOT/link/x       ¦ $ROOT/link/x
      /private/no/such/file ¦ /private/no/such/file
      /private$ROOT      ¦ $ROOT
      /privately         ¦ /privately
      $QUIB_A/x          ¦ one/x
      ${QUIB_A}/x${QUIB_A} ¦ one/xone
      $QUIB_ABC          ¦ oneC
      $QUIB_NONE/x       ¦ $QUIB_NONE/x
      $quib_a${QUIB_A    ¦ $quib_a${QUIB_A
      )"))
    EXPECT_EQ(Paths::standardize(Paths::expandVariables(row[0])), Paths::expandVariables(row[1])) << row[0];
}

TEST(Paths, EndInAComponent) {
  for (const auto& row : rows("∅ ¦ ∅\n / ¦ /\n // ¦ /\n a ¦ a\n /a/b ¦ b\n /a/b/ ¦ b\n a/.env ¦ .env"))
    EXPECT_EQ(Paths::lastComponent(row[0]), row[1]) << row[0];
}

TEST(Clock, RendersInUtcWithTruncatedMilliseconds) {
  using namespace std::chrono;
  const std::pair<microseconds, std::string> times[] = {
      {0ms, "1970-01-01T00:00:00.000Z"},
      {1'769'850'900'123ms, "2026-01-31T09:15:00.123Z"},
      {951'782'399'999ms, "2000-02-28T23:59:59.999Z"},
      {951'782'400'000ms, "2000-02-29T00:00:00.000Z"},
      {-1ms, "1969-12-31T23:59:59.999Z"},
      {1'999us, "1970-01-01T00:00:00.001Z"},
  };
  for (const auto& [time, rendered] : times) {
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
  const Sandbox sandbox;
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
