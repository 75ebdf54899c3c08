// Where the lines of the log go: console, system log and file, and what opens and shuts each. What
// a line looks like is in log_line_test.cc.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "support/faults.h"
#include "support/log_turn.h"
#include "support/stuck_console.h"
#include "support/syslog_recorder.h"
#include "support/temporary_directory.h"
#include "util/descriptor.h"
#include "util/log.h"
#include "util/privilege.h"

namespace {

namespace fs = std::filesystem;

using Orx::Log::Close;
using Orx::Log::kDebug;
using Orx::Log::kError;
using Orx::Log::kInfo;
using Orx::Log::Message2;
using Orx::Log::Open;
using Orx::Log::Reopen;
using test::Syslog;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr bool kOn = true;
constexpr bool kOff = false;

// Takes the place of what std::clog writes to.
class Console : public std::stringbuf {
 public:
  Console() : before_(std::clog.rdbuf(this)) {}
  ~Console() override { std::clog.rdbuf(before_); }
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // What had been written at the last flush.
  const std::string& Flushed() const { return flushed_; }

 private:
  int sync() override {
    flushed_ = str();
    return 0;
  }

  std::streambuf* before_;
  std::string flushed_;
};

// The part of each line after the process and thread.
std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream input(text);
  for (std::string line; std::getline(input, line);) {
    lines.push_back(line.substr(line.find("] ") + 2));
  }
  return lines;
}

std::vector<std::string> SyslogLines() {
  std::vector<std::string> lines;
  for (const auto& line : Syslog().lines) {
    lines.push_back(line.text.substr(line.text.find("] ") + 2));
  }
  return lines;
}

// The descriptor of this process that has `path` open, or -1.
int DescriptorOf(const std::string& path) {
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone) == path) {
      return std::stoi(entry.path().filename());
    }
  }
  return -1;
}

class LogSinks : public testing::Test {
 protected:
  std::vector<std::string> FileLines() const { return Lines(test::ReadFile(path_)); }
  std::vector<std::string> ConsoleLines() const { return Lines(console_.Flushed()); }

  const test::TemporaryDirectory directory_;
  const std::string path_ = directory_ / "log";
  const Console console_;
};

using LogBeforeOpen = LogSinks;
using LogOpen = LogSinks;
using LogConsole = LogSinks;
using LogSyslog = LogSinks;
using LogFileSink = LogSinks;
using LogReopen = LogSinks;
using LogClose = LogSinks;

TEST_F(LogBeforeOpen, PutsNothingOut) {
  Message2(kError, "void F()", "text");
  EXPECT_EQ(console_.str(), "");
  EXPECT_THAT(Syslog().calls, IsEmpty());
}

