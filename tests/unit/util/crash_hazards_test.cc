// Crashes under conditions that leave less than the whole report, or might leave none.

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <malloc.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/crash_test.h"
#include "support/faults.h"
#include "support/stuck_console.h"
#include "support/wait.h"
#include "util/crash_handler.h"
#include "util/descriptor.h"
#include "util/log.h"
#include "util/privilege.h"

// With external linkage, so that the record can name it: shortly, and at length for people.
// NOLINTNEXTLINE(misc-no-recursion): a deep stack is the point
__attribute__((noinline)) int CrashUnderTexts(int depth, const std::string* first,
                                              const std::string* second) {
  const int result = depth == 0 ? ::raise(SIGSEGV) : CrashUnderTexts(depth - 1, second, first);
  __asm__ volatile("");
  return result + 1;
}

namespace {

namespace fs = std::filesystem;

using test::kRecordEnd;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kSegmentationFault = "Segmentation fault";
constexpr rlim_t kCoreLimit = 1U << 20U;

class CrashHazards : public test::CrashTest {
 protected:
  void ExpectTheRest(int status) {
    ExpectEndedBy(status, SIGSEGV);
    ExpectReported(SIGSEGV, kSegmentationFault);
  }

  static mode_t ModeOf(const std::string& path) {
    struct stat info = {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777U : 0;
  }

  // Asks in the child when the record is written and the report waits for the logger's lock;
  // returns the answer, which is a small number.
  int LookAfterTheRecord(
      const std::function<int()>& look, const std::function<void()>& before = [] {}) const {
    constexpr int kLookedInTime = 100;
    const int status = Crash([&] {
      before();
      const std::lock_guard<std::mutex> lock(Orx::Log::Detail::Mutex());
      std::thread([] { ::raise(SIGSEGV); }).detach();
      test::WaitUntil([this] { return testing::Value(Record(), EndsWith(kRecordEnd)); });
      ::_exit(kLookedInTime + look());
    });
    EXPECT_TRUE(WIFEXITED(status)) << status;
    return WEXITSTATUS(status) - kLookedInTime;
  }

  static bool HasOpen(const std::string& path) {
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      if (fs::read_symlink(entry.path(), gone) == path) {
        return true;
      }
    }
    return false;
  }

  static bool HasDefaultAction(int number) {
    struct sigaction action = {};
    return ::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_DFL;
  }
};

// --- where the record goes ---

TEST_F(CrashHazards, WithoutItsDirectoryTheRestStillComes) {
  ExpectTheRest(Crash([this] {
    Mirel::SetBacktraceDirectory(directory_ / "missing");
    ::raise(SIGSEGV);
  }));
  EXPECT_FALSE(fs::exists(directory_ / "missing"));
}

TEST_F(CrashHazards, InADirectoryOfSomebodyElseTheRestStillComes) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "only root can become somebody else";
  }
  fs::permissions(directory_.Path(), fs::perms(0755));
  const auto crashAsNobody = [] {
    if (stdext::drop_privilege("nobody").IsOk()) {
      ::raise(SIGSEGV);
    }
  };
  ExpectTheRest(Crash(crashAsNobody));
  EXPECT_FALSE(fs::exists(RecordPath()));

  fs::permissions(directory_.Path(), fs::perms(0777));
  ExpectEndedBy(Crash(crashAsNobody), SIGSEGV);
  EXPECT_THAT(Record(), EndsWith(kRecordEnd));
}

// Where others may write to its directory, and the daemon is root.
TEST_F(CrashHazards, InPlaceOfALinkThereIsNoRecordAndTheRestStillComes) {
  const std::string other = directory_.Write("other", "root's");
  ASSERT_EQ(::symlink(other.c_str(), RecordPath().c_str()), 0);
  ExpectTheRest(Crash([] { ::raise(SIGSEGV); }));
  EXPECT_EQ(test::ReadFile(other), "root's");

  fs::remove(other);
  fs::remove(directory_ / "console");
  ExpectTheRest(Crash([] { ::raise(SIGSEGV); }));
  EXPECT_FALSE(fs::exists(other));
}

TEST_F(CrashHazards, InPlaceOfAnotherFileThereIsNoRecordAndTheRestStillComes) {
  const std::string other = directory_.Write("other", "root's");
  ASSERT_EQ(::link(other.c_str(), RecordPath().c_str()), 0);
  ExpectTheRest(Crash([] { ::raise(SIGSEGV); }));
  EXPECT_EQ(test::ReadFile(other), "root's");
}

