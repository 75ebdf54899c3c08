// What a line of the log looks like. The tests read lines from the log file; where they go besides
// is in log_sinks_test.cc.

#include <cerrno>
#include <chrono>
#include <future>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/log_turn.h"
#include "support/temporary_directory.h"
#include "util/log.h"

// Functions that log by the macros. In an unnamed namespace a compiler may begin their names with
// the "(" at which the logger cuts.
namespace probe {

void LogsByMacro(int port) {
  ORX_LOG(Orx::Log::kError, "port %d", port);
}

bool LeavesEarly(bool early) {
  ORX_LOG_SCOPE();
  return early;
}

}  // namespace probe

namespace {

using Orx::Log::kDebug;
using Orx::Log::kError;
using Orx::Log::kInfo;
using Orx::Log::kMaxLineLength;
using Orx::Log::Message2;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

// 2026-01-31 17:04:05 UTC.
constexpr long kSomeTime = 1769879045;
constexpr int kAnyLevel = 100;

std::string Hex(unsigned long number) {
  std::ostringstream text;
  text << std::hex << number;
  return text.str();
}

std::string ThisProcessAndThread() {
  return "[" + Hex(static_cast<unsigned long>(::getpid())) + "." +
         Hex(static_cast<unsigned long>(::pthread_self())) + "] ";
}

// The log in a file at the wanted level, with whole lines.
class LogFile {
 public:
  explicit LogFile(int level = kAnyLevel) {
    Orx::Log::Open("test", path_, level, false, false, true);
  }

  std::string Text() const { return test::ReadFile(path_); }

  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::istringstream text(Text());
    for (std::string line; std::getline(text, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  std::string LastLine() const {
    const std::vector<std::string> lines = Lines();
    return lines.empty() ? "(no line)" : lines.back();
  }

 private:
  test::TemporaryDirectory directory_;
  std::string path_ = directory_ / "log";
};

// A text in memory that must not be looked at.
const char* Untouchable() {
  void* page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return static_cast<const char*>(page);
}

TEST(LogLine, HoldsTimeProcessThreadLevelFunctionAndText) {
  const test::FrozenClock clock(kSomeTime, 42999);
  const LogFile log;

  Message2(kError, "bool Init(const std::string&)", "Failed to %s %s", "ignore", "SIGPIPE");

  EXPECT_EQ(log.Text(), "2026-01-31 17:04:05.042 " + ThisProcessAndThread() +
                            "ERROR: bool Init: Failed to ignore SIGPIPE\n");
}

TEST(LogLine, HasAFixedLayout) {
  const LogFile log;

  Message2(kInfo, "void Run()", "tavlo started");

  EXPECT_THAT(log.LastLine(),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                           "\\[[1-9a-f][0-9a-f]*\\.[1-9a-f][0-9a-f]*\\] "
                           "INFO: void Run: tavlo started"));
}

TEST(LogLine, TellsTheTimeInUtcWhateverTheZone) {
  ASSERT_EQ(::setenv("TZ", "EAST-9", 1), 0);
  ::tzset();
  const test::FrozenClock clock(kSomeTime, 0);
  const LogFile log;

  Message2(kError, "", "text");

  EXPECT_THAT(log.LastLine(), StartsWith("2026-01-31 17:04:05.000 ["));
}

TEST(LogLine, TellsTheWallClocksTime) {
  const LogFile log;
  using Clock = std::chrono::system_clock;
  using std::chrono::milliseconds;

  const auto before = std::chrono::floor<milliseconds>(Clock::now());
  Message2(kError, "", "text");
  const auto after = Clock::now();

  const std::string line = log.LastLine();
  tm utc = {};
  ASSERT_NE(::strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &utc), nullptr) << line;
  const auto logged =
      Clock::from_time_t(::timegm(&utc)) + milliseconds(std::stoi(line.substr(20, 3)));
  EXPECT_GE(logged, before);
  EXPECT_LE(logged, after);
}

TEST(LogLine, TellsTheTimeOfItsTurnSoThatTheLogIsInTheOrderOfTime) {
  const LogFile log;
  const test::Fault clock("gettimeofday", 0, 0, 0);  // only counts
  test::AwaitTurn([] { Message2(kError, "", "text"); }, [&] { EXPECT_EQ(clock.Calls(), 0); });
  EXPECT_EQ(clock.Calls(), 1);
}

TEST(LogLine, HasThreeDigitsOfMillisecondsRoundedDown) {
  const LogFile log;
  const std::vector<std::pair<long, std::string>> expectations = {
      {0, ".000 "}, {999, ".000 "}, {1000, ".001 "}, {99999, ".099 "}, {999999, ".999 "}};
  for (const auto& [microseconds, text] : expectations) {
    const test::FrozenClock clock(kSomeTime, microseconds);
    Message2(kError, "", "text");
    EXPECT_EQ(log.LastLine().substr(0, 24), "2026-01-31 17:04:05" + text);
  }
}

TEST(LogLine, HasNoTimeWhenTheClockCannotBeRead) {
  const LogFile log;
  const test::Fault fault("gettimeofday", EFAULT);

  Message2(kError, "void Run()", "text");

  EXPECT_EQ(log.LastLine(), ThisProcessAndThread() + "ERROR: void Run: text");
}

TEST(LogLine, NamesTheThreadThatLogged) {
  const LogFile log;
  std::string otherThread;
  std::thread([&] {
    otherThread = ThisProcessAndThread();
    Message2(kError, "", "from another thread");
  }).join();

  ASSERT_NE(otherThread, ThisProcessAndThread());
  EXPECT_THAT(log.LastLine(), HasSubstr(" " + otherThread + "ERROR: from another thread"));
}

TEST(LogLine, GoesOnNamingTheProcessThatLoggedFirst) {
  const LogFile log;
  const std::string parent = ThisProcessAndThread();
  Message2(kError, "", "from the parent");

  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Message2(kError, "", "from the child");
    std::thread([] { Message2(kError, "", "from a thread of the child"); }).join();
    ::_exit(0);
  }
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);

  const std::vector<std::string> lines = log.Lines();
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_THAT(lines[1], EndsWith(parent + "ERROR: from the child"));
  EXPECT_THAT(lines[2], HasSubstr(" " + parent.substr(0, parent.find('.') + 1)));
}