TEST_F(LogBeforeOpen, AnErrorFixesTheLevelAndLeavesEverySinkOff) {
  Message2(kError, "void F()", "early");
  Open("test", path_, kDebug, kOn, kOn, kOn);
  Message2(kError, "void F()", "late");

  EXPECT_EQ(Orx::Log::Detail::LogLevel(), kError);
  EXPECT_EQ(console_.str(), "");
  EXPECT_THAT(Syslog().calls, IsEmpty());
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(LogBeforeOpen, ADroppedMessageFixesTheLevelOnly) {
  Message2(kInfo, "void F()", "early");
  Open("test", path_, kDebug, kOn, kOn, kOn);
  Message2(kInfo, "void F()", "still above the ceiling");
  Message2(kError, "void F()", "late");

  EXPECT_EQ(Syslog().mask, LOG_UPTO(LOG_ERR));
  EXPECT_THAT(ConsoleLines(), ElementsAre("ERROR: void F: late"));
  EXPECT_THAT(SyslogLines(), ElementsAre("ERROR: void F: late"));
  EXPECT_THAT(FileLines(), ElementsAre("ERROR: void F: late"));
}

TEST_F(LogBeforeOpen, TheSettingsAreErrorLevelAndNoSink) {
  EXPECT_EQ(Orx::Log::Detail::LogLevel(), 3);
  EXPECT_FALSE(Orx::Log::Detail::ConsoleLogEnabled());
  EXPECT_FALSE(Orx::Log::Detail::SysLogEnabled());
  EXPECT_FALSE(Orx::Log::Detail::FileLogEnabled());
  EXPECT_FALSE(Orx::Log::Detail::LogFile().IsOpen());
}

TEST_F(LogOpen, TakesItsArguments) {
  Open("test", path_, kInfo, kOn, kOn, kOn);
  EXPECT_EQ(Orx::Log::Detail::LogLevel(), kInfo);
  EXPECT_TRUE(Orx::Log::Detail::ConsoleLogEnabled());
  EXPECT_TRUE(Orx::Log::Detail::SysLogEnabled());
  EXPECT_TRUE(Orx::Log::Detail::FileLogEnabled());
  EXPECT_EQ(Orx::Log::Detail::FilePath(), path_);
  EXPECT_TRUE(Orx::Log::Detail::LogFile().IsOpen());
}

TEST_F(LogOpen, KeepsItsOwnCopyOfThePath) {
  std::string path = path_;
  Open("test", path, kInfo, kOff, kOff, kOn);
  path[0] = 'X';
  EXPECT_EQ(Orx::Log::Detail::FilePath(), path_);
}

TEST_F(LogOpen, ASecondTimeKeepsTheFirstLevelFlagsAndPath) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  Message2(kInfo, "", "first");
  Open("other", directory_ / "other", kDebug, kOn, kOn, kOff);
  Message2(kInfo, "", "second");
  Message2(kDebug, "", "above the ceiling");

  EXPECT_THAT(FileLines(), ElementsAre("INFO: first", "INFO: second"));
  EXPECT_FALSE(fs::exists(directory_ / "other"));
  EXPECT_EQ(console_.str(), "");
  EXPECT_THAT(Syslog().calls, IsEmpty());
}

TEST_F(LogOpen, ASecondTimeOpensTheSystemLogUnderTheFirstNameAndLevel) {
  static const char* const name = "test";
  Open(name, "", kInfo, kOff, kOn, kOff);
  Open("other", "", kDebug, kOff, kOff, kOff);

  EXPECT_THAT(Syslog().calls, ElementsAre("setlogmask", "openlog", "setlogmask", "openlog"));
  EXPECT_EQ(Syslog().ident, name);
  EXPECT_EQ(Syslog().mask, LOG_UPTO(LOG_INFO));
}

TEST_F(LogOpen, ASecondTimeOpensTheFirstFileAnew) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  fs::rename(path_, directory_ / "old");
  Open("test", directory_ / "other", kInfo, kOff, kOff, kOn);
  Message2(kInfo, "", "text");

  EXPECT_THAT(FileLines(), ElementsAre("INFO: text"));
  EXPECT_EQ(test::ReadFile(directory_ / "old"), "");
}

TEST_F(LogOpen, OpensTheSystemLogBeforeTheFile) {
  std::vector<bool> fileThere;
  Syslog().onCall = [&] { fileThere.push_back(fs::exists(path_)); };
  Open("test", path_, kInfo, kOff, kOn, kOn);
  EXPECT_THAT(fileThere, ElementsAre(false, false));
  EXPECT_TRUE(fs::exists(path_));
}

TEST_F(LogOpen, WaitsForALineThatIsBeingLogged) {
  test::AwaitTurn([&] { Open("test", path_, kInfo, kOff, kOn, kOn); },
                  [&] {
                    EXPECT_THAT(Syslog().calls, IsEmpty());
                    EXPECT_FALSE(fs::exists(path_));
                  });
  EXPECT_TRUE(fs::exists(path_));
}