TEST_F(CrashHazards, InPlaceOfAFifoThereIsNoRecordAndTheRestStillComes) {
  ASSERT_EQ(::mkfifo(RecordPath().c_str(), 0600), 0);
  ExpectTheRest(Crash([] { ::raise(SIGSEGV); }));

  fs::remove(directory_ / "console");
  const stdext::descriptor reader(::open(RecordPath().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  ASSERT_TRUE(reader.is_open());
  ExpectTheRest(Crash([] { ::raise(SIGSEGV); }));
  char byte = 0;
  EXPECT_EQ(::read(reader.get(), &byte, 1), 0);
}

// Does something while there is a small file system in that place, for this thread alone. Returns
// false when none can be mounted here.
bool OnADiskOf(const char* size, const std::string& directory, const std::function<void()>& act) {
  bool isMounted = false;
  // A thread's mounts go with it when it has a namespace of its own.
  std::thread([&] {
    isMounted = ::unshare(CLONE_NEWNS) == 0 &&
                ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                ::mount("none", directory.c_str(), "tmpfs", 0, size) == 0;
    if (isMounted) {
      act();
    }
  }).join();
  return isMounted;
}

class FullDisk : public CrashHazards, public testing::WithParamInterface<size_t> {};

// The parameter is how many bytes there is room for; it has a page.
TEST_P(FullDisk, TheRecordIsCutWhereTheSpaceEndsAndTheRestStillComes) {
  const std::string directory = directory_ / "full";
  const std::string path = directory + "/program-backtrace.log";
  fs::create_directory(directory);
  std::string record;
  int status = 0;
  const auto pageSize = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  const std::string earlier(pageSize - GetParam(), 'x');
  const bool isMounted = OnADiskOf("nr_blocks=1", directory, [&] {
    directory_.Write("full/program-backtrace.log", earlier);
    status = Crash([&] {
      Mirel::SetBacktraceDirectory(directory);
      ::raise(SIGSEGV);
    });
    record = test::ReadFile(path);
  });
  if (!isMounted) {
    GTEST_SKIP() << "no file system can be mounted here";
  }
  ExpectTheRest(status);
  EXPECT_EQ(record.size(), pageSize);
  EXPECT_THAT(record, StartsWith(earlier + (GetParam() > 0 ? "(" : "")));
  if (GetParam() >= 100) {
    EXPECT_THAT(record, HasSubstr(") Process exit due to signal: 11\nFault Address: "));
  }
}

INSTANTIATE_TEST_SUITE_P(WithRoomFor, FullDisk, testing::Values(0, 1, 100));

// A deep stack under a name that is long for people only.
class SmallDisk : public CrashHazards {
 protected:
  static constexpr size_t kDepth = 40;

  // Returns false when none can be mounted here.
  bool CrashOn(const char* size) {
    const std::string directory = directory_ / "small";
    fs::create_directory(directory);
    return OnADiskOf(size, directory, [&] {
      status_ = Crash([&] {
        Mirel::SetBacktraceDirectory(directory);
        CrashUnderTexts(kDepth, nullptr, nullptr);
      });
      record_ = test::ReadFile(directory + "/program-backtrace.log");
    });
  }

  void ExpectNamedTimes(const std::string& name, size_t times) {
    ExpectTheRest(status_);
    EXPECT_EQ(test::CountOf(record_, name), times) << record_;
    EXPECT_THAT(record_, EndsWith(kRecordEnd));
  }

 private:
  int status_ = 0;
  std::string record_;
};

TEST_F(SmallDisk, WithoutRoomForTheLongNamesKeepsTheShortOnes) {
  if (!CrashOn("nr_blocks=3")) {
    GTEST_SKIP() << "no file system can be mounted here";
  }
  ExpectNamedTimes("CrashUnderTexts", kDepth + 1);
  ExpectNamedTimes("CrashUnderTexts(", 0);
}

TEST_F(SmallDisk, WithoutALimitHasRoomForTheLongOnes) {
  if (!CrashOn("nr_blocks=0")) {
    GTEST_SKIP() << "no file system can be mounted here";
  }
  ExpectNamedTimes("CrashUnderTexts(", kDepth + 1);
}

TEST_F(CrashHazards, TheRecordMayGetTheDescriptorOfStandardInput) {
  ExpectTheRest(Crash([] {
    ::close(STDIN_FILENO);
    ::raise(SIGSEGV);
  }));
  EXPECT_THAT(Record(), EndsWith(kRecordEnd));
}

TEST_F(CrashHazards, ANewFileIsReadableForAllUnlessTheUmaskForbidsIt) {
  for (const auto& [mask, mode] : {std::pair<mode_t, mode_t>{0, 0644}, {077, 0600}}) {
    ExpectEndedBy(Crash([mask = mask] {
                    ::umask(mask);
                    ::raise(SIGSEGV);
                  }),
                  SIGSEGV);
    EXPECT_EQ(ModeOf(RecordPath()), mode);
    fs::remove(RecordPath());
  }
}

TEST_F(CrashHazards, AFileThatIsThereKeepsItsModeAndItsContent) {
  directory_.Write("program-backtrace.log", "what was there\n");
  fs::permissions(RecordPath(), fs::perms(0660));
  ExpectEndedBy(Crash([] { ::raise(SIGSEGV); }), SIGSEGV);
  EXPECT_EQ(ModeOf(RecordPath()), 0660U);
  EXPECT_THAT(Record(), StartsWith("what was there\n("));
  EXPECT_THAT(Record(), EndsWith(kRecordEnd));
}

TEST_F(CrashHazards, AConsoleThatNobodyReadsHoldsUpNothing) {
  if (std::getenv("TAVLO_EMULATOR") != nullptr) {
    GTEST_SKIP() << "the emulator itself writes of such an end, to the console that nobody reads";
  }
  ExpectEndedBy(Crash([] {
                  static test::StuckConsole console;
                  ::raise(SIGSEGV);
                }),
                SIGSEGV);
  EXPECT_THAT(Record(), EndsWith(kRecordEnd));
  EXPECT_THAT(log_.Lines(), testing::Contains(HasSubstr("Process exit due to signal: 11 (")));
}

// --- threads ---

TEST_F(CrashHazards, ACrashWhileAnotherThreadIsLoggingForGoodIsEndedByTheAlarm) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer keeps the alarm back while the handler waits for a lock";
#endif
  const auto start = std::chrono::steady_clock::now();
  const int status = Crash([] {
    std::atomic<bool> held(false);
    std::thread([&held] {
      const std::lock_guard<std::mutex> lock(Orx::Log::Detail::Mutex());
      held = true;
      for (;;) {
        ::pause();
      }
    }).detach();
    while (!held) {
      std::this_thread::yield();
    }
    ::raise(SIGSEGV);
  });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  // The alarm counts whole seconds from somewhere within one.
  EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::seconds(9));
  EXPECT_THAT(Record(), EndsWith(kRecordEnd));
  ExpectNotReported();
}

