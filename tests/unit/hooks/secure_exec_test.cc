#include "hooks/secure_exec.h"

#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/child.h"
#include "support/error_text.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"
#include "support/wait.h"
#include "util/close_on_exec.h"
#include "util/log.h"

namespace {

using test::Before;
using test::ErrorText;
using test::Fault;
using testing::Contains;
using testing::ContainsRegex;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

constexpr unsigned int kPlenty = 60;  // seconds

size_t CountEntries(const std::string& directory) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

// What each descriptor of this process stands for.
std::map<int, std::string> OpenFiles() {
  std::map<int, std::string> files;
  for (int fd = 0; fd < 256; ++fd) {
    char target[PATH_MAX] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (::readlink(link.c_str(), target, sizeof target - 1) > 0) {
      files[fd] = target;
    }
  }
  return files;
}

bool HasChildren() {
  siginfo_t info = {};
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// For what is to be judged in one go: before each look at its pipes the child has exited, so that
// all it wrote is there, and all it held is closed.
void AwaitExit() {
  siginfo_t info = {};
  ::waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
}

class SecureExecTest : public testing::Test {
 protected:
  SecureExecTest() { ::signal(SIGPIPE, SIG_IGN); }

  // Runs a shell script; its standard output goes to `output_`.
  int RunScript(const std::string& script, const std::string& input = "",
                unsigned int timeoutSecs = kPlenty) {
    return Orx::SecureExec("/bin/sh", {"-c", script.c_str()}, input, &output_, maxOutput_,
                           timeoutSecs);
  }

  // The standard error of a script that begins with "echo $$ >&2" tells its process number.
  std::string Child() const {
    const std::string line = Errors().empty() ? "" : Errors().front();
    return line.substr(line.rfind(' ') + 1);
  }

  // The error lines so far, each from its function on.
  std::vector<std::string> Errors() const {
    std::vector<std::string> errors;
    for (const std::string& line : log_.Lines()) {
      if (line.rfind("ERROR: ", 0) == 0) {
        errors.push_back(line.substr(7));
      }
    }
    return errors;
  }

  test::LogCapture log_;
  test::TemporaryDirectory directory_;
  std::string output_ = "from an earlier call";
  ssize_t maxOutput_ = 10000;
};

class ExitStatus : public SecureExecTest, public testing::WithParamInterface<int> {};

TEST_P(ExitStatus, IsReturned) {
  EXPECT_EQ(RunScript("exit " + std::to_string(GetParam())), GetParam());
  EXPECT_THAT(Errors(), IsEmpty());
  EXPECT_EQ(output_, "");
}

INSTANTIATE_TEST_SUITE_P(All, ExitStatus, testing::Values(0, 1, 2, 3, 127, 255));

class DeathBySignal : public SecureExecTest, public testing::WithParamInterface<int> {};

TEST_P(DeathBySignal, IsAFailure) {
  const std::string number = std::to_string(GetParam());
  EXPECT_EQ(RunScript("ulimit -c 0; kill -" + number + " $$"), -1);
  EXPECT_THAT(Errors(), ElementsAre(ContainsRegex("^int Orx::SecureExec: Process abnormally exited "
                                                  "by signal " +
                                                  number + " PID [0-9]+$")));
}

INSTANTIATE_TEST_SUITE_P(All, DeathBySignal, testing::Values(SIGKILL, SIGSEGV, SIGUSR1));

TEST_F(SecureExecTest, DeathWithACoreDumpIsAFailureToo) {
  ASSERT_EQ(::chdir(directory_.Path().c_str()), 0);  // where it goes, on most machines
  EXPECT_EQ(RunScript("ulimit -c unlimited; kill -SEGV $$"), -1);
  EXPECT_THAT(Errors(), ElementsAre(HasSubstr("Process abnormally exited by signal 11 PID ")));
}

TEST_F(SecureExecTest, WhatCannotBeExecutedHasExitedWithOne) {
  std::filesystem::create_directory(directory_ / "directory");
  std::filesystem::create_symlink(directory_ / "nowhere", directory_ / "link");
  directory_.Write("not-executable", "#!/bin/sh\nexit 0\n");
  directory_.WriteScript("no-interpreter", "#!/nowhere/sh\n");
  const std::map<std::string, std::string> reasons = {
      {"missing", "2 No such file or directory"},        {"directory", "13 Permission denied"},
      {"link", "2 No such file or directory"},           {"not-executable", "13 Permission denied"},
      {"no-interpreter", "2 No such file or directory"},
  };
  for (const auto& [name, reason] : reasons) {
    const std::string path = directory_ / name;
    const size_t before = Errors().size();
    EXPECT_EQ(Orx::SecureExec(path.c_str(), {}, "", nullptr, 0, kPlenty), 1) << name;
    ASSERT_EQ(Errors().size(), before + 1) << name;
    EXPECT_EQ(Errors().back(), "int Orx::SecureExec: Failed to execute " + path + ": " + reason);
  }
}

TEST_F(SecureExecTest, AnAnswerOfOneIsNoFailureToExecuteAlsoNotAfterOne) {
  EXPECT_EQ(Orx::SecureExec(directory_.Path().c_str(), {}, "", nullptr, 0, kPlenty), 1);
  EXPECT_EQ(Errors().size(), 1U);
  EXPECT_EQ(RunScript("exit 1"), 1);
  EXPECT_EQ(Errors().size(), 1U);
}

TEST_F(SecureExecTest, EachThreadHasItsOwnReasons) {
  std::thread([this] {
    Orx::SecureExec(directory_.Path().c_str(), {}, "", nullptr, 0, kPlenty);
  }).join();
  EXPECT_EQ(RunScript("exit 1"), 1);
  EXPECT_EQ(Errors().size(), 1U);
}

TEST_F(SecureExecTest, ThatOneHasEndedIsADebugLineWithItsNumberStatusTimeAndPath) {
  const std::string path = directory_.WriteScript("10", "#!/bin/sh\necho $$; exit 7\n");
  EXPECT_EQ(Orx::SecureExec(path.c_str(), {}, "", &output_, 1000, kPlenty), 7);
  output_.pop_back();  // the line feed behind the number
  EXPECT_THAT(log_.Lines().back(), MatchesRegex("DEBUG: int Orx::SecureExec: PID " + output_ +
                                                " ended with status 7 after [0-9]+ ms: " + path));
}

TEST_F(SecureExecTest, TheTimeIsTheProgramsOwn) {
  EXPECT_EQ(RunScript("sleep 0.3"), 0);
  const std::string line = log_.Lines().back();
  const long time = std::stol(line.substr(line.find(" after ") + 7));
  EXPECT_GE(time, 300);
  EXPECT_LT(time, 20000);
}

TEST_F(SecureExecTest, TheLineOfItsEndComesBehindWhatWentWrong) {
  EXPECT_EQ(RunScript("kill -KILL $$"), -1);
  EXPECT_THAT(log_.Lines().back(), HasSubstr(" ended with status -1 after "));
  EXPECT_EQ(Orx::SecureExec(directory_.Path().c_str(), {}, "", nullptr, 0, kPlenty), 1);
  EXPECT_THAT(log_.Lines().back(), EndsWith(" ms: " + directory_.Path()));
}

TEST_F(SecureExecTest, ATextWithoutAnInterpreterIsRunByTheShell) {
  const std::string path = directory_.WriteScript("text", "exit 7\n");
  const int status = Orx::SecureExec(path.c_str(), {}, "", nullptr, 0, kPlenty);
#if defined(__GLIBC__)  // uClibc-ng says so of itself too
  EXPECT_EQ(status, 7);
#else
  // musl's execvpe leaves such a text alone.
  EXPECT_EQ(status, 1);
  EXPECT_THAT(Errors(), ElementsAre("int Orx::SecureExec: Failed to execute " + path + ": 8 " +
                                    ErrorText(ENOEXEC)));
#endif
}

TEST_F(SecureExecTest, ANameWithoutASlashIsLookedUpInPath) {
  directory_.WriteScript("tavlo-test-program", "#!/bin/sh\necho \"$0\"\nexit 5\n");
  ::setenv("PATH", (directory_.Path() + ":/usr/bin:/bin").c_str(), 1);
  EXPECT_EQ(Orx::SecureExec("tavlo-test-program", {}, "", &output_, 1000, kPlenty), 5);
  EXPECT_EQ(output_, directory_ / "tavlo-test-program\n");
}

TEST_F(SecureExecTest, ArgumentsArriveByteForByte) {
  const std::vector<const char*> args = {"-c",
                                         "printf '<%s>' \"$0\" \"$@\"",
                                         "zero",
                                         "a b",
                                         "",
                                         "\"'`$(id)\\",
                                         "line\nbreak",
                                         "--",
                                         "\xff\xc3\xa9"};
  EXPECT_EQ(Orx::SecureExec("/bin/sh", args, "", &output_, 1000, kPlenty), 0);
  EXPECT_EQ(output_, "<zero><a b><><\"'`$(id)\\><line\nbreak><--><\xff\xc3\xa9>");
}

TEST_F(SecureExecTest, ThePathIsWhatTheProgramIsToldAsItsName) {
  EXPECT_EQ(RunScript("tr '\\0' '\\n' </proc/$$/cmdline | head -n 1"), 0);
  EXPECT_EQ(output_, "/bin/sh\n");
}

// Nothing but the standard descriptors and the environment is another's.
TEST_F(SecureExecTest, DirectoryUmaskAndProcessGroupAreTheCallers) {
  ASSERT_EQ(::chdir(directory_.Path().c_str()), 0);
  ::umask(0123);
  EXPECT_EQ(RunScript("pwd; umask; cut -d ' ' -f 5,6 /proc/$$/stat"), 0);
  EXPECT_EQ(output_, directory_.Path() + "\n0123\n" + std::to_string(::getpgrp()) + " " +
                         std::to_string(::getsid(0)) + "\n");
}

TEST_F(SecureExecTest, SignalsAreBlockedAndIgnoredAsByTheCaller) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGHUP);
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &signals, nullptr), 0);
  ::signal(SIGUSR1, SIG_IGN);
  // Not a shell, which changes the mask.
  EXPECT_EQ(Orx::SecureExec("grep", {"^Sig[BI]", "/proc/self/status"}, "", &output_, 1000, kPlenty),
            0);
  const auto mask = [this](const std::string& name) {
    return std::stoul(output_.substr(output_.find(name) + name.size()), nullptr, 16);
  };
  const unsigned long ignored = mask("SigIgn:");
  EXPECT_EQ(mask("SigBlk:"), 1UL << (SIGHUP - 1));
  EXPECT_EQ(ignored & 1UL << (SIGPIPE - 1), 1UL << (SIGPIPE - 1));
  EXPECT_EQ(ignored & 1UL << (SIGUSR1 - 1), 1UL << (SIGUSR1 - 1));
  EXPECT_EQ(ignored & 1UL << (SIGUSR2 - 1), 0UL);
}

