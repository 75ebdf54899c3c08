#include "util/descriptor.h"

#include <cerrno>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/child.h"
#include "support/faults.h"

namespace {

int OpenSomething() {
  return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsOpen(int fd) {
  return ::fcntl(fd, F_GETFD) != -1;
}

TEST(Descriptor, OwnsNoneByDefault) {
  stdext::descriptor owner;
  EXPECT_EQ(owner.get(), -1);
  EXPECT_FALSE(owner.is_open());
  EXPECT_TRUE(owner.close());
}

TEST(Descriptor, ClosesWhatItOwnsAtTheEndOfItsLife) {
  const int fd = OpenSomething();
  {
    const stdext::descriptor owner(fd);
    EXPECT_EQ(owner.get(), fd);
    EXPECT_TRUE(owner.is_open());
    EXPECT_TRUE(IsOpen(fd));
  }
  EXPECT_FALSE(IsOpen(fd));
}

TEST(Descriptor, LeavesToTheCallerWhatItGaveUp) {
  const int fd = OpenSomething();
  {
    stdext::descriptor owner(fd);
    EXPECT_EQ(owner.release(), fd);
    EXPECT_FALSE(owner.is_open());
  }
  EXPECT_TRUE(IsOpen(fd));
}

TEST(Descriptor, ClosesOnceWhenAskedTo) {
  const int fd = OpenSomething();
  stdext::descriptor owner(fd);
  EXPECT_TRUE(owner.close());
  EXPECT_FALSE(IsOpen(fd));
  EXPECT_FALSE(owner.is_open());

  const test::Fault close("close", EIO, 0, 0);
  EXPECT_TRUE(owner.close());
  EXPECT_EQ(close.Calls(), 0);
}

TEST(Descriptor, ReportsAnErrorOfClosingAndIsClosedNevertheless) {
  stdext::descriptor owner(OpenSomething());
  const test::Fault fault("close", EIO);
  EXPECT_FALSE(owner.close());
  EXPECT_EQ(errno, EIO);
  EXPECT_FALSE(owner.is_open());
}

bool IsTheSameFile(int fd, const char* path) {
  struct stat byDescriptor = {};
  struct stat byPath = {};
  return ::fstat(fd, &byDescriptor) == 0 && ::stat(path, &byPath) == 0 &&
         byDescriptor.st_ino == byPath.st_ino && byDescriptor.st_dev == byPath.st_dev;
}

// The lowest number that is free.
int NextDescriptor() {
  const int fd = OpenSomething();
  ::close(fd);
  return fd;
}

TEST(StandardDescriptors, AreFilledInWhereTheyAreMissing) {
  EXPECT_EQ(test::RunInChild([] {
              ::close(STDIN_FILENO);
              ::close(STDERR_FILENO);
              stdext::open_missing_standard_descriptors();
              const bool filled = IsTheSameFile(STDIN_FILENO, "/dev/null") &&
                                  IsTheSameFile(STDERR_FILENO, "/dev/null");
              ::_exit(filled ? 0 : 1);
            }),
            0);
}

TEST(StandardDescriptors, AreLeftAloneWhereTheyAreOpen) {
  EXPECT_EQ(test::RunInChild([] {
              const int next = NextDescriptor();
              const bool wasNull = IsTheSameFile(STDOUT_FILENO, "/dev/null");
              stdext::open_missing_standard_descriptors();
              const bool same = IsTheSameFile(STDOUT_FILENO, "/dev/null") == wasNull;
              ::_exit(same && NextDescriptor() == next ? 0 : 1);
            }),
            0);
}

}  // namespace
