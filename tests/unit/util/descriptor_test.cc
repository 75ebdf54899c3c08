#include "util/descriptor.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/child.h"
#include "support/faults.h"
#include "support/temporary_directory.h"

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

class OnlyHere : public testing::Test {
 protected:
  // The error of opening it; 0 when it was opened.
  int ErrorOf(const std::string& name) const {
    const stdext::descriptor file(stdext::open_only_here((directory_ / name).c_str(), 0, 0600));
    return file.is_open() ? 0 : errno;
  }

  const test::TemporaryDirectory directory_;
};

TEST_F(OnlyHere, AFileIsMadeOrTakenAsItIs) {
  EXPECT_EQ(ErrorOf("new"), 0);
  directory_.Write("old", "content");
  EXPECT_EQ(ErrorOf("old"), 0);
  EXPECT_EQ(test::ReadFile(directory_ / "old"), "content");
}

TEST_F(OnlyHere, IsNothingThatIsElsewhereTooAndNoDevice) {
  const std::string file = directory_.Write("file", "");
  ASSERT_EQ(::symlink(file.c_str(), (directory_ / "link").c_str()), 0);
  ASSERT_EQ(::symlink("nowhere", (directory_ / "dangling").c_str()), 0);
  ASSERT_EQ(::mkfifo((directory_ / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(ErrorOf("link"), ELOOP);
  EXPECT_EQ(ErrorOf("dangling"), ELOOP);
  EXPECT_EQ(ErrorOf("fifo"), ENXIO);
  EXPECT_EQ(ErrorOf("."), EISDIR);
  {
    const stdext::descriptor reader(
        ::open((directory_ / "fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(ErrorOf("fifo"), ENXIO);
  }
  ASSERT_EQ(::link(file.c_str(), (directory_ / "other").c_str()), 0);
  const test::Fault close("close", 0, 0, 0);  // counts
  EXPECT_EQ(ErrorOf("file"), EMLINK);
  EXPECT_EQ(close.Calls(), 1);
}

TEST_F(OnlyHere, ANewFileHasItsModeAndNoProgramInheritsIt) {
  ::umask(0);
  const std::string path = directory_ / "file";
  const stdext::descriptor file(stdext::open_only_here(path.c_str(), O_APPEND, 0640));
  struct stat info = {};
  ASSERT_EQ(::fstat(file.get(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777U, 0640U);
  EXPECT_EQ(::fcntl(file.get(), F_GETFD), FD_CLOEXEC);
  EXPECT_NE(::fcntl(file.get(), F_GETFL) & O_APPEND, 0);
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