TEST_F(SecureExecTest, InputArrivesWholeAndEnds) {
  std::string input(1000000, 'x');
  input += std::string("\0end", 4);
  maxOutput_ = 2000000;
  EXPECT_EQ(RunScript("cat", input), 0);
  EXPECT_EQ(output_, input);
}

TEST_F(SecureExecTest, EmptyInputIsAtItsEndAtOnce) {
  EXPECT_EQ(RunScript("! read line"), 0);
}

TEST_F(SecureExecTest, InputThatIsNotReadIsAFailure) {
  EXPECT_EQ(RunScript("exec <&-; sleep 0.2; exit 0", std::string(200000, 'x')), -1);
  EXPECT_THAT(Errors(), ElementsAre("int Orx::SecureExec: stdout write failed: Broken pipe"));
}

TEST_F(SecureExecTest, NoInputForAChildThatReadsNoneIsNoFailure) {
  EXPECT_EQ(RunScript("exec <&-; sleep 0.2; exit 0"), 0);
}

TEST_F(SecureExecTest, OutputJustBelowTheLimitIsKept) {
  maxOutput_ = 3001;
  EXPECT_EQ(RunScript("head -c 3000 /dev/zero"), 0);
  EXPECT_EQ(output_, std::string(3000, '\0'));
}

