// Each test crashes a child and reads what it left behind.

#include "util/crash_handler.h"

#include <csignal>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/child.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"
#include "util/log.h"

// With external linkage, so that the record can name them.
__attribute__((noinline)) void CrashHere(int number) {
  ::raise(number);
  __asm__ volatile("");  // no tail call
}

// NOLINTNEXTLINE(misc-no-recursion): a deep stack is the point
__attribute__((noinline)) int CrashAtDepth(int depth) {
  const int result = depth == 0 ? (::raise(SIGSEGV), 0) : CrashAtDepth(depth - 1);
  __asm__ volatile("");
  return result + 1;
}

namespace {

using testing::Contains;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;

const std::string kSeparator(50, '-');

class CrashHandlerTest : public testing::Test {
 protected:
  // Runs `body` in a child with the handler installed; returns how the child ended.
  int Crash(const std::function<void()>& body) {
    return test::RunInChild([&] {
      const rlimit noCore = {0, 0};
      ::setrlimit(RLIMIT_CORE, &noCore);
      const int console = ::open(consolePath_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      ::dup2(console, STDERR_FILENO);
      Mirel::RegisterCrashHandler("/usr/sbin/program");
      Mirel::SetBacktraceDirectory(directory_.Path());
      body();
    });
  }

  std::string Record() const { return test::ReadFile(directory_ / "program-backtrace.log"); }
  std::string Console() const { return test::ReadFile(consolePath_); }

  static size_t CountOf(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++count;
    }
    return count;
  }

  static void ExpectEndedBy(int status, int number) {
    EXPECT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), number);
  }

  test::LogCapture log_;
  test::TemporaryDirectory directory_;
  const std::string consolePath_ = directory_ / "console";
};

struct FatalSignal {
  int number;
  const char* text;

  friend std::ostream& operator<<(std::ostream& out, const FatalSignal& signal) {
    return out << signal.text;
  }
};

class FatalSignalTest : public CrashHandlerTest, public testing::WithParamInterface<FatalSignal> {};

TEST_P(FatalSignalTest, LeavesARecordALogLineAndALineOnTheConsoleAndEndsByItsSignal) {
  const std::string number = std::to_string(GetParam().number);
  const std::string text = GetParam().text;
  ExpectEndedBy(Crash([] { CrashHere(GetParam().number); }), GetParam().number);
  EXPECT_THAT(Record(),
              ContainsRegex("^\\([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\) Process "
                            "exit due to signal: " +
                            number +
                            "\nFault Address: [^\n]+\nFault address: [^ \n]+ PC: 0x[0-9a-f]+ SP: "
                            "0x[0-9a-f]+ LR: [^ \n]+\nBacktrace:\n"));
  EXPECT_THAT(Record(), ContainsRegex("\n0x[0-9a-f]+ CrashHere\\(int\\) \\+ 0x[0-9a-f]+\n"));
  EXPECT_THAT(Record(), EndsWith("\n" + kSeparator + "\n\n"));
  EXPECT_THAT(log_.Lines(), Contains("ERROR: void {anonymous}::CrashHandler: Process exit due to "
                                     "signal: " +
                                     number + " (" + text + ")"));
  EXPECT_EQ(Console(), "Process exit due to signal: " + number + "(" + text + ")\n");
}

INSTANTIATE_TEST_SUITE_P(
    All, FatalSignalTest,
    testing::Values(FatalSignal{SIGSEGV, "Segmentation fault"}, FatalSignal{SIGABRT, "Aborted"},
                    FatalSignal{SIGILL, "Illegal instruction"},
                    FatalSignal{SIGFPE, "Floating point exception"},
                    FatalSignal{SIGBUS, "Bus error"}, FatalSignal{SIGSYS, "Bad system call"}),
    [](const auto& suite) { return "Signal" + std::to_string(suite.param.number); });

TEST_F(CrashHandlerTest, ARealFaultIsRecordedWithItsAddress) {
  ExpectEndedBy(Crash([] {
                  volatile int* nowhere = reinterpret_cast<int*>(0x1230);
                  __asm__ volatile("" : "+r"(nowhere));
                  *nowhere = 1;
                }),
                SIGSEGV);
  EXPECT_THAT(Record(), HasSubstr("\nFault Address: 0x1230\nFault address: 0x1230 PC: 0x"));
}