TEST_F(LogConsole, GetsEachLineWithALineFeedAndFlushed) {
  Open("test", "", kInfo, kOn, kOff, kOff);
  Message2(kInfo, "void F()", "first");
  EXPECT_THAT(console_.Flushed(), MatchesRegex(".*\\] INFO: void F: first\n"));
  Message2(kError, "void F()", "second");
  EXPECT_THAT(ConsoleLines(), ElementsAre("INFO: void F: first", "ERROR: void F: second"));
}

TEST_F(LogConsole, IsTriedAgainAfterAFailure) {
  Open("test", "", kInfo, kOn, kOff, kOff);
  std::clog.setstate(std::ios::badbit);
  Message2(kInfo, "", "text");
  EXPECT_THAT(ConsoleLines(), ElementsAre("INFO: text"));
}

TEST_F(LogConsole, GetsNothingWhenOff) {
  Open("test", path_, kInfo, kOff, kOn, kOn);
  Message2(kError, "", "text");
  EXPECT_EQ(console_.str(), "");
  EXPECT_THAT(FileLines(), ElementsAre("ERROR: text"));
}

TEST(LogStandardError, IsTheConsole) {
  const test::TemporaryDirectory directory;
  const std::string path = directory.Write("stderr", "");
  const int kept = ::dup(STDERR_FILENO);
  const int file = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(::dup2(file, STDERR_FILENO), STDERR_FILENO);
  Open("test", "", kInfo, kOn, kOff, kOff);
  Message2(kError, "", "text");
  ::dup2(kept, STDERR_FILENO);
  ::close(kept);
  ::close(file);

  EXPECT_THAT(Lines(test::ReadFile(path)), ElementsAre("ERROR: text"));
}

// Without the fixture's console: the lines go where they go.
class LogStuckConsole : public testing::Test {
 protected:
  std::vector<std::string> FileLines() const { return Lines(test::ReadFile(path_)); }

  const test::TemporaryDirectory directory_;
  const std::string path_ = directory_ / "log";
};

TEST_F(LogStuckConsole, LosesLinesThatAreCountedAndHoldsUpNobody) {
  test::StuckConsole console;
  Open("test", path_, kInfo, kOn, kOff, kOn);
  for (const char* text : {"first", "second", "third"}) {
    Message2(kInfo, "", "%s", text);
  }
  EXPECT_EQ(console.Read(), "");
  EXPECT_THAT(FileLines(), ElementsAre("INFO: first", "INFO: second", "INFO: third"));

  Message2(kError, "", "fourth");
  Message2(kError, "", "fifth");
  EXPECT_THAT(Lines(console.Read()),
              ElementsAre("INFO: void Orx::Log::Message2: Lines that the console did not take: 3",
                          "ERROR: fourth", "ERROR: fifth"));
  EXPECT_THAT(FileLines(), testing::SizeIs(5));
}

// As for a terminal that has room for less than a line.
TEST_F(LogSinks, ALineThatTheConsoleTakesInPartIsCountedToo) {
  Open("test", "", kInfo, kOn, kOff, kOff);
  std::streambuf* const working = std::clog.rdbuf(nullptr);
  Message2(kInfo, "", "first");
  std::clog.rdbuf(working);
  Message2(kInfo, "", "second");
  EXPECT_THAT(ConsoleLines(),
              ElementsAre("INFO: void Orx::Log::Message2: Lines that the console did not take: 1",
                          "INFO: second"));
}