TEST_F(SecureExecTest, OutputThatFillsTheLimitOrMoreIsAFailureAndKeptUpToIt) {
  for (const char* count : {"3000", "3001", "200000"}) {
    maxOutput_ = 3000;
    EXPECT_EQ(RunScript(std::string("head -c ") + count + " /dev/zero | tr '\\0' x"), -1) << count;
    EXPECT_EQ(output_, std::string(3000, 'x')) << count;
    EXPECT_THAT(Errors().back(), ContainsRegex("^int Orx::SecureExec: stdout output buffer size "
                                               "3000 overrun, PID [0-9]+$"));
  }
}

TEST_F(SecureExecTest, WithoutALimitAboveZeroNothingIsKeptAndNothingOverruns) {
  for (const ssize_t limit : {0, -1}) {
    maxOutput_ = limit;
    EXPECT_EQ(RunScript("echo text; exit 4"), 4);
    EXPECT_EQ(output_, "");
  }
}

TEST_F(SecureExecTest, WithoutAStringOutputIsDropped) {
  EXPECT_EQ(Orx::SecureExec("/bin/sh", {"-c", "head -c 500000 /dev/zero; exit 4"}, "", nullptr, 10,
                            kPlenty),
            4);
}

TEST_F(SecureExecTest, OutputWithoutALineEndAndBinaryOutputStayAsTheyAre) {
  EXPECT_EQ(RunScript("printf 'a\\000\\377b'"), 0);
  EXPECT_EQ(output_, std::string("a\0\xff"
                                 "b",
                                 4));
}

TEST_F(SecureExecTest, StandardErrorIsLoggedLineByLine) {
  EXPECT_EQ(RunScript("echo one >&2; printf 'two\\n\\nthree' >&2"), 0);
  EXPECT_THAT(
      Errors(),
      ElementsAre(ContainsRegex("^void Orx::SecureExecStderr: stderr from pid [0-9]+: one$"),
                  EndsWith(": two"), EndsWith(": "), EndsWith(": three")));
}

TEST_F(SecureExecTest, AnOverlongLineIsDroppedAsFarAsItHasCome) {
  EXPECT_EQ(RunScript("head -c 2048 /dev/zero | tr '\\0' x >&2; sleep 0.3; echo rest >&2"), 0);
  EXPECT_THAT(Errors(), ElementsAre(EndsWith(": rest")));
}

// It comes in pieces of 1024 bytes, of which the first two are more than is kept without an end.
TEST_F(SecureExecTest, OfAnOverlongLineThatComesAtOnceTheEndIsLogged) {
  EXPECT_EQ(RunScript("printf '%03000d\\n' 7 >&2"), 0);
  EXPECT_THAT(Errors(), ElementsAre(EndsWith(": " + std::string(951, '0') + "7")));
}

TEST_F(SecureExecTest, EachLineNamesTheChild) {
  EXPECT_EQ(RunScript("echo $$ >&2; kill -KILL $$"), -1);
  EXPECT_THAT(Errors(),
              ElementsAre("void Orx::SecureExecStderr: stderr from pid " + Child() + ": " + Child(),
                          EndsWith(" by signal 9 PID " + Child())));
}

TEST_F(SecureExecTest, TheLineOfATimeoutNamesTheChild) {
  EXPECT_EQ(RunScript("echo $$ >&2; exec sleep 30", "", 1), -1);
  EXPECT_THAT(Errors().back(), EndsWith(": Command timed out, PID " + Child()));
}

