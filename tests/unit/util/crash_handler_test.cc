// Each test crashes a child and reads what it left behind.

#include "util/crash_handler.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ostream>
#include <set>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <unistd.h>

#include "support/child.h"
#include "support/crash_test.h"
#include "support/faults.h"

// With external linkage, so that the record can name them.
__attribute__((noinline)) void CrashHere(int number) {
  test::Raise(number);
  __asm__ volatile("");  // no tail call
}

// Its name, written out, has more than 299 characters.
__attribute__((noinline)) void CrashUnderALongName(
    std::make_integer_sequence<unsigned long, 100> /*numbers*/) {
  test::Raise(SIGSEGV);
  __asm__ volatile("");
}

extern "C" __attribute__((noinline)) void crash_under_a_c_name() {
  test::Raise(SIGSEGV);
  __asm__ volatile("");
}

// Faults at its first instruction. (A compiler would put something before it.) 32-bit ARM's
// unwinder takes each address for one that a call returns to, and looks before it.
#if !defined(__arm__)
extern "C" void crash_at_once();
__asm__(
    ".pushsection .text\n"
    ".globl crash_at_once\n"
    ".type crash_at_once, %function\n"
    "crash_at_once:\n"
    ".cfi_startproc\n"
#if defined(__aarch64__)
    "udf #0\n"
#else
    "ud2\n"
#endif
    ".cfi_endproc\n"
    ".size crash_at_once, . - crash_at_once\n"
    ".popsection\n");
#endif

#if defined(__x86_64__)
// Faults at its second byte, which is as near to the start as can be told from it.
extern "C" void crash_one_byte_later();
__asm__(
    ".pushsection .text\n"
    ".globl crash_one_byte_later\n"
    ".type crash_one_byte_later, %function\n"
    "crash_one_byte_later:\n"
    ".cfi_startproc\n"
    "nop\n"
    "ud2\n"
    ".cfi_endproc\n"
    ".size crash_one_byte_later, . - crash_one_byte_later\n"
    ".popsection\n");
#endif

// NOLINTNEXTLINE(misc-no-recursion): a deep stack is the point
__attribute__((noinline)) int CrashAtDepth(int depth) {
  const int result = depth == 0 ? (test::Raise(SIGSEGV), 0) : CrashAtDepth(depth - 1);
  __asm__ volatile("");
  return result + 1;
}