TEST_F(LogStuckConsole, TheSystemLogDoesNotWaitForIt) {
  static const char* const name = "test";
  test::StuckConsole console;
  Open(name, "", kInfo, kOff, kOn, kOff);
  Message2(kInfo, "", "first");
  Message2(kInfo, "", "second");
  EXPECT_THAT(Syslog().calls, ElementsAre("setlogmask", "openlog", "openlog", "syslog", "syslog"));
  EXPECT_EQ(Syslog().ident, name);
  EXPECT_EQ(Syslog().options, LOG_PID | LOG_NDELAY);
  EXPECT_EQ(Syslog().facility, LOG_USER);

  console.Read();
  Message2(kInfo, "", "third");
  Message2(kInfo, "", "fourth");
  EXPECT_THAT(Syslog().calls, ElementsAre("setlogmask", "openlog", "openlog", "syslog", "syslog",
                                          "openlog", "syslog", "syslog"));
  EXPECT_EQ(Syslog().options, LOG_PID | LOG_NDELAY | LOG_PERROR);
}

TEST_F(LogSyslog, IsMaskedAndThenOpened) {
  static const char* const name = "tavlo";
  Open(name, "", kInfo, kOff, kOn, kOff);

  EXPECT_THAT(Syslog().calls, ElementsAre("setlogmask", "openlog"));
  EXPECT_EQ(Syslog().mask, 0x7f);
  EXPECT_EQ(Syslog().ident, name) << "the name is not copied";
  EXPECT_EQ(Syslog().options, LOG_PID | LOG_NDELAY | LOG_PERROR);
  EXPECT_EQ(Syslog().facility, LOG_USER);
}

TEST_F(LogSyslog, MaskHasABitForEachLevelUpToTheCeiling) {
  Open("test", "", kDebug, kOff, kOn, kOff);
  EXPECT_EQ(Syslog().mask, 0xff);
}

TEST_F(LogSyslog, MaskAtErrorLevelHasFourBits) {
  Open("test", "", kError, kOff, kOn, kOff);
  EXPECT_EQ(Syslog().mask, 0x0f);
}

TEST_F(LogSyslog, GetsTheConsolesLineUnderItsLevel) {
  Open("test", "", kDebug, kOn, kOn, kOff);
  for (const int level : {kError, 4, kInfo, kDebug}) {
    Syslog().lines.clear();
    const std::string before = console_.Flushed();
    Message2(level, "void F()", "%s", "100% text");

    ASSERT_EQ(Syslog().lines.size(), 1U);
    EXPECT_EQ(Syslog().lines[0].level, level);
    EXPECT_EQ(Syslog().lines[0].format, "%s");
    EXPECT_EQ(before + Syslog().lines[0].text + "\n", console_.Flushed());
  }
}

TEST_F(LogSyslog, ShowsLinesOnTheTerminalASecondTimeBesideTheConsole) {
  Open("test", "", kInfo, kOn, kOn, kOff);
  Message2(kError, "", "text");
  EXPECT_NE(Syslog().options & LOG_PERROR, 0);
  EXPECT_THAT(ConsoleLines(), ElementsAre("ERROR: text"));
  EXPECT_THAT(SyslogLines(), ElementsAre("ERROR: text"));
}

TEST_F(LogSyslog, IsNotOpenedAnewWithTheFile) {
  Open("test", path_, kInfo, kOff, kOn, kOn);
  Reopen();
  EXPECT_THAT(Syslog().calls, ElementsAre("setlogmask", "openlog"));
}

TEST_F(LogSyslog, IsNotTouchedWhenOff) {
  Open("test", path_, kInfo, kOn, kOff, kOn);
  Message2(kError, "", "text");
  Reopen();
  EXPECT_THAT(Syslog().calls, IsEmpty());
}

TEST_F(LogSinks, AreServedInTheOrderConsoleSystemLogFile) {
  Open("test", path_, kInfo, kOn, kOn, kOn);
  std::vector<std::string> consoleThen;
  std::vector<std::string> fileThen;
  Syslog().onCall = [&] {
    consoleThen = ConsoleLines();
    fileThen = FileLines();
  };
  Message2(kInfo, "", "text");

  EXPECT_THAT(consoleThen, ElementsAre("INFO: text"));
  EXPECT_THAT(fileThen, IsEmpty());
  EXPECT_THAT(FileLines(), ElementsAre("INFO: text"));
}