TEST_F(CrashHandlerTest, AnAbortIsRecordedToo) {
  ExpectEndedBy(Crash([] { std::abort(); }), SIGABRT);
  EXPECT_THAT(Record(), HasSubstr("Process exit due to signal: 6\n"));
}

TEST_F(CrashHandlerTest, ASecondCrashIsAppended) {
  for (const int number : {SIGSEGV, SIGBUS}) {
    ExpectEndedBy(Crash([number] { CrashHere(number); }), number);
  }
  EXPECT_EQ(CountOf(Record(), kSeparator + "\n\n"), 2U);
  EXPECT_LT(Record().find("signal: 11\n"), Record().find("signal: 7\n"));
}

TEST_F(CrashHandlerTest, ADeepStackIsShownForFiftyFrames) {
  ExpectEndedBy(Crash([] { CrashAtDepth(200); }), SIGSEGV);
  const std::string record = Record();
  const std::string frames = record.substr(record.find("Backtrace:\n") + 11);
  EXPECT_EQ(CountOf(frames.substr(0, frames.find(kSeparator)), "\n"), 50U);
  EXPECT_GT(CountOf(frames, "CrashAtDepth(int) + 0x"), 40U);
}

TEST_F(CrashHandlerTest, AFunctionThatIsLocalToItsFileIsPrivate) {
  ExpectEndedBy(Crash([] { CrashHere(SIGSEGV); }), SIGSEGV);
  EXPECT_THAT(Record(), ContainsRegex("\n0x[0-9a-f]+ <private>  0\n"));
}

TEST_F(CrashHandlerTest, WithoutItsDirectoryTheRestStillComes) {
  ExpectEndedBy(Crash([this] {
                  Mirel::SetBacktraceDirectory(directory_ / "missing");
                  CrashHere(SIGSEGV);
                }),
                SIGSEGV);
  EXPECT_EQ(Record(), "");
  EXPECT_EQ(Console(), "Process exit due to signal: 11(Segmentation fault)\n");
  EXPECT_THAT(log_.Lines(), Contains(HasSubstr("Process exit due to signal: 11")));
}

TEST_F(CrashHandlerTest, OnAFullDeviceTheRestStillComes) {
  ASSERT_EQ(::symlink("/dev/full", (directory_ / "program-backtrace.log").c_str()), 0);
  ExpectEndedBy(Crash([] { CrashHere(SIGSEGV); }), SIGSEGV);
  EXPECT_EQ(Console(), "Process exit due to signal: 11(Segmentation fault)\n");
}

TEST_F(CrashHandlerTest, BeforeADirectoryIsSetTheRecordGoesToTmp) {
  const std::string name = "tavlo-test-" + std::to_string(::getpid());
  const std::string path = "/tmp/" + name + "-backtrace.log";
  const int status = test::RunInChild([&name] {
    Mirel::RegisterCrashHandler(name);
    CrashHere(SIGSEGV);
  });
  ExpectEndedBy(status, SIGSEGV);
  EXPECT_THAT(test::ReadFile(path), HasSubstr("Process exit due to signal: 11\n"));
  ::unlink(path.c_str());
}

TEST_F(CrashHandlerTest, ASecondRegistrationChangesNothing) {
  ExpectEndedBy(Crash([] {
                  Mirel::RegisterCrashHandler("another-program");
                  CrashHere(SIGSEGV);
                }),
                SIGSEGV);
  EXPECT_NE(Record(), "");
}

TEST_F(CrashHandlerTest, AReportThatHangsIsEndedByTheAlarm) {
  const int status = Crash([] {
    std::thread([] {
      const std::lock_guard<std::mutex> lock(Orx::Log::Detail::Mutex());
      CrashHere(SIGSEGV);  // the report waits for the lock that this very thread holds
    }).join();
  });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_THAT(Record(), EndsWith("\n" + kSeparator + "\n\n"));
  EXPECT_EQ(Console(), "");
}

TEST_F(CrashHandlerTest, OtherSignalsAreNotHandled) {
  ExpectEndedBy(Crash([] { ::raise(SIGTERM); }), SIGTERM);
  EXPECT_EQ(Record(), "");
}

}  // namespace