namespace {

using test::CountOf;
using test::kRecordEnd;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using CrashHandlerTest = test::CrashTest;

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
  ExpectEndedBy(Crash([] { CrashHere(GetParam().number); }), GetParam().number);
  EXPECT_THAT(Record(),
              ContainsRegex("^\\([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\) Process "
                            "exit due to signal: " +
                            number +
                            "\nFault Address: [^\n]+\nFault address: [^ \n]+ PC: 0x[0-9a-f]+ SP: "
                            "0x[0-9a-f]+ LR: [^ \n]+\nBacktrace:\n"));
  EXPECT_THAT(Record(), ContainsRegex("\n0x[0-9a-f]+ CrashHere\\(int\\) \\+ 0x[0-9a-f]+\n"));
  EXPECT_THAT(Record(), EndsWith(kRecordEnd));
  ExpectReported(GetParam().number, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    All, FatalSignalTest,
    testing::Values(FatalSignal{SIGSEGV, "Segmentation fault"}, FatalSignal{SIGABRT, "Aborted"},
                    FatalSignal{SIGILL, "Illegal instruction"},
                    FatalSignal{SIGFPE, ::strsignal(SIGFPE)}, FatalSignal{SIGBUS, "Bus error"},
                    FatalSignal{SIGSYS, "Bad system call"}),
    [](const auto& suite) { return "Signal" + std::to_string(suite.param.number); });

TEST_F(CrashHandlerTest, ARealFaultIsRecordedWithItsAddress) {
  ExpectEndedBy(Crash([] {
                  volatile int* nowhere = reinterpret_cast<int*>(0x1230);
                  __asm__ volatile("" : "+r"(nowhere));
                  *nowhere = 1;
                }),
                SIGSEGV);
  EXPECT_THAT(Record(), HasSubstr("\nFault Address: 0x1230\nFault address: " +
                                  test::FaultAddress(0x1230) + " PC: 0x"));
}

TEST_F(CrashHandlerTest, ASignalThatWasSentHasNoFaultAddressFromTheProcessor) {
  ExpectEndedBy(Crash([] { CrashHere(SIGSEGV); }), SIGSEGV);
  char none[16] = {};  // not the same text in every C library
  std::snprintf(none, sizeof none, "%p", static_cast<void*>(nullptr));
  EXPECT_THAT(Record(), HasSubstr("\nFault address: " + std::string(none) + " PC: 0x"));
  // The signal's own tells who has sent it, or its like.
  EXPECT_THAT(Record(), Not(HasSubstr("\nFault Address: " + std::string(none) + "\n")));
}

TEST_F(CrashHandlerTest, WithoutATextForTheSignalItsConsoleLineEndsThere) {
  ExpectEndedBy(Crash([] {
                  const test::Fault fault("strsignal", 0);
                  CrashHere(SIGSEGV);
                }),
                SIGSEGV);
  EXPECT_EQ(Console(), "Process exit due to signal: 11(");
}

TEST_F(CrashHandlerTest, AnAbortIsRecordedToo) {
  ExpectEndedBy(Crash([] { std::abort(); }), SIGABRT);
  EXPECT_THAT(Record(), HasSubstr("Process exit due to signal: 6\n"));
}

TEST_F(CrashHandlerTest, ASecondCrashIsAppended) {
  for (const int number : {SIGSEGV, SIGBUS}) {
    ExpectEndedBy(Crash([number] { CrashHere(number); }), number);
  }
  EXPECT_EQ(CountOf(Record(), kRecordEnd), 2U);
  EXPECT_LT(Record().find("signal: 11\n"), Record().find("signal: 7\n"));
}

TEST_F(CrashHandlerTest, ADeepStackIsShownForFiftyFrames) {
  ExpectEndedBy(Crash([] { CrashAtDepth(200); }), SIGSEGV);
  const std::string record = Record();
  const std::string frames = record.substr(record.find("Backtrace:\n") + 11);
  EXPECT_EQ(CountOf(frames.substr(0, frames.find(kRecordEnd) + 1), "\n"), 50U);
  EXPECT_GT(CountOf(frames, "CrashAtDepth(int) + 0x"), 40U);
}

TEST_F(CrashHandlerTest, AFunctionThatIsLocalToItsFileIsPrivate) {
  ExpectEndedBy(Crash([] { CrashHere(SIGSEGV); }), SIGSEGV);
  EXPECT_THAT(Record(), ContainsRegex("\n0x[0-9a-f]+ <private>  0\n"));
}

TEST_F(CrashHandlerTest, ANameIsCutAt299CharactersAndTheNextOnesAreWhole) {
  std::string name = "CrashUnderALongName(std::integer_sequence<unsigned long";
  for (int number = 0; number < 100; ++number) {
    name += ", " + std::to_string(number) + "ul";
  }
  ExpectEndedBy(Crash([] { CrashUnderALongName({}); }), SIGSEGV);
  EXPECT_THAT(Record(), HasSubstr(" " + name.substr(0, 299) + " + 0x"));
  EXPECT_THAT(Record(), ContainsRegex("\n0x[0-9a-f]+ test::RunInChild\\(std::function<void "
                                      "\\(\\)> const&\\) \\+ 0x[0-9a-f]+\n"));
}

TEST_F(CrashHandlerTest, ANameThatIsNoMangledOneIsShownAsItIs) {
  ExpectEndedBy(Crash([] { crash_under_a_c_name(); }), SIGSEGV);
  EXPECT_THAT(Record(), ContainsRegex("\n0x[0-9a-f]+ crash_under_a_c_name \\+ 0x[0-9a-f]+\n"));
}

#if !defined(__arm__)
TEST_F(CrashHandlerTest, AnAddressThatIsTheFunctionsStartHasNoSign) {
  ExpectEndedBy(Crash([] { crash_at_once(); }), SIGILL);
  EXPECT_THAT(Record(), ContainsRegex("\n0x[0-9a-f]+ crash_at_once  0\n"));
}
#endif

#if defined(__x86_64__)
TEST_F(CrashHandlerTest, AnAddressBehindTheFunctionsStartHasASign) {
  ExpectEndedBy(Crash([] { crash_one_byte_later(); }), SIGILL);
  EXPECT_THAT(Record(), ContainsRegex("\n0x[0-9a-f]+ crash_one_byte_later \\+ 0x1\n"));
}
#endif

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

TEST_F(CrashHandlerTest, TheHandlerRunsOnTheThreadsStackAndBlocksNothingElse) {
  constexpr unsigned long kLibrarysOwn = 0x04000000;  // SA_RESTORER, where there is one
  Mirel::RegisterCrashHandler("program");
  for (const int number : {SIGSEGV, SIGABRT, SIGILL, SIGFPE, SIGBUS, SIGSYS}) {
    struct sigaction action = {};
    ASSERT_EQ(::sigaction(number, nullptr, &action), 0);
    // Its type differs from one C library to another.
    const auto flags = static_cast<unsigned long>(action.sa_flags);
    EXPECT_EQ(flags & ~kLibrarysOwn, static_cast<unsigned long>(SA_SIGINFO));
    for (int other = 1; other < 32; ++other) {
      EXPECT_EQ(sigismember(&action.sa_mask, other), 0) << other;
    }
  }
}

TEST_F(CrashHandlerTest, TheTimeOfTheRecordIsUtcAndExactToTheSecond) {
  const std::time_t before = std::time(nullptr);
  ExpectEndedBy(Crash([] {
                  ::setenv("TZ", "XYZ-5:30", 1);
                  ::tzset();
                  CrashHere(SIGSEGV);
                }),
                SIGSEGV);
  tm utc = {};
  ASSERT_NE(::strptime(Record().c_str(), "(%Y-%m-%d %H:%M:%S) ", &utc), nullptr);
  EXPECT_GE(::timegm(&utc), before);
  EXPECT_LE(::timegm(&utc), std::time(nullptr));
}

struct Moment {
  std::time_t seconds;
  const char* text;