TEST(LogLine, ProcessAndThreadAreAvailableOnTheirOwn) {
  EXPECT_EQ(std::string(Orx::Log::Detail::LogPidTid().data()), ThisProcessAndThread());
}

TEST(LogLevelPrefix, NamesErrorInformationAndDebug) {
  const LogFile log;
  Message2(3, "", "text");
  EXPECT_THAT(log.LastLine(), EndsWith("] ERROR: text"));
  Message2(6, "", "text");
  EXPECT_THAT(log.LastLine(), EndsWith("] INFO: text"));
  Message2(7, "", "text");
  EXPECT_THAT(log.LastLine(), EndsWith("] DEBUG: text"));
}

TEST(LogLevelPrefix, IsThreeBlanksForAnyOtherLevel) {
  const LogFile log;
  for (const int level : {-1, 0, 1, 2, 4, 5, 8, kAnyLevel}) {
    Message2(level, "", "text of level %d", level);
    EXPECT_THAT(log.LastLine(), EndsWith("]    text of level " + std::to_string(level)));
  }
}

TEST(LogFunction, IsCutAtItsFirstParenthesis) {
  const test::LogCapture log;
  Message2(kDebug, "void UpdateLanAddress()", "Enter");
  Message2(kDebug, "auto tavlo::Run(int (*)(char))::<lambda(int)>", "Enter");

  EXPECT_THAT(log.Lines(),
              ElementsAre("DEBUG: void UpdateLanAddress: Enter", "DEBUG: auto tavlo::Run: Enter"));
}

TEST(LogFunction, IsKeptWholeWithoutAParenthesis) {
  const test::LogCapture log;
  Message2(kError, "tavlo::httpAgent thread", "text");
  EXPECT_THAT(log.Lines(), ElementsAre("ERROR: tavlo::httpAgent thread: text"));
}