TEST_F(CrashHazards, AReportThatHangsIsEndedByTheAlarmThoughThatCameBlocked) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer keeps the alarm back while the handler waits for a lock";
#endif
  const int status = Crash([] {
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    ::pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    Orx::Log::Detail::Mutex().lock();
    ::raise(SIGSEGV);
  });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  ExpectNotReported();
}

TEST_F(CrashHazards, TheAlarmIsSetForTenSeconds) {
  const int secs = LookAfterTheRecord([] { return static_cast<int>(::alarm(0)); });
  EXPECT_GT(secs, 0);
  EXPECT_LE(secs, 10);
}

TEST_F(CrashHazards, TheRecordIsClosedBeforeTheLogLine) {
  EXPECT_EQ(LookAfterTheRecord([this] {
              return test::WaitUntil([this] { return !HasOpen(RecordPath()); }) ? 1 : 0;
            }),
            1);
}

TEST_F(CrashHazards, NoFileOfATimeZoneIsReadForTheRecord) {
  const std::string zone = directory_ / "zone";
  ::setenv("TZ", (":" + zone).c_str(), 1);
  ExpectTheRest(Crash([&zone] {
    ::mkfifo(zone.c_str(), 0600);  // nobody writes into it: reading it would take for ever
    ::raise(SIGSEGV);
  }));
}

TEST_F(CrashHazards, AnotherFatalSignalDuringTheReportEndsTheProcess) {
  for (const int other : {SIGSEGV, SIGABRT, SIGILL, SIGFPE, SIGBUS, SIGSYS}) {
    const int status = Crash([other] {
      // In a thread of our own: one for the whole process may hit a thread of an emulator's, which
      // ends that otherwise.
      std::thread([other] {
        test::WaitUntil([other] { return HasDefaultAction(other); });
        for (;;) {  // an emulator under load may lose the first one
          ::raise(other);
          std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
      }).detach();
      Orx::Log::Detail::Mutex().lock();  // the report hangs
      ::raise(other == SIGSEGV ? SIGABRT : SIGSEGV);
    });
    ExpectEndedBy(status, other);
    ExpectNotReported();
  }
}

TEST_F(CrashHazards, FaultsInTwoThreadsAtOnceEndTheProcess) {
  for (int i = 0; i < 20; ++i) {
    const int status = Crash([] {
      std::atomic<int> ready(0);
      const auto fault = [&ready] {
        ++ready;
        while (ready < 2) {
        }
        volatile int* nowhere = reinterpret_cast<int*>(0x1230);
        __asm__ volatile("" : "+r"(nowhere));
        *nowhere = 1;
      };
      std::thread(fault).detach();
      fault();
    });
    EXPECT_TRUE(WIFSIGNALED(status)) << status;
  }
}

// --- what the report needs is out of order ---

// With external linkage, so that the record can name it.
}  // namespace

