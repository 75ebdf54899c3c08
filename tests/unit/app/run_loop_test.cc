#include "app/run_loop.h"

#include <algorithm>
#include <cerrno>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "app/daemon_fixture.h"
#include "app/thread_monitor.h"

namespace {

using test::Fault;
using test::RunInChild;
using testing::AllOf;
using testing::Contains;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class RunLoop : public test::DaemonFixture {
 protected:
  // Runs the daemon in a child, with `prepare` called between `Init` and `Run`.
  template <typename Preparation>
  void RunDaemon(const Preparation& prepare) {
    const int status = RunInChild([&] {
      if (!Init(configPath_)) {
        ::_exit(1);
      }
      prepare();
      ::Run();
    });
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }

  // Sends a signal to this process as soon as the log has the line.
  void SignalAfter(const std::string& line, int signal) {
    std::thread([this, line, signal] {
      test::WaitUntil([&] { return LogHas(line); });
      ::kill(::getpid(), signal);
    }).detach();
  }

  size_t Count(const std::string& line) const {
    const auto lines = log_.Lines();
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
  }
};

TEST_F(RunLoop, StartsRefreshesAndEndsBySignal) {
  RunDaemon([this] { SignalAfter("DEBUG: void Run: Update LAN address", SIGTERM); });
  std::vector<std::string> lines = log_.Messages();
  lines.erase(lines.begin(),
              std::find(lines.begin(), lines.end(), "INFO: void Run: tavlo started"));
  EXPECT_THAT(
      lines,
      ElementsAre("INFO: void Run: tavlo started", "DEBUG: void Run: Got signal 0, from pid 0",
                  "DEBUG: void Run: Update pairing key",
                  "DEBUG: void tavlo::AgentHost::SetPairingKey: Updated: '123...'",
                  "DEBUG: void Run: Update LAN address",
                  "ERROR: void UpdateLanAddress: Could not find active IPv4 address from interface "
                  "'lo'",
                  ContainsRegex("^INFO: void Run: Exit by signal 15, from pid [1-9][0-9]*$")));
  EXPECT_EQ(log_.Lines().back(), "DEBUG: void Run: Leave");
}

TEST_F(RunLoop, ASilentThreadEndsItWithTheMeasuredSilence) {
  RunDaemon([] {
    const auto longAgo = std::chrono::steady_clock::now() - std::chrono::milliseconds(75900);
    Orx::TheThreadMonitor().Register(1, {"tavlo::fake", std::chrono::seconds(60), longAgo});
  });
  // 75.9 seconds and little more, truncated.
  EXPECT_THAT(log_.Lines(),
              Contains(ContainsRegex("^ERROR: void Run: Exit as missing thread hearbeat with "
                                     "id=tavlo::fake interval=7[56]s$")));
  EXPECT_THAT(log_.Lines(), Not(Contains("DEBUG: void Run: Update pairing key")));
}

TEST_F(RunLoop, SighupReadsTheKeyAgainAlthoughTheFileIsUnchanged) {
  RunDaemon([this] {
    SignalAfter("DEBUG: void Run: Update LAN address", SIGHUP);
    SignalAfter("DEBUG: void Run: HUP", SIGINT);
  });
  EXPECT_EQ(Count("DEBUG: void Run: HUP"), 1U);
  EXPECT_EQ(Count("DEBUG: void Run: Update pairing key"), 2U);
  EXPECT_EQ(Count("DEBUG: void Run: Update LAN address"), 1U);
  EXPECT_THAT(log_.Lines(), AllOf(Contains(ContainsRegex("Got signal 1, from pid [1-9]")),
                                  Contains(ContainsRegex("Exit by signal 2, from pid [1-9]"))));
}

TEST_F(RunLoop, AMissingRouterInformationFileIsNotReadUntilSighup) {
  ::unlink((directory_ / "router_info").c_str());
  RunDaemon([this] { SignalAfter("DEBUG: void Run: Update LAN address", SIGTERM); });
  EXPECT_EQ(Count("DEBUG: void Run: Update pairing key"), 0U);
}

TEST_F(RunLoop, AKeyFileWhoseTimeWentBackIsReadAgain) {
  RunDaemon([this] {
    // The pause after a failed wait is long enough to change the time, and to be told to stop.
    static const Fault wait("sigtimedwait", EINVAL, 0, 1);
    std::thread([this] {
      test::WaitUntil([&] { return LogHas("DEBUG: void Run: Update LAN address"); });
      const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
      ::utimensat(AT_FDCWD, (directory_ / "router_info").c_str(), times, 0);
      ::kill(::getpid(), SIGTERM);
    }).detach();
  });
  EXPECT_EQ(Count("DEBUG: void Run: Update pairing key"), 2U);
}

TEST_F(RunLoop, AFailedWaitIsLoggedAndFollowedByAPauseThatInterruptionsDoNotShorten) {
  const auto start = std::chrono::steady_clock::now();
  RunDaemon([this] {
    static const Fault wait("sigtimedwait", EINVAL, 0, 1);
    static const Fault interruption("nanosleep", EINTR, 0, 2);
    SignalAfter("ERROR: void Run: sigtimedwait failed as 22 Invalid argument", SIGTERM);
  });
  EXPECT_EQ(Count("ERROR: void Run: sigtimedwait failed as 22 Invalid argument"), 1U);
  EXPECT_EQ(Count("DEBUG: void Run: Got signal 0, from pid 0"), 2U);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

class QuietWait : public RunLoop, public testing::WithParamInterface<int> {};

TEST_P(QuietWait, PassesWithoutAnError) {
  RunDaemon([this] {
    static const Fault wait("sigtimedwait", GetParam(), 0, 3);
    SignalAfter("DEBUG: void Run: Update LAN address", SIGTERM);
  });
  EXPECT_THAT(log_.Lines(), Not(Contains(HasSubstr("sigtimedwait"))));
  EXPECT_EQ(Count("DEBUG: void Run: Got signal 0, from pid 0"), 4U);
  // Nothing has changed since the first pass.
  EXPECT_EQ(Count("DEBUG: void Run: Update pairing key"), 1U);
}

INSTANTIATE_TEST_SUITE_P(TimedOutOrInterrupted, QuietWait, testing::Values(EAGAIN, EINTR));

TEST_F(RunLoop, AThreadThatCannotBeStartedEndsItWithAnError) {
  RunDaemon([] { static const Fault fault("pthread_create", EAGAIN, 1); });
  EXPECT_THAT(log_.Messages(),
              Contains("ERROR: void Run: Failed to start a thread: Resource temporarily "
                       "unavailable"));
  EXPECT_EQ(Count("INFO: void Run: tavlo started"), 0U);
}

TEST_F(RunLoop, RegistersBothThreadsForAMinuteBeforeItSaysThatItStarted) {
  RunDaemon([this] {
    std::thread([this] {
      test::WaitUntil([&] { return LogHas("INFO: void Run: tavlo started"); });
      Orx::ThreadMonitor& monitor = Orx::TheThreadMonitor();
      const auto now = std::chrono::steady_clock::now();
      const auto later = now + std::chrono::seconds(61);
      // Both have registered within the last moments.
      std::string names =
          monitor.FindSilentThread(now + std::chrono::seconds(50)) != 0 ? "early\n" : "";
      // The silent one with the lowest identity, then the other one.
      for (Orx::ThreadIdentity thread = monitor.FindSilentThread(later); thread != 0;
           thread = monitor.FindSilentThread(later)) {
        names += monitor.Name(thread) + "\n";
        monitor.Unregister(thread);
      }
      directory_.Write("names", names);
      ::kill(::getpid(), SIGTERM);
    }).detach();
  });
  const std::string names = test::ReadFile(directory_ / "names");
  EXPECT_THAT(names, AllOf(HasSubstr("tavlo::httpAgent\n"), HasSubstr("tavlo::httpsAgent\n"),
                           Not(HasSubstr("early"))));
}

TEST_F(RunLoop, AListenerThatEndedByItselfIsLoggedAndNotASilentOne) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "nobody joins a listener's thread, which ThreadSanitizer takes for a leak";
#endif
  RunDaemon([this] {
    // libevent's loop ends when it cannot wait.
    static const Fault fault("epoll_wait", EBADF);
    std::thread([this] {
      const auto later = std::chrono::steady_clock::now() + std::chrono::seconds(90);
      test::WaitUntil([&] { return LogHas("INFO: void Run: tavlo started"); });
      if (test::WaitUntil([&] { return Orx::TheThreadMonitor().FindSilentThread(later) == 0; })) {
        directory_.Write("none", "");
      }
      ::kill(::getpid(), SIGTERM);
    }).detach();
  });
  EXPECT_EQ(::access((directory_ / "none").c_str(), F_OK), 0);
  EXPECT_TRUE(
      LogHas("ERROR: void tavlo::AgentHost::Run: The event loop has ended: 9 Bad file "
             "descriptor"));
}

TEST_F(RunLoop, AKeyFileWithoutAKeyChangesNothing) {
  ASSERT_TRUE(Init(configPath_));
  directory_.Write("router_info", "model: x\n");
  UpdatePairingKey();
  EXPECT_THAT(log_.Lines(), Not(Contains(HasSubstr("SetPairingKey"))));
}

TEST_F(RunLoop, AKeyFileThatCannotBeReadIsLogged) {
  ASSERT_TRUE(Init(configPath_));
  const std::string path = directory_ / "router_info";
  ::unlink(path.c_str());
  UpdatePairingKey();
  EXPECT_EQ(log_.Lines().back(), "ERROR: void UpdatePairingKey: Failed to lock file " + path +
                                     ": 2 No such file or directory");
}

TEST_F(RunLoop, ALockedKeyFileIsLogged) {
  ASSERT_TRUE(Init(configPath_));
  const Fault lock("flock", EWOULDBLOCK);
  const Fault pause("nanosleep", EINVAL);
  UpdatePairingKey();
  EXPECT_EQ(log_.Lines().back(), "ERROR: void UpdatePairingKey: Failed to lock file " +
                                     (directory_ / "router_info") +
                                     ": 11 Resource temporarily unavailable");
}

TEST_F(RunLoop, AKeyFileThatIsTooLargeIsLogged) {
  ASSERT_TRUE(Init(configPath_));
  directory_.Write("router_info", std::string(1048577, 'x'));
  UpdatePairingKey();
  EXPECT_EQ(log_.Lines().back(), "ERROR: void UpdatePairingKey: Failed to read file " +
                                     (directory_ / "router_info") + ": 27 File too large");
}

}  // namespace