TEST(LogFunction, LeavesNothingBehindWhenEmpty) {
  const test::LogCapture log;
  Message2(kError, "", "text");
  EXPECT_THAT(log.Lines(), ElementsAre("ERROR: text"));
}

TEST(LogFunction, ThatBeginsWithAParenthesisKeepsItsColon) {
  const test::LogCapture log;
  Message2(kError, "(anonymous namespace)::F()", "text");
  EXPECT_THAT(log.Lines(), ElementsAre("ERROR: : text"));
}

TEST(LogFunction, IsCutBeforeTheTextSoThatParenthesesInTheTextStay) {
  const test::LogCapture log;
  Message2(kError, "void F()", "call (%s)", "x");
  EXPECT_THAT(log.Lines(), ElementsAre("ERROR: void F: call (x)"));
}

TEST(LogFunction, IsSuppliedByTheMacro) {
  const test::LogCapture log;
  probe::LogsByMacro(80);
  EXPECT_THAT(log.Lines(), ElementsAre("ERROR: void probe::LogsByMacro: port 80"));
}

TEST(LogScope, LogsEnterAndLeaveAtDebugLevel) {
  const test::LogCapture log;
  {
    const Orx::Log::Scope scope("void F(int)");
    Message2(kInfo, "", "inside");
  }
  EXPECT_THAT(log.Lines(),
              ElementsAre("DEBUG: void F: Enter", "INFO: inside", "DEBUG: void F: Leave"));
}

TEST(LogScope, IsMadeByTheMacroForTheEnclosingFunction) {
  const test::LogCapture log;
  probe::LeavesEarly(true);
  EXPECT_THAT(log.Lines(), ElementsAre("DEBUG: bool probe::LeavesEarly: Enter",
                                       "DEBUG: bool probe::LeavesEarly: Leave"));
}

TEST(LogText, FollowsPrintfRules) {
  const test::LogCapture log;
  Message2(kError, "", "%s|%5d|%-3d|%lx|%c|%%", "text", 42, 7, 255UL, 'c');
  EXPECT_THAT(log.Lines(), ElementsAre("ERROR: text|   42|7  |ff|c|%"));
}

TEST(LogText, FromAnArgumentIsNotAFormat) {
  const test::LogCapture log;
  Message2(kError, "", "%s", "100%s %n %d");
  EXPECT_THAT(log.Lines(), ElementsAre("ERROR: 100%s %n %d"));
}

// Of `length` bytes, with both ends marked.
std::string TextOfLength(size_t length) {
  std::string text(length, 'x');
  text.front() = '<';
  text.back() = '>';
  return text;
}

class LogLineLength : public testing::Test {
 protected:
  // What stands before the text of a line without a function.
  const std::string prefix_ = "2026-01-31 17:04:05.042 " + ThisProcessAndThread() + "ERROR: ";
  const test::FrozenClock clock_{kSomeTime, 42000};
  const LogFile log_;
};

TEST_F(LogLineLength, Of2047BytesIsTheLongest) {
  ASSERT_EQ(kMaxLineLength, 2047U);
  const std::string text = TextOfLength(2047 - prefix_.size());
  Message2(kError, "", "%s", text.c_str());
  EXPECT_EQ(log_.Text(), prefix_ + text + "\n");
}

TEST_F(LogLineLength, IsCutWhenOneByteTooLong) {
  const std::string text = TextOfLength(2048 - prefix_.size());
  Message2(kError, "", "%s", text.c_str());
  EXPECT_EQ(log_.Text(), prefix_ + text.substr(0, text.size() - 1) + "\n");
}

TEST_F(LogLineLength, IsCutWhenMuchTooLong) {
  Message2(kError, "", "%s", TextOfLength(100000).c_str());
  EXPECT_THAT(log_.LastLine(), AllOf(SizeIs(2047), StartsWith(prefix_ + "<xxx"), EndsWith("xxx")));
}