TEST_F(LogSinks, AreServedBeforeTheNextLineIsBegun) {
  Open("test", path_, kInfo, kOn, kOn, kOn);
  bool free = true;
  Syslog().onCall = [&] {
    std::thread([&] {
      free = Orx::Log::Detail::Mutex().try_lock();
      if (free) {
        Orx::Log::Detail::Mutex().unlock();
      }
    }).join();
  };
  Message2(kInfo, "", "text");
  EXPECT_FALSE(free);
}

TEST_F(LogFileSink, IsCreatedAtOnce) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  EXPECT_TRUE(fs::exists(path_));
}

TEST_F(LogFileSink, MayBeReadAndWrittenByAllWhomTheUmaskLets) {
  ::umask(0);
  Open("test", path_, kInfo, kOff, kOff, kOn);
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0666));
}

TEST_F(LogFileSink, MayBeASlowTerminal) {
  constexpr size_t kLines = 2000;
  const stdext::descriptor terminal(::posix_openpt(O_RDWR | O_NOCTTY));
  ASSERT_TRUE(terminal.is_open() && ::grantpt(terminal.get()) == 0 &&
              ::unlockpt(terminal.get()) == 0);
  char name[100] = {};
  ASSERT_EQ(::ptsname_r(terminal.get(), name, sizeof name), 0);
  Open("test", name, kInfo, kOff, kOff, kOn);
  std::thread writer([] {
    for (size_t i = 0; i < kLines; ++i) {
      Message2(kInfo, "", "a line of more than sixty characters, as most of the log's have");
    }
  });
  size_t lines = 0;
  char buffer[4096];
  for (ssize_t count = 1; lines < kLines && count > 0;) {
    count = ::read(terminal.get(), buffer, sizeof buffer);
    lines += static_cast<size_t>(std::count(buffer, buffer + std::max<ssize_t>(count, 0), '\n'));
  }
  writer.join();
  EXPECT_TRUE(Orx::Log::Detail::LogFile().IsGood());
}

TEST_F(LogFileSink, MayBeALinkOfOnesOwn) {
  const std::string target = directory_ / "target";
  ASSERT_EQ(::symlink(target.c_str(), path_.c_str()), 0);
  Open("test", path_, kInfo, kOff, kOff, kOn);
  Message2(kInfo, "", "text");
  EXPECT_THAT(Lines(test::ReadFile(target)), ElementsAre("INFO: text"));
}

TEST_F(LogFileSink, IsNotLookedForBehindALinkOfSomebodyElse) {
  constexpr uid_t kSomebody = 65534;
  const std::string other = directory_.Write("other", "root's");
  ASSERT_EQ(::symlink(other.c_str(), path_.c_str()), 0);
  if (::lchown(path_.c_str(), kSomebody, kSomebody) != 0) {
    GTEST_SKIP() << "only root can give a link away";
  }
  Open("test", path_, kInfo, kOff, kOff, kOn);
  Message2(kInfo, "", "text");
  EXPECT_FALSE(Orx::Log::Detail::LogFile().IsOpen());
  EXPECT_EQ(test::ReadFile(other), "root's");

  fs::remove(path_);
  Reopen();
  Message2(kInfo, "", "more text");
  EXPECT_THAT(FileLines(), ElementsAre("INFO: more text"));
}

TEST_F(LogFileSink, MayBeALinkOfRootsForAnotherUser) {
  const std::string target = directory_.Write("target", "");
  ASSERT_EQ(::symlink(target.c_str(), path_.c_str()), 0);
  fs::permissions(target, fs::perms(0666));
  fs::permissions(directory_.Path(), fs::perms(0755));
  if (::geteuid() != 0 || !stdext::drop_privilege("nobody").IsOk()) {
    GTEST_SKIP() << "only root can become somebody else";
  }
  Open("test", path_, kInfo, kOff, kOff, kOn);
  Message2(kInfo, "", "text");
  EXPECT_THAT(Lines(test::ReadFile(target)), ElementsAre("INFO: text"));
}