TEST_F(SecureExecTest, TheLineOfAnOverrunNamesTheChild) {
  maxOutput_ = 3;
  EXPECT_EQ(RunScript("echo $$ >&2; echo text"), -1);
  EXPECT_THAT(Errors().back(), EndsWith(" buffer size 3 overrun, PID " + Child()));
}

TEST_F(SecureExecTest, TheLinesOfFailedWaitsNameTheChild) {
  const Fault fault("waitid", ECHILD, 0, 2);
  EXPECT_EQ(RunScript("echo $$ >&2"), -1);
  EXPECT_THAT(Errors(), Contains(HasSubstr(": 1st waitid pid " + Child() + " failed: ")));
  EXPECT_THAT(Errors(), Contains(HasSubstr(": 2nd waitid pid " + Child() + " failed: ")));
}

TEST_F(SecureExecTest, WhatAKilledChildPrintedIsKept) {
  EXPECT_EQ(RunScript("echo text; kill -KILL $$"), -1);
  EXPECT_EQ(output_, "text\n");
}

TEST_F(SecureExecTest, AChildThatClosesItsOutputsAndGoesOnIsWaitedFor) {
  EXPECT_EQ(RunScript("exec >&- 2>&- <&-; sleep 0.3; exit 6"), 6);
}

TEST_F(SecureExecTest, AGrandchildThatHoldsThePipesIsWaitedFor) {
  EXPECT_EQ(RunScript("(sleep 0.5; echo late) & exit 2"), 2);
  EXPECT_EQ(output_, "late\n");
}

TEST_F(SecureExecTest, ManyChildrenOfTheChildAreNoTrouble) {
  EXPECT_EQ(RunScript("for i in 1 2 3 4 5 6 7 8 9 10; do (echo $i) & (echo $i) & done; wait"), 0);
  EXPECT_EQ(std::count(output_.begin(), output_.end(), '\n'), 20);
}

TEST_F(SecureExecTest, AChildThatStopsItselfIsWaitedForUntilItIsContinued) {
  EXPECT_EQ(RunScript("(until grep -q '^State:.T' /proc/$$/status; do :; done; kill -CONT $$) & "
                      "kill -STOP $$; wait; exit 3"),
            3);
}

TEST_F(SecureExecTest, AChildThatStopsItselfIsStillWatched) {
  EXPECT_EQ(RunScript("exec <&- >&- 2>&-; (sleep 2; kill -CONT $$) & kill -STOP $$; exit 3", "", 1),
            -1);
  EXPECT_THAT(Errors(), ElementsAre(HasSubstr("Command timed out, PID ")));
}

TEST_F(SecureExecTest, AChildIsEndedWhenItsTimeIsUp) {
  EXPECT_EQ(RunScript("exec sleep 30", "", 1), -1);
  EXPECT_THAT(Errors(), ElementsAre(ContainsRegex("^int Orx::SecureExec: Command timed out, PID "
                                                  "[0-9]+$")));
}

TEST_F(SecureExecTest, ATimeoutOfNothingEndsItAtOnce) {
  EXPECT_EQ(RunScript("exec sleep 30", "", 0), -1);
  EXPECT_THAT(Errors(), ElementsAre(HasSubstr("Command timed out, PID ")));
  EXPECT_THAT(log_.Lines(), Contains(EndsWith(" (0 secs)")));
}

TEST_F(SecureExecTest, AChildThatIgnoresSigtermIsWaitedForAndHasTimedOut) {
  EXPECT_EQ(RunScript("trap '' TERM; echo ready; sleep 4; echo done; exit 0", "", 2), -1);
  EXPECT_EQ(output_, "ready\ndone\n");
  EXPECT_THAT(Errors(), ElementsAre(HasSubstr("Command timed out, PID ")));
}

// The listeners' threads, which call hooks, have the daemon's signals blocked, and so have the
// children.
TEST_F(SecureExecTest, AProgramThatInheritsSigtermBlockedIsWaitedForAndHasTimedOut) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &signals, nullptr), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(RunScript("exec sleep 3", "", 1), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_THAT(Errors(), ElementsAre(HasSubstr("Command timed out, PID ")));
}

// Shells differ: one that unblocks signals when it starts a program meets it there. The program
// goes on, and with it the call.
struct ShellAndOutput {
  const char* name;
  const char* program;
  std::vector<const char*> args;
  const char* output;

  friend std::ostream& operator<<(std::ostream& out, const ShellAndOutput& shell) {
    return out << shell.name;
  }
};

class BlockedSigterm : public SecureExecTest, public testing::WithParamInterface<ShellAndOutput> {};

TEST_P(BlockedSigterm, MayFindNobodyHome) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &signals, nullptr), 0);
  EXPECT_EQ(Orx::SecureExec(GetParam().program, GetParam().args, "", &output_, 1000, 1), -1);
  EXPECT_EQ(output_, GetParam().output);
  EXPECT_THAT(Errors(), ElementsAre(HasSubstr("Command timed out, PID ")));
}

INSTANTIATE_TEST_SUITE_P(
    All, BlockedSigterm,
    testing::Values(ShellAndOutput{"Dash",
                                   "dash",
                                   {"-c", "sh -c 'sleep 2; echo program'; echo script"},
                                   "program\n"},
                    ShellAndOutput{"DashWithASubshell",
                                   "dash",
                                   {"-c", "(sleep 2; echo command); echo script"},
                                   "command\nscript\n"},
                    ShellAndOutput{"DashWithASubstitution",
                                   "dash",
                                   {"-c", "x=$(sleep 2; echo command); echo $x; echo script"},
                                   "command\nscript\n"},
                    ShellAndOutput{"Ash",
                                   "busybox",
                                   {"ash", "-c", "sh -c 'sleep 2; echo program'; echo script"},
                                   "program\nscript\n"}),
    [](const auto& suite) { return std::string(suite.param.name); });

