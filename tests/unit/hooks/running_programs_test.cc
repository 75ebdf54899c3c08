#include "hooks/running_programs.h"

#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "hooks/secure_exec.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"
#include "support/wait.h"
#include "util/descriptor.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned int kPlenty = 60;  // seconds

struct Program {
  std::string path;
  pid_t pid;
};

std::vector<Program> Running() {
  std::vector<Program> found;
  Orx::TheRunningPrograms().ForEach([&found](const Orx::RunningProgram& program) {
    found.push_back({program.path, program.pid});
  });
  return found;
}

class RunningProgramsTest : public testing::Test {
 protected:
  RunningProgramsTest() {
    ::signal(SIGPIPE, SIG_IGN);
    ::mkfifo((directory_ / "gate").c_str(), 0600);
  }

  // Of a script that tells its number and waits for a word.
  std::string Waiting(const std::string& name) const {
    return directory_.WriteScript(name, "#!/bin/sh\necho $$ >" + (directory_ / (name + ".pid")) +
                                            "\nread word <" + (directory_ / "gate") + "\n");
  }

  pid_t PidOf(const std::string& name) const {
    std::string text;
    EXPECT_TRUE(test::WaitUntil([&] {
      text = test::ReadFile(directory_ / (name + ".pid"));
      return !text.empty() && text.back() == '\n';
    }));
    return std::stoi(text);
  }

  test::LogCapture log_;
  test::TemporaryDirectory directory_;
};

TEST_F(RunningProgramsTest, AreNoneAtFirst) {
  EXPECT_THAT(Running(), IsEmpty());
}

TEST_F(RunningProgramsTest, AreThoseOfAllThreadsUntilTheyEnd) {
  const stdext::descriptor gate(::open((directory_ / "gate").c_str(), O_RDWR | O_CLOEXEC));
  const std::string first = Waiting("first");
  const std::string second = Waiting("second");
  const auto run = [](const std::string& path) {
    Orx::SecureExec(path.c_str(), {}, "", nullptr, 0, kPlenty);
  };
  std::thread one(run, first);
  const pid_t firstPid = PidOf("first");
  std::thread other(run, second);
  const pid_t secondPid = PidOf("second");
  ASSERT_TRUE(test::WaitUntil([] { return Running().size() == 2; }));
  EXPECT_EQ(Running()[0].path, second);
  EXPECT_EQ(Running()[0].pid, secondPid);
  EXPECT_EQ(Running()[1].path, first);
  EXPECT_EQ(Running()[1].pid, firstPid);

  // The one that came first goes first.
  ::kill(firstPid, SIGKILL);
  one.join();
  ASSERT_EQ(Running().size(), 1U);
  EXPECT_EQ(Running()[0].pid, secondPid);
  ::kill(secondPid, SIGKILL);
  other.join();
  EXPECT_THAT(Running(), IsEmpty());
}

// Whoever signals it while it is shown signals nobody else.
TEST_F(RunningProgramsTest, AreNotReapedWhileTheyAreShown) {
  const std::string path = directory_.WriteScript("script", "#!/bin/sh\nexit 0\n");
  std::vector<size_t> shown;
  const test::Before reaping("waitid", [&shown] { shown.push_back(Running().size()); });
  EXPECT_EQ(Orx::SecureExec(path.c_str(), {}, "", nullptr, 0, kPlenty), 0);
  // The second wait is the one that gives its number back.
  EXPECT_THAT(shown, ElementsAre(1U, 0U));
}

TEST_F(RunningProgramsTest, AreNotThoseThatWereNeverStarted) {
  const test::Fault fault("fork", EAGAIN);
  EXPECT_EQ(Orx::SecureExec("/bin/true", {}, "", nullptr, 0, kPlenty), -1);
  EXPECT_THAT(Running(), IsEmpty());
}

}  // namespace