TEST_F(LogFileSink, IsAppendedToAndNeverTruncated) {
  directory_.Write("log", "from [an] earlier run\n");
  Open("test", path_, kInfo, kOff, kOff, kOn);
  EXPECT_EQ(test::ReadFile(path_), "from [an] earlier run\n");
  Message2(kInfo, "", "text");
  EXPECT_THAT(FileLines(), ElementsAre("earlier run", "INFO: text"));
}

TEST_F(LogFileSink, IsAppendedToAfterAnotherWriterToo) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  Message2(kInfo, "", "first");
  fs::resize_file(path_, 0);
  Message2(kInfo, "", "second");
  EXPECT_THAT(FileLines(), ElementsAre("INFO: second"));
}

TEST_F(LogFileSink, HasEachLineAtOnceByOneWrite) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  const test::Fault writes("write", 0, 0, 0);  // only counts
  Message2(kInfo, "", "first");
  EXPECT_EQ(writes.Calls(), 1);
  EXPECT_THAT(FileLines(), ElementsAre("INFO: first"));
  Message2(kInfo, "", "second");
  EXPECT_THAT(FileLines(), ElementsAre("INFO: first", "INFO: second"));
}

TEST_F(LogFileSink, GetsTheConsolesLines) {
  Open("test", path_, kInfo, kOn, kOff, kOn);
  Message2(kInfo, "void F()", "text");
  EXPECT_EQ(test::ReadFile(path_), console_.Flushed());
}

TEST_F(LogFileSink, IsNotInheritedByPrograms) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  const int fd = DescriptorOf(path_);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
}

TEST_F(LogFileSink, IsOpenedDespiteInterruptions) {
  const test::Fault fault("open", EINTR, 0, 3);
  Open("test", path_, kInfo, kOff, kOff, kOn);
  EXPECT_TRUE(Orx::Log::Detail::LogFile().IsGood());
  EXPECT_EQ(fault.Calls(), 4);
}

TEST_F(LogFileSink, GetsItsLineDespiteInterruptions) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  {
    const test::Fault fault("write", EINTR, 0, 3);
    Message2(kInfo, "", "interrupted");
  }
  Message2(kInfo, "", "text");
  EXPECT_THAT(FileLines(), ElementsAre("INFO: interrupted", "INFO: text"));
}

TEST_F(LogFileSink, IsNotOpenedWhenOff) {
  Open("test", path_, kInfo, kOn, kOff, kOff);
  Message2(kInfo, "", "text");
  EXPECT_FALSE(fs::exists(path_));
  EXPECT_THAT(ConsoleLines(), ElementsAre("INFO: text"));
}

TEST_F(LogFileSink, WithAnEmptyPathIsLeftOut) {
  Open("test", "", kInfo, kOn, kOn, kOn);
  Message2(kInfo, "", "text");
  EXPECT_FALSE(Orx::Log::Detail::LogFile().IsOpen());
  EXPECT_THAT(ConsoleLines(), ElementsAre("INFO: text"));
  EXPECT_THAT(SyslogLines(), ElementsAre("INFO: text"));
}