// What docs/hooks.md advises.
TEST_F(SecureExecTest, SigkillEndsAProgramAllTheSame) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &signals, nullptr), 0);
  EXPECT_EQ(RunScript("timeout -s KILL 1 sleep 30; exit 0"), 0);
}

TEST_F(SecureExecTest, TheTimeoutIsTheFirstThingReported) {
  maxOutput_ = 3;
  EXPECT_EQ(RunScript("echo more than that; exec sleep 30", std::string(200000, 'x'), 1), -1);
  EXPECT_THAT(Errors().back(), HasSubstr("Command timed out, PID "));
  EXPECT_THAT(Errors(), Not(Contains(HasSubstr("overrun"))));
}

TEST_F(SecureExecTest, AFailureIsReportedBeforeAnOverrunAndThatBeforeASignal) {
  maxOutput_ = 3;
  EXPECT_EQ(RunScript("exec <&-; echo more than that; sleep 0.2", std::string(200000, 'x')), -1);
  EXPECT_THAT(Errors(), ElementsAre(HasSubstr("stdout write failed: Broken pipe")));
  EXPECT_EQ(RunScript("echo more than that; kill -KILL $$"), -1);
  EXPECT_THAT(Errors().back(), HasSubstr("stdout output buffer size 3 overrun"));
  EXPECT_THAT(Errors(), Not(Contains(HasSubstr("abnormally"))));
}

TEST_F(SecureExecTest, PipesThatCannotBeMadeAreAFailureAndLeaveNothing) {
  const size_t descriptors = CountEntries("/proc/self/fd");
  for (const int made : {0, 1, 2}) {
    const Fault fault("pipe2", EMFILE, made);
    EXPECT_EQ(RunScript("exit 0"), -1);
    EXPECT_EQ(Errors().back(), "int Orx::RaiiPipe::OpenPipe: pipe2 failed: " + ErrorText(EMFILE));
  }
  EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
}

TEST_F(SecureExecTest, ThePipesAreMadeInTheOrderOfTheDescriptorsTheyBecome) {
  const std::map<int, std::string> own = OpenFiles();
  std::vector<std::string> ends;  // in the order in which they were made: lowest numbers first
  const Before fork("fork", [&] {
    for (const auto& [fd, target] : OpenFiles()) {
      if (own.count(fd) == 0) {
        ends.push_back(target);
      }
    }
  });
  EXPECT_EQ(RunScript("readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2"), 0);
  ASSERT_EQ(ends.size(), 6U);
  EXPECT_EQ(output_, ends[0] + "\n" + ends[2] + "\n" + ends[4] + "\n");
}

TEST_F(SecureExecTest, ThePipesGoInTheOppositeOrder) {
  const std::map<int, std::string> own = OpenFiles();
  std::map<int, std::string> made;
  {
    const Before close("close", [&] { made = made.empty() ? OpenFiles() : made; });
    const Fault noThird("pipe2", EMFILE, 2);
    const Fault notClosed("close", EIO, 0, 1);  // what is closed first stays open
    EXPECT_EQ(RunScript("exit 0"), -1);
  }
  for (const auto& entry : own) {
    made.erase(entry.first);
  }
  std::vector<int> left;
  for (const auto& entry : OpenFiles()) {
    if (own.count(entry.first) == 0) {
      left.push_back(entry.first);
    }
  }
  ASSERT_EQ(made.size(), 4U);
  EXPECT_THAT(left, ElementsAre(std::next(made.begin(), 2)->first));
  ::close(left.at(0));
}

TEST_F(SecureExecTest, AForkThatIsRefusedIsAFailure) {
  const Fault fault("fork", EAGAIN);
  EXPECT_EQ(RunScript("exit 0"), -1);
  EXPECT_THAT(Errors(),
              ElementsAre("int Orx::SecureExec: fork failed: Resource temporarily unavailable"));
}

TEST_F(SecureExecTest, AChildWhoseStandardDescriptorsCannotBeMadeHasExitedWithOne) {
  for (const int made : {0, 1, 2}) {
    const Fault fault("dup2", EBUSY, made);
    EXPECT_EQ(RunScript("echo text; exit 3"), 1) << made;
    EXPECT_EQ(output_, "") << made;
  }
  EXPECT_THAT(Errors(),
              Each("int Orx::SecureExec: Failed to execute /bin/sh: 16 " + ErrorText(EBUSY)));
  EXPECT_EQ(Errors().size(), 3U);
}

TEST_F(SecureExecTest, AnInterruptedCopyIsRepeated) {
  const Fault fault("dup2", EINTR, 0, 3);
  EXPECT_EQ(RunScript("cat; echo complaint >&2", "text"), 0);
  EXPECT_EQ(output_, "text");
  EXPECT_THAT(Errors(), ElementsAre(EndsWith(": complaint")));
}