  friend std::ostream& operator<<(std::ostream& out, const Moment& moment) {
    return out << moment.text;
  }
};

class TimeOfTheRecord : public CrashHandlerTest, public testing::WithParamInterface<Moment> {};

TEST_P(TimeOfTheRecord, IsThatOfTheCrash) {
  ExpectEndedBy(Crash([] {
                  const test::FrozenSeconds clock(GetParam().seconds);
                  CrashHere(SIGSEGV);
                }),
                SIGSEGV);
  EXPECT_THAT(Record(), StartsWith("(" + std::string(GetParam().text) + ") Process exit"));
}

INSTANTIATE_TEST_SUITE_P(Dates, TimeOfTheRecord,
                         testing::Values(Moment{0, "1970-01-01 00:00:00"},
                                         Moment{68255999, "1972-02-29 23:59:59"},
                                         Moment{68256000, "1972-03-01 00:00:00"},
                                         Moment{951782400, "2000-02-29 00:00:00"},
                                         Moment{1735689599, "2024-12-31 23:59:59"},
                                         Moment{1735689600, "2025-01-01 00:00:00"},
                                         Moment{1795340071, "2026-11-22 09:34:31"},
                                         Moment{4107542400, "2100-03-01 00:00:00"}));

TEST_F(CrashHandlerTest, OtherSignalsAreNotHandled) {
  const auto handled = [] {
    std::set<int> numbers;
    for (int number = 1; number < NSIG; ++number) {
      struct sigaction action = {};
      if (::sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
          action.sa_handler != SIG_IGN) {
        numbers.insert(number);
      }
    }
    return numbers;
  };
  std::set<int> expected = handled();  // a sanitizer's
  expected.insert({SIGSEGV, SIGABRT, SIGILL, SIGFPE, SIGBUS, SIGSYS});
  Mirel::RegisterCrashHandler("program");
  EXPECT_EQ(handled(), expected);
}

}  // namespace