__attribute__((noinline)) void CrashByNumber(int number) {
  test::Raise(number);
  __asm__ volatile("");  // no tail call
}

namespace {

// A fault of its own, which no sanitizer keeps back.
void Fault() {
  volatile int* nowhere = reinterpret_cast<int*>(0x1230);
  __asm__ volatile("" : "+r"(nowhere));
  *nowhere = 1;
}

void WaitForEver() {
  for (;;) {
    ::pause();
  }
}

class NamesThatCannotBeMadeReadable : public CrashHazards {
 protected:
  void ExpectTheNamesOfTheLinkerAndTheRest(const std::function<void()>& demangler) {
    const auto start = std::chrono::steady_clock::now();
    ExpectTheRest(Crash([&] {
      const test::Before demangling("__cxa_demangle", demangler);
      CrashByNumber(SIGSEGV);
    }));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(9));
    EXPECT_THAT(Record(), StartsWith("("));
    EXPECT_THAT(Record(), ContainsRegex("\n0x[0-9a-f]+ _Z13CrashByNumberi \\+ 0x[0-9a-f]+\n"));
    EXPECT_THAT(Record(), EndsWith(kRecordEnd));
    EXPECT_EQ(test::CountOf(Record(), "Process exit"), 1U);
  }
};

// As for the heap's lock, which the thread holds that has crashed.
TEST_F(NamesThatCannotBeMadeReadable, SinceThatNeverEnds) {
  ExpectTheNamesOfTheLinkerAndTheRest(WaitForEver);
}

TEST_F(NamesThatCannotBeMadeReadable, SinceThatCrashes) {
  ASSERT_EQ(::chdir(directory_.Path().c_str()), 0);  // where cores go, on most machines
  ExpectTheNamesOfTheLinkerAndTheRest([] {
    const rlimit core = {kCoreLimit, kCoreLimit};
    ::setrlimit(RLIMIT_CORE, &core);
    static_cast<void>(::write(STDERR_FILENO, "the heap is damaged\n", 20) == 0);
    Fault();
  });
  EXPECT_FALSE(fs::exists("core"));
}

TEST_F(NamesThatCannotBeMadeReadable, SinceTheProcessThatDoesSoIsEnded) {
  ExpectTheNamesOfTheLinkerAndTheRest([] { ::_exit(1); });
}

TEST_F(CrashHazards, ARecordThatIsSlowlyPutAnewIsNotCutShort) {
  ExpectTheRest(Crash([] {
    const test::Before writing("ftruncate", [] { ::sleep(3); });
    CrashByNumber(SIGSEGV);
  }));
  EXPECT_THAT(Record(), ContainsRegex("\n0x[0-9a-f]+ CrashByNumber\\(int\\) \\+ 0x[0-9a-f]+\n"));
  EXPECT_THAT(Record(), EndsWith(kRecordEnd));
}

TEST_F(CrashHazards, WhereTheStackCannotBeWalkedTheRegistersAreThere) {
  ExpectEndedBy(Crash([] {
                  const test::Before walk("_Unwind_Backtrace", Fault);
                  ::raise(SIGBUS);
                }),
                SIGSEGV);
  EXPECT_THAT(Record(), ContainsRegex(" Process exit due to signal: 7\nFault Address: [^\n]+\n"
                                      "Fault address: [^\n]+\nBacktrace:\n$"));
}

// A line of the log may be what the signal has interrupted, while it held the lock in there.
TEST_F(CrashHazards, WhereTheLibraryCannotTellTheDateTheRecordHasIt) {
  EXPECT_EQ(LookAfterTheRecord([] { return 1; },
                               [] { static const test::Before date("gmtime_r", WaitForEver); }),
            1);
}

// glibc looks at the heap; uClibc-ng, which passes for it, does not.
#if defined(__GLIBC__) && !defined(__UCLIBC__) && !defined(TAVLO_SANITIZED)
// Out of abort the unwinder finds no way there, as out of raise.
#if defined(__arm__)
constexpr const char* kAbortInMalloc = "signal: 6\nFault Address: ";
#else
constexpr const char* kAbortInMalloc = "signal: 6\nFault Address: .*\n.* malloc \\+ 0x";
#endif