TEST_F(SecureExecTest, AFailingPollIsAFailureAndTheChildIsStillReaped) {
  const Fault fault("poll", ENOMEM);
  EXPECT_EQ(RunScript("exit 0"), -1);
  EXPECT_THAT(Errors(), ElementsAre("int Orx::SecureExec: poll failed: " + ErrorText(ENOMEM)));
  EXPECT_FALSE(HasChildren());
}

TEST_F(SecureExecTest, AFailureLeavesTheChildToItsWork) {
  const Fault fault("poll", ENOMEM);
  EXPECT_EQ(RunScript("sleep 0.3; echo done >" + (directory_ / "done")), -1);
  EXPECT_EQ(test::ReadFile(directory_ / "done"), "done\n");
}

TEST_F(SecureExecTest, AChildIsEndedWhenItsTimeIsUpAlsoAfterAFailure) {
  const Fault fault("poll", ENOMEM);
  EXPECT_EQ(RunScript("exec sleep 30", "", 1), -1);
  EXPECT_THAT(Errors(),
              ElementsAre(HasSubstr("poll failed"), HasSubstr("Command timed out, PID ")));
}

TEST_F(SecureExecTest, AnInterruptedPollIsNoFailure) {
  const Fault fault("poll", EINTR, 0, 3);
  EXPECT_EQ(RunScript("echo text"), 0);
  EXPECT_EQ(output_, "text\n");
}

TEST_F(SecureExecTest, AnOutputThatCannotBeReadIsAFailure) {
  const Fault fault("read", EIO, 0, 1);
  EXPECT_EQ(RunScript("echo text"), -1);
  EXPECT_THAT(Errors(), ElementsAre(EndsWith(": stderr read failed: " + ErrorText(EIO))));
}

// Standard output, at its end by then, is read first.
TEST_F(SecureExecTest, AStandardErrorThatCannotBeReadIsAFailure) {
  const Before poll("poll", AwaitExit);
  const Fault fault("read", EIO, 1, 1);
  EXPECT_EQ(RunScript("echo text >&2"), -1);
  EXPECT_THAT(Errors(), ElementsAre(EndsWith(": stderr read failed: " + ErrorText(EIO))));
}

TEST_F(SecureExecTest, AnInterruptedReadOfStandardErrorIsRepeated) {
  const Before poll("poll", AwaitExit);
  const Fault fault("read", EINTR, 1, 1);
  EXPECT_EQ(RunScript("echo text >&2"), 0);
  EXPECT_THAT(Errors(), ElementsAre(EndsWith(": text")));
}

TEST_F(SecureExecTest, AnInterruptedWriteIsRepeated) {
  std::unique_ptr<Fault> fault;
  const Before poll("poll", [&] {
    // From the first look on nobody writes but to the child: the watchdog has logged its line.
    if (fault == nullptr && test::WaitUntil([this] { return !log_.Lines().empty(); })) {
      fault = std::make_unique<Fault>("write", EINTR, 0, 2);
    }
  });
  EXPECT_EQ(RunScript("cat", "text"), 0);
  EXPECT_EQ(output_, "text");
  EXPECT_GT(fault->Calls(), 2);
}

TEST_F(SecureExecTest, InputIsJudgedBeforeOutput) {
  const Before poll("poll", AwaitExit);
  EXPECT_EQ(RunScript("exec <&-; echo text; echo complaint >&2", std::string(200000, 'x')), -1);
  EXPECT_THAT(Errors(), ElementsAre(HasSubstr("stdout write failed: Broken pipe")));
  EXPECT_EQ(output_, "");
}

TEST_F(SecureExecTest, OutputIsJudgedBeforeStandardError) {
  const Before poll("poll", AwaitExit);
  const Fault fault("read", EIO, 1, 1);
  EXPECT_EQ(RunScript("echo text; echo complaint >&2"), -1);
  EXPECT_EQ(output_, "text\n");
  EXPECT_THAT(Errors(), ElementsAre(HasSubstr("stderr read failed")));
}

TEST_F(SecureExecTest, AnInterruptedReadIsRepeated) {
  const Fault fault("read", EINTR, 0, 2);
  EXPECT_EQ(RunScript("echo text"), 0);
  EXPECT_EQ(output_, "text\n");
}

TEST_F(SecureExecTest, AnInputThatCannotBeClosedIsAFailureOnceAllIsDone) {
  const Fault fault("close", EIO, 3, 1);  // the child's ends go first
  EXPECT_EQ(RunScript("echo text"), -1);
  EXPECT_THAT(Errors(),
              ElementsAre(EndsWith(": Failed to close stdin write end: " + ErrorText(EIO))));
  EXPECT_EQ(output_, "text\n");
}

// Else its signal could meet a stranger who was given the child's number.
TEST_F(SecureExecTest, TheWatchdogHasEndedBeforeTheChildIsReaped) {
  const Fault joins("pthread_join", 0, 0, 0);  // counts
  std::vector<int> joinsBefore;
  const Before wait("waitid", [&] { joinsBefore.push_back(joins.Calls()); });
  EXPECT_EQ(RunScript("exit 3"), 3);
  EXPECT_THAT(joinsBefore, ElementsAre(0, 1));
}

TEST_F(SecureExecTest, InterruptedWaitsAreRepeated) {
  const Fault fault("waitid", EINTR, 0, 3);
  EXPECT_EQ(RunScript("exit 3"), 3);
}

