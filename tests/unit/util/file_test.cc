#include "util/file.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/error_text.h"
#include "support/faults.h"
#include "support/temporary_directory.h"
#include "support/wait.h"

namespace {

namespace fs = std::filesystem;

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr uid_t kNobody = 65534;
constexpr unsigned long kNoLimit = 0;

using Paths = std::vector<std::string>;

// Another process that holds the lock on a file until it is told to let go.
class OtherProcess {
 public:
  explicit OtherProcess(const std::string& path) {
    int ready[2] = {};
    int hold[2] = {};
    if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(hold, O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipes");
    }
    child_ = ::fork();
    if (child_ == 0) {
      ::close(hold[1]);
      const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
      char byte = ::flock(fd, LOCK_EX) == 0 ? 'y' : 'n';
      (void)!::write(ready[1], &byte, 1);
      (void)!::read(hold[0], &byte, 1);
      ::_exit(0);
    }
    ::close(ready[1]);
    ::close(hold[0]);
    hold_ = hold[1];
    char locked = 'n';
    (void)!::read(ready[0], &locked, 1);
    ::close(ready[0]);
    if (locked != 'y') {
      throw std::runtime_error("cannot lock " + path);
    }
  }
  ~OtherProcess() { Release(); }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;

  void Release() {
    if (child_ > 0) {
      ::close(hold_);
      ::waitpid(child_, nullptr, 0);
      child_ = -1;
    }
  }