TEST_F(LogLineLength, CountsTheFunction) {
  const std::string function = TextOfLength(2047 - prefix_.size() - 4);
  Message2(kError, (function + "()").c_str(), "text");
  EXPECT_EQ(log_.Text(), prefix_ + function + ": te\n");
}

TEST_F(LogLineLength, LeavesNoRoomForATextAfterALongFunction) {
  const std::string function = TextOfLength(2048 - prefix_.size());
  Message2(kError, function.c_str(), "text");
  EXPECT_EQ(log_.Text(), prefix_ + function.substr(0, function.size() - 1) + "\n");
}

TEST_F(LogLineLength, DoesNotAffectTheNextLine) {
  Message2(kError, "", "%s", TextOfLength(5000).c_str());
  Message2(kError, "", "short");
  EXPECT_EQ(log_.LastLine(), prefix_ + "short");
}

TEST(LogLevel, LetsMessagesUpToTheCeilingPass) {
  const LogFile log(kInfo);
  Message2(kError, "", "error");
  Message2(kInfo, "", "information");
  Message2(kDebug, "", "debug");
  EXPECT_THAT(log.Lines(), ElementsAre(EndsWith("error"), EndsWith("information")));
}

TEST(LogLevel, LetsLevelsBetweenTheNamedOnesPass) {
  const LogFile log(kInfo);
  Message2(4, "", "warning");
  Message2(5, "", "notice");
  EXPECT_THAT(log.Lines(), ElementsAre(EndsWith("]    warning"), EndsWith("]    notice")));
}

TEST(LogLevel, AboveTheCeilingNeverEvaluatesTheFormat) {
  const LogFile log(kInfo);
  Message2(kDebug, "void F()", "%s", Untouchable());
  EXPECT_THAT(log.Lines(), SizeIs(0));
}

TEST(LogLevel, AboveTheCeilingTakesNoLock) {
  const LogFile log(kInfo);
  std::promise<void> release;
  std::promise<void> held;
  std::thread holder([&] {
    const std::lock_guard<std::mutex> lock(Orx::Log::Detail::Mutex());
    held.set_value();
    release.get_future().wait();
  });
  held.get_future().wait();

  auto logging = std::async(std::launch::async, [] { Message2(kDebug, "", "text"); });
  const auto state = logging.wait_for(std::chrono::seconds(30));
  release.set_value();
  holder.join();

  EXPECT_EQ(state, std::future_status::ready);
}

TEST(LogThreads, KeepLinesWholeAndLoseNone) {
  constexpr int kThreads = 8;
  constexpr int kLinesEach = 250;
  const test::LogCapture log;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread] {
      for (int line = 0; line < kLinesEach; ++line) {
        Message2(kInfo, "void F()", "thread %d line %d %s", thread, line, "=================");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  const std::vector<std::string> lines = log.Lines();
  std::set<std::string> expected;
  for (int thread = 0; thread < kThreads; ++thread) {
    for (int line = 0; line < kLinesEach; ++line) {
      expected.insert("INFO: void F: thread " + std::to_string(thread) + " line " +
                      std::to_string(line) + " =================");
    }
  }
  EXPECT_EQ(lines.size(), expected.size());
  EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()), expected);
}

TEST(LogThreads, MayLogWhileTheLogIsReopenedAndClosed) {
  constexpr int kLinesEach = 300;
  const LogFile log;
  const auto logSome = [] {
    for (int line = 0; line < kLinesEach; ++line) {
      Message2(kInfo, "void F()", "a line");
    }
  };
  std::thread first(logSome);
  std::thread second(logSome);
  for (int round = 0; round < 100; ++round) {
    Orx::Log::Reopen();
    Orx::Log::Close();
    Orx::Log::Open("test", "", kAnyLevel, false, false, false);
  }
  first.join();
  second.join();
  Message2(kInfo, "void F()", "a line");

  EXPECT_THAT(log.Lines(), testing::Each(MatchesRegex(".{23} \\[.*\\] INFO: void F: a line")));
  EXPECT_THAT(log.Lines(), SizeIs(testing::Ge(1U)));
}

}  // namespace