TEST_F(SecureExecTest, AFirstWaitThatFailsIsLoggedAndTheStatusIsStillLearnt) {
  const Fault fault("waitid", ECHILD, 0, 1);
  EXPECT_EQ(RunScript("exit 3"), 3);
  EXPECT_THAT(Errors(), ElementsAre(ContainsRegex("^int Orx::SecureExec: 1st waitid pid [0-9]+ "
                                                  "failed: " +
                                                  ErrorText(ECHILD) + "$")));
}

TEST_F(SecureExecTest, ASecondWaitThatFailsIsLogged) {
  const Fault fault("waitid", ECHILD, 1, 1);
  EXPECT_EQ(RunScript("exit 3"), 3);
  EXPECT_THAT(Errors(), ElementsAre(ContainsRegex("^int Orx::SecureExec: 2nd waitid pid [0-9]+ "
                                                  "failed: " +
                                                  ErrorText(ECHILD) + "$")));
}

TEST_F(SecureExecTest, AChildThatSomebodyElseReapedCountsAsKilledBySignalZero) {
  ::signal(SIGCHLD, SIG_IGN);  // the kernel reaps
  EXPECT_EQ(RunScript("exit 3"), -1);
  EXPECT_THAT(Errors(), ElementsAre(HasSubstr("1st waitid"), HasSubstr("2nd waitid"),
                                    HasSubstr("Process abnormally exited by signal 0 PID ")));
}

TEST_F(SecureExecTest, AWatchdogThatCannotBeStartedThrowsAndTheNextCallReapsTheChild) {
  const size_t descriptors = CountEntries("/proc/self/fd");
  {
    const Fault fault("pthread_create", EAGAIN);
    EXPECT_THROW(RunScript("exit 0"), std::system_error);
  }
  EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
  EXPECT_TRUE(HasChildren());
  EXPECT_TRUE(test::WaitUntil([this] {
    RunScript("exit 0");
    return !HasChildren();
  }));
}

TEST_F(SecureExecTest, AChildWithoutAWatchdogIsNeitherWaitedForNorSignalledByLaterCalls) {
  const std::string gate = directory_ / "gate";
  ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
  const int opener = ::open(gate.c_str(), O_RDWR | O_CLOEXEC);
  const std::string script = "read line <" + gate + "; echo $line >" + (directory_ / "said");
  {
    const Fault fault("pthread_create", EAGAIN);
    EXPECT_THROW(RunScript(script), std::system_error);
  }
  EXPECT_EQ(RunScript("exit 3"), 3);
  EXPECT_TRUE(HasChildren());
  EXPECT_EQ(::write(opener, "word\n", 5), 5);
  EXPECT_TRUE(test::WaitUntil([this] { return test::ReadFile(directory_ / "said") == "word\n"; }));
  ::close(opener);
}

struct ClosedDescriptors {
  const char* name;
  std::vector<int> numbers;

  friend std::ostream& operator<<(std::ostream& out, const ClosedDescriptors& closed) {
    return out << closed.name;
  }
};

class StandardDescriptors : public SecureExecTest,
                            public testing::WithParamInterface<ClosedDescriptors> {};

TEST_P(StandardDescriptors, MayBeMissingInTheCaller) {
  // Given the order in which pipes are made, each end gets one of the low numbers in some case.
  const int status = test::RunInChild([this] {
    for (const int number : GetParam().numbers) {
      ::close(number);
    }
    for (int fd = STDERR_FILENO + 1; fd < 256; ++fd) {
      stdext::set_close_on_exec(fd);  // whatever started the test may have left some
    }
    const int result =
        RunScript("read line; echo \"got $line\"; ls /proc/$$/fd; echo complaint >&2", "input\n");
    ::_exit(result == 0 && output_ == "got input\n0\n1\n2\n" ? 0 : 1);
  });
  EXPECT_EQ(status, 0);
  EXPECT_THAT(Errors(), ElementsAre(EndsWith(": complaint")));
}

INSTANTIATE_TEST_SUITE_P(All, StandardDescriptors,
                         testing::Values(ClosedDescriptors{"Input", {0}},
                                         ClosedDescriptors{"Output", {1}},
                                         ClosedDescriptors{"Error", {2}},
                                         ClosedDescriptors{"InputAndOutput", {0, 1}},
                                         ClosedDescriptors{"InputAndError", {0, 2}},
                                         ClosedDescriptors{"OutputAndError", {1, 2}},
                                         ClosedDescriptors{"All", {0, 1, 2}}),
                         [](const auto& suite) { return std::string(suite.param.name); });

TEST_F(SecureExecTest, OnlyDescriptorsThatAreNotCloseOnExecAreInherited) {
  const std::string path = directory_.Write("open", "");
  const int kept = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const int given = ::open(path.c_str(), O_RDONLY);  // by somebody who forgot
  EXPECT_EQ(RunScript("ls -l /proc/$$/fd"), 0);
  EXPECT_THAT(output_, HasSubstr(" " + std::to_string(given) + " -> " + path + "\n"));
  EXPECT_THAT(output_, Not(HasSubstr(" " + std::to_string(kept) + " -> ")));
  EXPECT_THAT(output_, Not(HasSubstr("/log\n")));
  ::close(kept);
  ::close(given);
}