TEST_F(LogFileSink, InAMissingDirectoryIsLeftOutSilently) {
  const std::string path = directory_ / "missing/log";
  Open("test", path, kInfo, kOn, kOn, kOn);
  EXPECT_FALSE(Orx::Log::Detail::LogFile().IsGood());
  EXPECT_EQ(console_.str(), "");
  EXPECT_THAT(Syslog().lines, IsEmpty());

  Message2(kInfo, "", "text");
  fs::create_directory(directory_ / "missing");
  Message2(kInfo, "", "more text");

  EXPECT_THAT(ConsoleLines(), ElementsAre("INFO: text", "INFO: more text"));
  EXPECT_THAT(SyslogLines(), ElementsAre("INFO: text", "INFO: more text"));
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(LogFileSink, IsLeftOutSilentlyOnAFullDevice) {
  Open("test", "/dev/full", kInfo, kOn, kOn, kOn);
  EXPECT_TRUE(Orx::Log::Detail::LogFile().IsGood());
  Message2(kInfo, "", "text");
  EXPECT_FALSE(Orx::Log::Detail::LogFile().IsGood());
  EXPECT_THAT(ConsoleLines(), ElementsAre("INFO: text"));
  EXPECT_THAT(SyslogLines(), ElementsAre("INFO: text"));
}

// Lets no file of this process grow beyond `size` bytes; writing more fails.
void LimitFiles(rlim_t size) {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit = {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  limit.rlim_cur = size;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
}

TEST_F(LogFileSink, StaysLeftOutAfterAFailedWriteUntilReopened) {
  Open("test", path_, kInfo, kOn, kOff, kOn);
  LimitFiles(0);
  Message2(kInfo, "", "does not fit");
  LimitFiles(RLIM_INFINITY);
  Message2(kInfo, "", "would fit");
  EXPECT_EQ(test::ReadFile(path_), "");

  Reopen();
  Message2(kInfo, "", "reopened");
  EXPECT_THAT(FileLines(), ElementsAre("INFO: reopened"));
  EXPECT_THAT(ConsoleLines(),
              ElementsAre("INFO: does not fit", "INFO: would fit", "INFO: reopened"));
}

TEST_F(LogFileSink, StaysLeftOutAfterALineThatFitInPart) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  LimitFiles(20);
  Message2(kInfo, "", "fits in part");
  LimitFiles(RLIM_INFINITY);
  Message2(kInfo, "", "would fit");
  EXPECT_EQ(test::ReadFile(path_).size(), 20U);
}

TEST_F(LogReopen, LetsGoOfARenamedFile) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  Message2(kInfo, "", "before");
  fs::rename(path_, directory_ / "log.1");
  Message2(kInfo, "", "renamed");
  Reopen();
  Message2(kInfo, "", "after");

  EXPECT_THAT(Lines(test::ReadFile(directory_ / "log.1")),
              ElementsAre("INFO: before", "INFO: renamed"));
  EXPECT_THAT(FileLines(), ElementsAre("INFO: after"));
  EXPECT_EQ(DescriptorOf(directory_ / "log.1"), -1);
}

TEST_F(LogReopen, AppendsToAFileThatIsStillThere) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  Message2(kInfo, "", "before");
  Reopen();
  Message2(kInfo, "", "after");
  EXPECT_THAT(FileLines(), ElementsAre("INFO: before", "INFO: after"));
}

TEST_F(LogReopen, KeepsTheFileFromPrograms) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  Reopen();
  EXPECT_EQ(::fcntl(DescriptorOf(path_), F_GETFD), FD_CLOEXEC);
}

TEST_F(LogReopen, WaitsForALineThatIsBeingLogged) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  fs::remove(path_);
  test::AwaitTurn(Reopen, [&] { EXPECT_FALSE(fs::exists(path_)); });
  EXPECT_TRUE(fs::exists(path_));
}

TEST_F(LogReopen, LeavesTheFileOutForAsLongAsItCannotBeOpened) {
  const std::string folder = directory_ / "folder";
  const std::string path = folder + "/log";
  Open("test", path, kInfo, kOff, kOff, kOn);

  fs::create_directory(folder);
  Reopen();
  Message2(kInfo, "", "first");
  fs::rename(folder, directory_ / "aside");
  Reopen();
  Message2(kInfo, "", "lost");
  fs::rename(directory_ / "aside", folder);
  Reopen();
  Message2(kInfo, "", "second");

  EXPECT_THAT(Lines(test::ReadFile(path)), ElementsAre("INFO: first", "INFO: second"));
}