 private:
  pid_t child_ = -1;
  int hold_ = -1;
};

// Makes every pause end at once, and counts them.
class NoPauses : public test::Fault {
 public:
  NoPauses() : Fault("nanosleep", EINVAL) {}
};

// Does nothing but count.
class Counter : public test::Fault {
 public:
  explicit Counter(const char* function) : Fault(function, 0, 0, 0) {}
};

// Whether not even a shared lock is to be had.
bool IsLocked(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  const bool locked = ::flock(fd, LOCK_SH | LOCK_NB) != 0;
  ::close(fd);
  return locked;
}

bool IsOpenOn(int fd, const std::string& path) {
  struct stat byDescriptor = {};
  struct stat byPath = {};
  return ::fstat(fd, &byDescriptor) == 0 && ::stat(path.c_str(), &byPath) == 0 &&
         byDescriptor.st_ino == byPath.st_ino && byDescriptor.st_dev == byPath.st_dev;
}

long OpenDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

class FileTest : public testing::Test {
 protected:
  const test::TemporaryDirectory directory_;
  const std::string path_ = directory_.Write("file", "content\n");
  std::string content_ = "earlier";
};

using LockFile = FileTest;
using LockFiles = FileTest;
using FileLock = FileTest;
using FileRead = FileTest;

// --- lock_file with one path

TEST_F(LockFile, GivesADescriptorThatHoldsTheLockUntilClosed) {
  const int fd = stdext::lock_file(path_, 1, 1);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(IsOpenOn(fd, path_));
  EXPECT_TRUE(IsLocked(path_));
  ::close(fd);
  EXPECT_FALSE(IsLocked(path_));
}

TEST_F(LockFile, GivesADescriptorForReadingAndWritingThatProgramsDoNotInherit) {
  const int fd = stdext::lock_file(path_, 1, 1);
  EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
  ::close(fd);
}

TEST_F(LockFile, OpensTheFileDespiteInterruptions) {
  const test::Fault fault("open", EINTR, 0, 3);
  const int fd = stdext::lock_file(path_, 1, 1);
  EXPECT_TRUE(IsOpenOn(fd, path_));
  ::close(fd);
}

TEST_F(LockFile, LeavesTheContentAlone) {
  ::close(stdext::lock_file(path_, 1, 1));
  EXPECT_EQ(test::ReadFile(path_), "content\n");
}

TEST_F(LockFile, DoesNotCreateAMissingFile) {
  const NoPauses pauses;
  EXPECT_EQ(stdext::lock_file(directory_ / "missing", 40, 100), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(pauses.Calls(), 0);
  EXPECT_FALSE(fs::exists(directory_ / "missing"));
}

TEST_F(LockFile, GivesNoneWithoutARetryOrADelay) {
  const Counter attempts("flock");
  EXPECT_EQ(stdext::lock_file(path_, 0, 100), -1);
  EXPECT_EQ(stdext::lock_file(path_, -1, 100), -1);
  EXPECT_EQ(stdext::lock_file(path_, 40, 0), -1);
  EXPECT_EQ(stdext::lock_file(path_, 40, -1), -1);
  EXPECT_EQ(attempts.Calls(), 0);
}

TEST_F(LockFile, TriesOnceMoreThanItRetries) {
  const NoPauses pauses;
  {
    const test::Fault lastAttemptWorks("flock", EWOULDBLOCK, 0, 3);
    const int fd = stdext::lock_file(path_, 3, 1);
    EXPECT_GE(fd, 0);
    ::close(fd);
  }
  const test::Fault allAttemptsFail("flock", EWOULDBLOCK, 0, 4);
  EXPECT_EQ(stdext::lock_file(path_, 3, 1), -1);
  EXPECT_EQ(allAttemptsFail.Calls(), 4);
}

TEST_F(LockFile, PausesAfterEachFailedAttemptIncludingTheLast) {
  const OtherProcess other(path_);
  const NoPauses pauses;
  EXPECT_EQ(stdext::lock_file(path_, 3, 1), -1);
  EXPECT_EQ(errno, EWOULDBLOCK);
  EXPECT_EQ(pauses.Calls(), 4);
}

TEST_F(LockFile, DoesNotPauseAfterSuccess) {
  const NoPauses pauses;
  ::close(stdext::lock_file(path_, 3, 1));
  EXPECT_EQ(pauses.Calls(), 0);
}

TEST_F(LockFile, AsksForAPauseOfTheDelay) {
  const NoPauses pauses;
  const test::Fault busy("flock", EWOULDBLOCK);
  for (const int delay : {1, 999, 1000, 1005}) {
    EXPECT_EQ(stdext::lock_file(path_, 1, delay), -1);
    EXPECT_EQ(test::RefusedPause(), milliseconds(delay));
  }
}

TEST_F(LockFile, PausesForTheWholeDelay) {
  const OtherProcess other(path_);
  const auto start = steady_clock::now();
  EXPECT_EQ(stdext::lock_file(path_, 1, 1005), -1);
  EXPECT_GE(steady_clock::now() - start, milliseconds(2 * 1005));
}

// A timer that interrupts this thread's pauses again and again, up to a limit.
class Interruptions {
 public:
  static constexpr int kLimit = 1000;

  Interruptions() {
    count_ = 0;
    struct sigaction action = {};
    action.sa_handler = Handle;
    ::sigaction(SIGALRM, &action, nullptr);
    Set(10000);
  }
  ~Interruptions() { Set(0); }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

  static int Count() { return count_; }

 private:
  static void Handle(int /*signal*/) {
    count_ = count_ + 1;
    if (count_ == kLimit) {
      Set(0);
    }
  }

  static void Set(long microseconds) {
    const itimerval timer = {{0, microseconds}, {0, microseconds}};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
  }

  static volatile sig_atomic_t count_;
};

volatile sig_atomic_t Interruptions::count_ = 0;

TEST_F(LockFile, ContinuesAnInterruptedPauseWithWhatRemainsOfIt) {
  const OtherProcess other(path_);
  const Interruptions interruptions;
  const auto start = steady_clock::now();
  EXPECT_EQ(stdext::lock_file(path_, 1, 200), -1);

  EXPECT_GE(steady_clock::now() - start, milliseconds(2 * 200)) << "a pause was cut short";
  EXPECT_GT(Interruptions::Count(), 0);
  EXPECT_LT(Interruptions::Count(), Interruptions::kLimit) << "a pause began anew each time";
}

TEST_F(LockFile, TakesALockThatIsReleasedInTime) {
  OtherProcess other(path_);
  const Counter attempts("flock");
  auto locking = std::async(std::launch::async, [&] { return stdext::lock_file(path_, 6000, 10); });
  EXPECT_TRUE(test::WaitUntil([&] { return attempts.Calls() >= 3; }));
  other.Release();

  const int fd = locking.get();
  EXPECT_GE(fd, 0);
  ::close(fd);
}

// --- lock_file with several paths

TEST_F(LockFiles, GivesNothingWithoutARetryADelayOrAPath) {
  const long descriptors = OpenDescriptors();
  EXPECT_THAT(stdext::lock_file(Paths{path_}, 0, 100), IsEmpty());
  EXPECT_THAT(stdext::lock_file(Paths{path_}, -1, 100), IsEmpty());
  EXPECT_THAT(stdext::lock_file(Paths{path_}, 40, 0), IsEmpty());
  EXPECT_THAT(stdext::lock_file(Paths{path_}, 40, -1), IsEmpty());
  EXPECT_THAT(stdext::lock_file(Paths{}, 40, 100), IsEmpty());
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(LockFiles, AcceptsOneRetryAndOneMillisecond) {
  const std::vector<int> fds = stdext::lock_file(Paths{path_}, 1, 1);
  ASSERT_THAT(fds, SizeIs(1));
  EXPECT_GE(fds[0], 0);
  ::close(fds[0]);
}

TEST_F(LockFiles, GivesDescriptorsInTheOrderOfThePathsWithoutWaitingForAMissingOne) {
  const std::string second = directory_.Write("a", "");
  const NoPauses pauses;
  const std::vector<int> fds =
      stdext::lock_file(Paths{path_, directory_ / "missing", second}, 40, 100);

  ASSERT_THAT(fds, SizeIs(3));
  EXPECT_TRUE(IsOpenOn(fds[0], path_));
  EXPECT_EQ(fds[1], -1);
  EXPECT_TRUE(IsOpenOn(fds[2], second));
  EXPECT_TRUE(IsLocked(path_));
  EXPECT_TRUE(IsLocked(second));
  EXPECT_EQ(::fcntl(fds[2], F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(pauses.Calls(), 0);
  ::close(fds[0]);
  ::close(fds[2]);
}

TEST_F(LockFiles, DoesNotWaitForAMissingOneThatComesFirst) {
  const NoPauses pauses;
  const std::vector<int> fds = stdext::lock_file(Paths{directory_ / "missing", path_}, 40, 100);
  ASSERT_THAT(fds, ElementsAre(-1, testing::Ge(0)));
  EXPECT_EQ(pauses.Calls(), 0);
  ::close(fds[1]);
}

TEST_F(LockFiles, KeepsTheLocksItGotWhenAnotherFails) {
  const std::string free = directory_.Write("free", "");
  const OtherProcess other(path_);
  const NoPauses pauses;
  const long descriptors = OpenDescriptors();
  const std::vector<int> fds = stdext::lock_file(Paths{path_, free}, 2, 1);

  ASSERT_THAT(fds, ElementsAre(-1, testing::Ge(0)));
  EXPECT_TRUE(IsOpenOn(fds[1], free));
  EXPECT_TRUE(IsLocked(free));
  EXPECT_EQ(OpenDescriptors(), descriptors + 1) << "the one that was not locked stayed open";
  EXPECT_EQ(pauses.Calls(), 3);
  ::close(fds[1]);
}

TEST_F(LockFiles, TriesOnlyThoseNotLockedYet) {
  const std::string free = directory_.Write("free", "");
  const OtherProcess other(path_);
  const NoPauses pauses;
  const Counter attempts("flock");
  const std::vector<int> fds = stdext::lock_file(Paths{free, path_}, 2, 1);
  EXPECT_EQ(attempts.Calls(), 2 + 1 + 1);
  ASSERT_THAT(fds, ElementsAre(testing::Ge(0), -1)) << "a lock was lost with a later one";
  EXPECT_TRUE(IsLocked(free));
  ::close(fds[0]);
}

TEST_F(LockFiles, TriesAllInEachAttempt) {
  const std::string free = directory_.Write("free", "");
  const OtherProcess other(path_);
  const test::Fault stop("nanosleep", EINVAL);
  const std::vector<int> fds = stdext::lock_file(Paths{path_, directory_ / "missing", free}, 1, 1);
  EXPECT_THAT(fds, ElementsAre(-1, -1, testing::Ge(0)));
  ::close(fds.at(2));
}

// --- the lock of a file

TEST_F(FileLock, IsHeldForTheObjectsLife) {
  {
    const stdext::file file(path_);
    EXPECT_TRUE(IsLocked(path_));
  }
  EXPECT_FALSE(IsLocked(path_));
}

TEST_F(FileLock, IsHeldByADescriptorThatGoesWithTheObject) {
  const long descriptors = OpenDescriptors();
  {
    const stdext::file file(path_);
    EXPECT_EQ(OpenDescriptors(), descriptors + 1);
    ASSERT_TRUE(file.read(kNoLimit, &content_).IsOk());
    EXPECT_EQ(OpenDescriptors(), descriptors + 1) << "reading left its own descriptor open";
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(FileLock, IsTriedFor41TimesWithAPauseOf100MillisecondsAfterEach) {
  const NoPauses pauses;
  const test::Fault busy("flock", EWOULDBLOCK);
  const stdext::file file(path_);
  EXPECT_EQ(busy.Calls(), 41);
  EXPECT_EQ(pauses.Calls(), 41);
  EXPECT_EQ(test::RefusedPause(), milliseconds(100));
}

TEST_F(FileLock, IsObtainedAtThe41stAttempt) {
  const NoPauses pauses;
  const test::Fault busy("flock", EWOULDBLOCK, 0, 40);
  EXPECT_TRUE(stdext::file(path_).read(kNoLimit, &content_).IsOk());
}

TEST_F(FileLock, HeldByAnotherProcessForTheWholeSpanFailsTheRead) {
  const OtherProcess other(path_);
  const auto start = steady_clock::now();
  const stdext::file file(path_);
  EXPECT_GE(steady_clock::now() - start, milliseconds(4100));

  const Orx::Status status = file.read(kNoLimit, &content_);
  EXPECT_FALSE(status.IsOk());
  EXPECT_EQ(status.Message(),
            "Failed to lock file " + path_ + ": 11 Resource temporarily unavailable");
  EXPECT_EQ(content_, "earlier") << "nothing is read without the lock";
}

TEST_F(FileLock, ReleasedByAnotherProcessInTimeLetsTheRead) {
  OtherProcess other(path_);
  const Counter attempts("flock");
  auto reading = std::async(std::launch::async, [&] {
    const stdext::file file(path_);
    return file.read(kNoLimit, &content_).Message();
  });
  EXPECT_TRUE(test::WaitUntil([&] { return attempts.Calls() >= 2; }));
  other.Release();

  EXPECT_EQ(reading.get(), "");
  EXPECT_EQ(content_, "content\n");
}

TEST_F(FileLock, FailsWithTheErrorOfTheAttemptToTakeIt) {
  const std::string path = directory_ / "missing";
  const stdext::file file(path);
  directory_.Write("missing", "it came later");
  errno = EPERM;
  EXPECT_EQ(file.read(kNoLimit, &content_).Message(),
            "Failed to lock file " + path + ": 2 No such file or directory");
}

TEST_F(FileLock, OfAReadOnlyFileIsRefusedToAnOrdinaryUser) {
  fs::permissions(directory_.Path(), fs::perms::group_exec | fs::perms::others_exec,
                  fs::perm_options::add);
  fs::permissions(path_, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  if (::geteuid() != 0 || ::seteuid(kNobody) != 0) {
    GTEST_SKIP() << "only root can become another user";
  }
  const Orx::Status locked = stdext::file(path_).read(kNoLimit, &content_);
  const Orx::Status unlocked = stdext::file::without_lock(path_).read(kNoLimit, &content_);
  ASSERT_EQ(::seteuid(0), 0);

  EXPECT_EQ(locked.Message(), "Failed to lock file " + path_ + ": 13 Permission denied");
  EXPECT_TRUE(unlocked.IsOk()) << unlocked.Message();
  EXPECT_EQ(content_, "content\n");
}

TEST_F(FileLock, OfADirectoryIsRefused) {
  EXPECT_EQ(stdext::file(directory_.Path()).read(kNoLimit, &content_).Message(),
            "Failed to lock file " + directory_.Path() + ": 21 Is a directory");
}

TEST_F(FileLock, IsNeitherTakenNorAwaitedWithoutLock) {
  const OtherProcess other(path_);
  const Counter attempts("flock");
  const stdext::file file = stdext::file::without_lock(path_);
  EXPECT_TRUE(file.read(kNoLimit, &content_).IsOk());
  EXPECT_EQ(content_, "content\n");
  EXPECT_EQ(attempts.Calls(), 0);
}

// --- reading; the same with and without a lock, so mostly without

Orx::Status Read(const std::string& path, unsigned long maxSize, std::string* content) {
  return stdext::file::without_lock(path).read(maxSize, content);
}

TEST_F(FileRead, ReplacesTheContent) {
  const Orx::Status status = stdext::file(path_).read(kNoLimit, &content_);
  EXPECT_TRUE(status.IsOk());
  EXPECT_EQ(status.Message(), "");
  EXPECT_EQ(content_, "content\n");
}

TEST_F(FileRead, CanBeRepeated) {
  const stdext::file file(path_);
  ASSERT_TRUE(file.read(kNoLimit, &content_).IsOk());
  directory_.Write("file", "new");
  ASSERT_TRUE(file.read(kNoLimit, &content_).IsOk());
  EXPECT_EQ(content_, "new");
}

TEST_F(FileRead, GivesTheEmptyStringForAnEmptyFile) {
  const std::string path = directory_.Write("empty", "");
  EXPECT_TRUE(stdext::file(path).read(1, &content_).IsOk());
  EXPECT_EQ(content_, "");
}

TEST_F(FileRead, KeepsEveryByte) {
  std::string bytes;
  for (int round = 0; round < 300; ++round) {
    for (int byte = 0; byte < 256; ++byte) {
      bytes += static_cast<char>(byte);
    }
  }
  EXPECT_TRUE(Read(directory_.Write("binary", bytes), kNoLimit, &content_).IsOk());
  EXPECT_EQ(content_, bytes);
}

TEST_F(FileRead, AcceptsAFileOfExactlyTheLimit) {
  EXPECT_TRUE(Read(path_, 8, &content_).IsOk());
  EXPECT_EQ(content_, "content\n");
}

TEST_F(FileRead, RefusesAFileOneByteLargerThanTheLimit) {
  EXPECT_EQ(Read(path_, 7, &content_).Message(),
            "Failed to read file " + path_ + ": 27 File too large");
  EXPECT_EQ(errno, EFBIG);
  EXPECT_EQ(content_, "") << "the content is cleared before";
}

// A size_t of 32 bits would take it for one of a byte.
TEST_F(FileRead, RefusesAFileOfAByteMoreThan4Gib) {
  ASSERT_EQ(::truncate(path_.c_str(), (off_t{1} << 32) + 1), 0);
  EXPECT_EQ(Read(path_, 7, &content_).Message(),
            "Failed to read file " + path_ + ": 27 File too large");
}

TEST_F(FileRead, RefusesAFileTooLargeUnderALockToo) {
  EXPECT_EQ(stdext::file(path_).read(7, &content_).Message(),
            "Failed to read file " + path_ + ": 27 File too large");
}

TEST_F(FileRead, HasNoLimitWithTheLimitZero) {
  const std::string large(3 * 1048576 + 1, 'x');
  EXPECT_TRUE(Read(directory_.Write("large", large), kNoLimit, &content_).IsOk());
  EXPECT_EQ(content_, large);
}

TEST_F(FileRead, FailsWithTheErrorOfOpening) {
  const std::string path = directory_ / "missing";
  EXPECT_EQ(Read(path, kNoLimit, &content_).Message(),
            "Failed to read file " + path + ": 2 No such file or directory");
  EXPECT_EQ(content_, "") << "the content is cleared before";
}

TEST_F(FileRead, FailsWithTheErrorOfOpeningWhenTheFileWentAwayUnderTheLock) {
  const stdext::file file(path_);
  fs::remove(path_);
  EXPECT_EQ(file.read(kNoLimit, &content_).Message(),
            "Failed to read file " + path_ + ": 2 No such file or directory");
}

TEST_F(FileRead, FailsForADirectory) {
  EXPECT_THAT(Read(directory_.Path(), 1048576, &content_).Message(),
              StartsWith("Failed to read file " + directory_.Path() + ": "));
}

TEST_F(FileRead, FailsWithTheErrorOfFindingTheEndAndTheStart) {
  for (const int skipped : {0, 1}) {
    const test::Fault fault("lseek", EOVERFLOW, skipped, 1);
    EXPECT_EQ(Read(path_, kNoLimit, &content_).Message(),
              "Failed to read file " + path_ + ": 75 " + test::ErrorText(EOVERFLOW));
  }
}

TEST_F(FileRead, FailsWithTheErrorOfReadingAndKeepsTheSize) {
  const test::Fault fault("read", EIO);
  EXPECT_EQ(Read(path_, kNoLimit, &content_).Message(),
            "Failed to read file " + path_ + ": 5 " + test::ErrorText(EIO));
  EXPECT_THAT(content_, SizeIs(8));
}

TEST_F(FileRead, FailsWithTheErrorOfClosing) {
  const test::Fault fault("close", ENOSPC);
  EXPECT_EQ(Read(path_, kNoLimit, &content_).Message(),
            "Failed to read file " + path_ + ": 28 No space left on device");
}

TEST_F(FileRead, UsesADescriptorThatProgramsDoNotInherit) {
  const int fd = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);  // the lowest number that is free
  ::close(fd);
  {
    const test::Fault fault("close", EIO);  // leaves it open
    EXPECT_FALSE(Read(path_, kNoLimit, &content_).IsOk());
  }
  EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(fd)), path_);
  EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
  ::close(fd);
}

TEST_F(FileRead, GoesOnAfterAnInterruption) {
  const test::Fault fault("read", EINTR, 0, 3);
  EXPECT_TRUE(Read(path_, kNoLimit, &content_).IsOk());
  EXPECT_EQ(content_, "content\n");
}

TEST_F(FileRead, PutsTogetherWhatComesInPieces) {
  const test::ShortReads reads(3);
  EXPECT_TRUE(Read(path_, kNoLimit, &content_).IsOk());
  EXPECT_EQ(content_, "content\n");
  EXPECT_EQ(reads.Calls(), 4);
}

TEST_F(FileRead, OpensTheFileDespiteInterruptions) {
  const test::Fault fault("open", EINTR, 0, 3);
  EXPECT_TRUE(Read(path_, kNoLimit, &content_).IsOk());
  EXPECT_EQ(content_, "content\n");
}

TEST_F(FileRead, FailsWhenTheFileIsShorterThanItsSizeSaid) {
  const std::string path = "/sys/devices/system/cpu/online";
  if (!fs::exists(path)) {
    GTEST_SKIP() << "needs a file that claims to be larger than it is: " << path;
  }
  EXPECT_EQ(Read(path, kNoLimit, &content_).Message(),
            "Failed to read file " + path + ": 5 " + test::ErrorText(EIO));
}

TEST_F(FileRead, DoesNotBlockOnAFifoThatNobodyWritesTo) {
  const std::string fifo = directory_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(Read(fifo, kNoLimit, &content_).Message(),
            "Failed to read file " + fifo + ": 29 " + test::ErrorText(ESPIPE));
  EXPECT_EQ(stdext::file(fifo).read(kNoLimit, &content_).Message(),
            "Failed to read file " + fifo + ": 29 " + test::ErrorText(ESPIPE));
}

TEST_F(FileRead, LeavesNoDescriptorBehind) {
  const long descriptors = OpenDescriptors();
  EXPECT_TRUE(Read(path_, 8, &content_).IsOk());
  EXPECT_FALSE(Read(path_, 7, &content_).IsOk());
  EXPECT_FALSE(Read(directory_.Path(), 1048576, &content_).IsOk());
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

}  // namespace
