#include "hooks/raii_pipe.h"

#include <cerrno>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "support/faults.h"
#include "support/log_capture.h"

namespace {

using Orx::RaiiPipe;
using test::Fault;
using testing::ElementsAre;

bool IsOpen(int fd) {
  return ::fcntl(fd, F_GETFD) != -1;
}

TEST(Pipe, IsClosedAtFirst) {
  RaiiPipe pipe;
  EXPECT_EQ(pipe.readFd, -1);
  EXPECT_EQ(pipe.writeFd, -1);
  EXPECT_EQ(pipe.CloseWriteFd(), 0);
  pipe.CloseReadFd();
}

TEST(Pipe, CarriesDataAndIsCloseOnExec) {
  RaiiPipe pipe;
  ASSERT_EQ(pipe.OpenPipe(), 0);
  char byte = 0;
  EXPECT_EQ(::write(pipe.writeFd, "x", 1), 1);
  EXPECT_EQ(::read(pipe.readFd, &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
  EXPECT_EQ(::fcntl(pipe.readFd, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(::fcntl(pipe.writeFd, F_GETFD), FD_CLOEXEC);
}

TEST(Pipe, EachEndIsClosedOnItsOwn) {
  RaiiPipe pipe;
  ASSERT_EQ(pipe.OpenPipe(), 0);
  const int readFd = pipe.readFd;
  const int writeFd = pipe.writeFd;
  EXPECT_EQ(pipe.CloseWriteFd(), 0);
  EXPECT_EQ(pipe.writeFd, -1);
  EXPECT_FALSE(IsOpen(writeFd));
  EXPECT_TRUE(IsOpen(readFd));
  pipe.CloseReadFd();
  EXPECT_EQ(pipe.readFd, -1);
  EXPECT_FALSE(IsOpen(readFd));
}

TEST(Pipe, ClosesWhatIsOpenWhenItGoes) {
  int readFd = -1;
  int writeFd = -1;
  {
    RaiiPipe pipe;
    ASSERT_EQ(pipe.OpenPipe(), 0);
    readFd = pipe.readFd;
    writeFd = pipe.writeFd;
  }
  EXPECT_FALSE(IsOpen(readFd));
  EXPECT_FALSE(IsOpen(writeFd));
}

TEST(Pipe, ClosesTheReadEndFirstWhenItGoes) {
  int readFd = -1;
  int writeFd = -1;
  {
    const Fault fault("close", EIO, 0, 1);  // what is closed first stays open
    RaiiPipe pipe;
    ASSERT_EQ(pipe.OpenPipe(), 0);
    readFd = pipe.readFd;
    writeFd = pipe.writeFd;
  }
  EXPECT_TRUE(IsOpen(readFd));
  EXPECT_FALSE(IsOpen(writeFd));
  ::close(readFd);
}

TEST(Pipe, IsClosedAlsoWhenThatIsInterrupted) {
  RaiiPipe pipe;
  ASSERT_EQ(pipe.OpenPipe(), 0);
  const int readFd = pipe.readFd;
  const int writeFd = pipe.writeFd;
  {
    const Fault fault("close", EINTR, 0, 2);
    EXPECT_EQ(pipe.CloseWriteFd(), 0);
  }
  EXPECT_FALSE(IsOpen(writeFd));
  const Fault fault("close", EINTR, 0, 2);
  pipe.CloseReadFd();
  EXPECT_FALSE(IsOpen(readFd));
}

TEST(Pipe, AFailureToCloseIsReturned) {
  RaiiPipe pipe;
  ASSERT_EQ(pipe.OpenPipe(), 0);
  ::close(pipe.writeFd);
  EXPECT_EQ(pipe.CloseWriteFd(), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(pipe.writeFd, -1);
}

TEST(Pipe, ThatCannotBeMadeIsLogged) {
  const test::LogCapture log;
  const Fault fault("pipe2", ENFILE);
  RaiiPipe pipe;
  EXPECT_EQ(pipe.OpenPipe(), -1);
  EXPECT_THAT(log.Lines(), ElementsAre("ERROR: int Orx::RaiiPipe::OpenPipe: pipe2 failed: Too many "
                                       "open files in system"));
}

}  // namespace