TEST_F(LogReopen, DoesNothingWithoutFileLogging) {
  Open("test", path_, kInfo, kOn, kOff, kOff);
  Reopen();
  EXPECT_FALSE(fs::exists(path_));
  EXPECT_TRUE(Orx::Log::Detail::LogFile().IsGood());
}

TEST_F(LogReopen, DoesNothingWithAnEmptyPath) {
  Open("test", "", kInfo, kOn, kOff, kOn);
  Reopen();
  EXPECT_FALSE(Orx::Log::Detail::LogFile().IsOpen());
  EXPECT_TRUE(Orx::Log::Detail::LogFile().IsGood());
}

TEST_F(LogReopen, DoesNothingBeforeOpen) {
  Reopen();
  EXPECT_FALSE(Orx::Log::Detail::LogFile().IsOpen());
}

TEST_F(LogClose, ShutsTheFileOnly) {
  Open("test", path_, kInfo, kOn, kOn, kOn);
  Message2(kInfo, "", "before");
  Close();
  Message2(kInfo, "", "after");

  EXPECT_THAT(FileLines(), ElementsAre("INFO: before"));
  EXPECT_EQ(DescriptorOf(path_), -1);
  EXPECT_THAT(ConsoleLines(), ElementsAre("INFO: before", "INFO: after"));
  EXPECT_THAT(Syslog().calls, ElementsAre("setlogmask", "openlog", "syslog", "closelog", "syslog"));
}

TEST_F(LogClose, ShutsTheSystemLogBeforeTheFile) {
  Open("test", path_, kInfo, kOff, kOn, kOn);
  bool fileOpen = false;
  Syslog().onCall = [&] { fileOpen = Orx::Log::Detail::LogFile().IsOpen(); };
  Close();
  EXPECT_TRUE(fileOpen);
}

TEST_F(LogClose, WaitsForALineThatIsBeingLogged) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  test::AwaitTurn(Close, [&] {
    EXPECT_THAT(Syslog().calls, IsEmpty());
    EXPECT_TRUE(Orx::Log::Detail::LogFile().IsOpen());
  });
  EXPECT_FALSE(Orx::Log::Detail::LogFile().IsOpen());
}

TEST_F(LogClose, KeepsTheSettings) {
  Open("test", path_, kInfo, kOn, kOn, kOn);
  Close();
  EXPECT_EQ(Orx::Log::Detail::LogLevel(), kInfo);
  EXPECT_TRUE(Orx::Log::Detail::ConsoleLogEnabled());
  EXPECT_TRUE(Orx::Log::Detail::SysLogEnabled());
  EXPECT_TRUE(Orx::Log::Detail::FileLogEnabled());
  EXPECT_EQ(Orx::Log::Detail::FilePath(), path_);
}

TEST_F(LogClose, ClosesTheSystemLogEvenWhenItIsOff) {
  Open("test", "", kInfo, kOff, kOff, kOff);
  Close();
  EXPECT_THAT(Syslog().calls, ElementsAre("closelog"));
}

TEST_F(LogClose, WithoutAnOpenFileLeavesItFailed) {
  Close();
  EXPECT_FALSE(Orx::Log::Detail::LogFile().IsGood());
}

TEST_F(LogClose, ThatFailsLeavesTheFileFailed) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  {
    const test::Fault fault("close", EIO);
    Close();
  }
  EXPECT_FALSE(Orx::Log::Detail::LogFile().IsGood());
}

TEST_F(LogClose, IsUndoneByOpen) {
  Open("test", path_, kInfo, kOff, kOff, kOn);
  Close();
  Open("test", "", kInfo, kOff, kOff, kOff);
  Message2(kInfo, "", "text");
  EXPECT_THAT(FileLines(), ElementsAre("INFO: text"));
}

}  // namespace
