#include "util/standard_error.h"

#include <chrono>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/faults.h"
#include "support/stuck_console.h"
#include "support/temporary_directory.h"
#include "util/descriptor.h"

namespace {

// Standard error is what a test puts there, until its end.
class StandardError : public testing::Test {
 protected:
  ~StandardError() override { ::dup2(kept_.get(), STDERR_FILENO); }

  static void Use(int fd) { ASSERT_EQ(::dup2(fd, STDERR_FILENO), STDERR_FILENO); }

  // A pipe, of which `reader_` is the other end.
  void UsePipe() {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    reader_ = ends[0];
    const stdext::descriptor writer(ends[1]);
    Use(writer.get());
  }

  static bool Waits(int fd) { return (::fcntl(fd, F_GETFL) & O_NONBLOCK) == 0; }

  const stdext::descriptor kept_{::dup(STDERR_FILENO)};
  int reader_ = -1;
};

TEST_F(StandardError, TakesALineAsAFileAndAsAPipeWithRoom) {
  const test::TemporaryDirectory directory;
  const stdext::descriptor file(::open(directory.Write("file", "").c_str(), O_WRONLY | O_CLOEXEC));
  Use(file.get());
  EXPECT_TRUE(stdext::standard_error_takes_a_line());
  UsePipe();
  EXPECT_TRUE(stdext::standard_error_takes_a_line());
}

TEST_F(StandardError, TakesNoneWhenNobodyReadsForATenthOfASecond) {
  test::StuckConsole console;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(stdext::standard_error_takes_a_line());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
  console.Read();
  EXPECT_TRUE(stdext::standard_error_takes_a_line());
}

TEST_F(StandardError, IsWaitedForDespiteInterruptions) {
  const test::StuckConsole console;
  const test::Fault fault("poll", EINTR, 0, 3);
  EXPECT_FALSE(stdext::standard_error_takes_a_line());
  EXPECT_EQ(fault.Calls(), 4);
}

// Whoever writes there learns of it.
TEST_F(StandardError, TakesALineWhenItsReaderHasGone) {
  test::StuckConsole console;
  console.CloseReader();
  EXPECT_TRUE(stdext::standard_error_takes_a_line());
}

TEST_F(StandardError, AsAPipeOfOnesOwnIsNotWaitedForAndOthersWaitAsEver) {
  UsePipe();
  const stdext::descriptor others(::dup(STDERR_FILENO));
  stdext::own_standard_error();
  EXPECT_FALSE(Waits(STDERR_FILENO));
  EXPECT_TRUE(Waits(others.get()));

  ASSERT_EQ(::write(STDERR_FILENO, "text", 4), 4);
  char text[5] = {};
  EXPECT_EQ(::read(reader_, text, 4), 4);
  EXPECT_STREQ(text, "text");
}

TEST_F(StandardError, AsATerminalOfOnesOwnIsNotWaitedForAndOthersWaitAsEver) {
  const stdext::descriptor terminal(::posix_openpt(O_RDWR | O_NOCTTY));
  ASSERT_TRUE(terminal.is_open() && ::grantpt(terminal.get()) == 0 &&
              ::unlockpt(terminal.get()) == 0);
  char name[100] = {};
  ASSERT_EQ(::ptsname_r(terminal.get(), name, sizeof name), 0);
  const stdext::descriptor others(::open(name, O_WRONLY | O_NOCTTY | O_CLOEXEC));
  Use(others.get());
  stdext::own_standard_error();
  EXPECT_FALSE(Waits(STDERR_FILENO));
  EXPECT_TRUE(Waits(others.get()));
}

TEST_F(StandardError, AsAFileOrASocketStaysWhatItIs) {
  const test::TemporaryDirectory directory;
  const stdext::descriptor file(::open(directory.Write("file", "").c_str(), O_WRONLY | O_CLOEXEC));
  Use(file.get());
  stdext::own_standard_error();
  EXPECT_TRUE(Waits(STDERR_FILENO));

  int ends[2] = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const stdext::descriptor one(ends[0]);
  const stdext::descriptor other(ends[1]);
  Use(one.get());
  stdext::own_standard_error();
  EXPECT_TRUE(Waits(STDERR_FILENO));
  EXPECT_EQ(::write(STDERR_FILENO, "x", 1), 1);
}

TEST_F(StandardError, ThatCannotBeOpenedAgainStaysWhatItIs) {
  UsePipe();
  {
    const test::Fault fault("open", EACCES);
    stdext::own_standard_error();
  }
  EXPECT_TRUE(Waits(STDERR_FILENO));
  EXPECT_EQ(::write(STDERR_FILENO, "x", 1), 1);
}

}  // namespace