void RunMany(int count, int* failures) {
  for (int i = 0; i < count; ++i) {
    std::string output;
    const int result =
        Orx::SecureExec("/bin/sh", {"-c", "cat; exit 1"}, "text", &output, 100, kPlenty);
    *failures += result == 1 && output == "text" ? 0 : 1;
  }
}

// Whether a library could have opened a descriptor, not marked yet, when the child was made.
bool wasOpenToLibraries = true;

void SeeWhetherLibrariesMayOpen() {
  std::thread([] {
    wasOpenToLibraries = stdext::exec_mutex().try_lock();
    if (wasOpenToLibraries) {
      stdext::exec_mutex().unlock();
    }
  }).join();
}

TEST_F(SecureExecTest, NoChildIsMadeWhileALibraryOpensADescriptor) {
  ASSERT_EQ(::pthread_atfork(SeeWhetherLibrariesMayOpen, nullptr, nullptr), 0);
  EXPECT_EQ(RunScript("exit 0"), 0);
  EXPECT_FALSE(wasOpenToLibraries);
}

TEST_F(SecureExecTest, FiveHundredRunsLeaveNothingBehind) {
  int failures = 0;
  RunMany(1, &failures);
  const size_t descriptors = CountEntries("/proc/self/fd");
  const size_t threads = CountEntries("/proc/self/task");
  RunMany(500, &failures);
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
  EXPECT_TRUE(test::WaitUntil([&] { return CountEntries("/proc/self/task") <= threads; }));
  EXPECT_FALSE(HasChildren());
}

TEST_F(SecureExecTest, FiveHundredRunsFromTwoThreadsLeaveNothingBehind) {
  int failures[3] = {};
  RunMany(1, &failures[2]);
  const size_t descriptors = CountEntries("/proc/self/fd");
  const size_t threads = CountEntries("/proc/self/task");
  std::thread first(RunMany, 250, &failures[0]);
  std::thread second(RunMany, 250, &failures[1]);
  first.join();
  second.join();
  EXPECT_THAT(failures, ElementsAre(0, 0, 0));
  EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
  EXPECT_TRUE(test::WaitUntil([&] { return CountEntries("/proc/self/task") <= threads; }));
  EXPECT_FALSE(HasChildren());
}

class StandardError : public testing::Test {
 protected:
  // What is left in the buffer; the lines are in the log.
  std::string Log(std::string buffer, bool eof) {
    Orx::SecureExecStderr(buffer, eof, 42);
    return buffer;
  }

  test::LogCapture log_;
};

TEST_F(StandardError, APartialLineWaitsForItsEnd) {
  EXPECT_EQ(Log("one\ntwo\npart", false), "part");
  EXPECT_THAT(log_.Lines(),
              ElementsAre("ERROR: void Orx::SecureExecStderr: stderr from pid 42: one",
                          "ERROR: void Orx::SecureExecStderr: stderr from pid 42: two"));
}

TEST_F(StandardError, LinesKeepTheirOrderAndEndAtTheirFirstNul) {
  EXPECT_EQ(Log(std::string("\none\n\ntwo\0rest\n\nthree\npart", 26), false), "part");
  const std::string start = "ERROR: void Orx::SecureExecStderr: stderr from pid 42: ";
  EXPECT_THAT(log_.Lines(),
              ElementsAre(start, start + "one", start, start + "two", start, start + "three"));
}

// By moving the rest for each of them it would take longer than a test may.
TEST(StandardErrorInOnePiece, MillionsOfLinesAreDealtWithInOnePass) {
  Orx::Log::Open("test", "", 0, false, false, false);  // what logging takes is not the question
  std::string buffer(4U << 20U, '\n');
  Orx::SecureExecStderr(buffer, false, 42);
  EXPECT_EQ(buffer, "");
}

TEST_F(StandardError, APartialLineIsLoggedAtTheEnd) {
  EXPECT_EQ(Log("part", true), "");
  EXPECT_THAT(log_.Lines(), ElementsAre(EndsWith(": part")));
}

// By then it is alone: the end comes in a call of its own.
TEST_F(StandardError, APartialLineBehindOthersWaitsAlsoAtTheEnd) {
  EXPECT_EQ(Log("one\npart", true), "part");
  EXPECT_THAT(log_.Lines(), ElementsAre(EndsWith(": one")));
}

TEST_F(StandardError, NothingIsLoggedForNothing) {
  EXPECT_EQ(Log("", true), "");
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(StandardError, APartialLineOf1024BytesWaitsAndALongerOneIsDropped) {
  EXPECT_EQ(Log(std::string(1024, 'x'), false), std::string(1024, 'x'));
  EXPECT_EQ(Log(std::string(1025, 'x'), false), "");
  EXPECT_EQ(Log(std::string(1025, 'x'), true), "");
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(StandardError, ManyLinesAtOnceAreAllLogged) {
  std::string lines;
  for (int i = 0; i < 2000; ++i) {
    lines += "x\n";
  }
  EXPECT_EQ(Log(lines + "part", false), "part");
  EXPECT_EQ(log_.Lines().size(), 2000U);
}

TEST_F(StandardError, ACompleteLongLineIsLogged) {
  EXPECT_EQ(Log(std::string(1500, 'x') + "\n", false), "");
  EXPECT_THAT(log_.Lines(), ElementsAre(EndsWith(": " + std::string(1500, 'x'))));
}

}  // namespace