// The next allocation that takes more than what there is finds a top of the heap that cannot be.
void DamageTheHeap() {
  constexpr size_t kSize = 100000;
  auto* const block = static_cast<char*>(std::malloc(kSize));
  std::memset(block + ::malloc_usable_size(block), 0xff, sizeof(size_t));
  void* volatile next = std::malloc(kSize);
  static_cast<void>(next);
}

TEST_F(CrashHazards, ADamagedHeapLeavesARecordEachTimeWhateverOtherThreadsDo) {
  for (int i = 0; i < 5; ++i) {  // two seconds each
    fs::remove(RecordPath());
    const int status = Crash([] {
      for (int logger = 0; logger < 2; ++logger) {
        std::thread([] {
          for (;;) {
            Orx::Log::Message2(Orx::Log::kInfo, "", "%s", std::string(100, 'x').c_str());
          }
        }).detach();
      }
      std::thread(DamageTheHeap).join();
    });
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    ASSERT_THAT(Record(), ContainsRegex(kAbortInMalloc));
    ASSERT_THAT(Record(), EndsWith(kRecordEnd));
  }
}
#endif

// --- no stack ---

// NOLINTNEXTLINE(misc-no-recursion): that is what overflows
__attribute__((noinline)) int Descend(int depth) {
  volatile char block[256] = {};  // where it meets the end there is no room for a handler
  block[0] = 1;
  return depth == 0 ? 0 : Descend(depth - 1) + block[0];
}

// Far deeper than any stack.
void RunOutOfStack() {
  Descend(1 << 20);
}

class StackOverflow : public CrashHazards {
 protected:
  // Ended by the signal at once, since the handler has no stack to run on.
  void ExpectNoReport(int status) {
    ExpectEndedBy(status, SIGSEGV);
    EXPECT_FALSE(fs::exists(RecordPath()));
    ExpectNotReported();
  }
};

TEST_F(StackOverflow, InTheMainThreadLeavesNoReport) {
  ExpectNoReport(Crash([] {
    const rlimit small = {1U << 20U, RLIM_INFINITY};
    ::setrlimit(RLIMIT_STACK, &small);
    RunOutOfStack();
  }));
}

TEST_F(StackOverflow, InAnotherThreadLeavesNoReport) {
  ExpectNoReport(Crash([] { std::thread(RunOutOfStack).join(); }));
}

// --- core files ---

class CoreFile : public CrashHazards {
 protected:
  void SetUp() override {
    pattern_ = test::ReadFile("/proc/sys/kernel/core_pattern");
    pattern_.erase(pattern_.find_last_not_of('\n') + 1);
  }

  // Crashes in the scratch directory, where at most `limit` bytes of a core file may appear.
  int CrashWithLimit(rlim_t limit) {
    return Crash([this, limit] {
      const rlimit core = {limit, HardLimit()};
      if (::chdir(directory_.Path().c_str()) == 0 && ::setrlimit(RLIMIT_CORE, &core) == 0) {
        ::raise(SIGSEGV);
      }
    });
  }

  static rlim_t HardLimit() {
    rlimit core = {};
    ::getrlimit(RLIMIT_CORE, &core);
    return core.rlim_max;
  }

  bool HasCoreFile() const {
    for (const fs::directory_entry& entry : fs::directory_iterator(directory_.Path())) {
      if (entry.path().filename().string().rfind(pattern_, 0) == 0) {
        return true;
      }
    }
    return false;
  }

  std::string pattern_;
};

TEST_F(CoreFile, IsLeftWhereTheLimitAllowsIt) {
  if (pattern_ != "core") {
    GTEST_SKIP() << "this system does not leave cores where the process runs: " << pattern_;
  }
  if (HardLimit() < kCoreLimit) {
    GTEST_SKIP() << "core files are forbidden here";
  }
  const int status = CrashWithLimit(kCoreLimit);
  ExpectTheRest(status);
  EXPECT_TRUE(WCOREDUMP(status));
  EXPECT_TRUE(HasCoreFile());
  EXPECT_THAT(Record(), EndsWith(kRecordEnd));
}

TEST_F(CoreFile, IsNotLeftWhereTheLimitForbidsIt) {
  if (pattern_.rfind('|', 0) == 0) {
    GTEST_SKIP() << "a program takes the cores, whatever the limit is: " << pattern_;
  }
  const int status = CrashWithLimit(0);
  ExpectTheRest(status);
  EXPECT_FALSE(WCOREDUMP(status));
  EXPECT_FALSE(HasCoreFile());
}

}  // namespace
