#include "app/run_loop.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "app/daemon_fixture.h"
#include "app/thread_monitor.h"
#include "hooks/running_programs.h"

namespace {

using test::Fault;
using test::RunInChild;
using testing::AllOf;
using testing::Contains;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::Not;
using testing::StartsWith;

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

  // Each request is a sign of life.
  static void KeepListenersAlive() {
    const tavlo::AppSettings& settings = *tavlo::TheProcess().settings;
    for (const uint16_t port : {settings.AgentHttpPort(), settings.AgentHttpsPort()}) {
      test::Exchange("127.0.0.1", port, "GET / HTTP/1.1\r\n\r\n");
    }
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
  using std::chrono::seconds;
  const auto longAgo = std::chrono::steady_clock::now() - std::chrono::milliseconds(75500);
  RunDaemon([&] { Orx::TheThreadMonitor().Register(1, {"tavlo::fake", seconds(60), longAgo}); });
  // 75.5 seconds and little more, truncated.
  const auto most =
      std::chrono::duration_cast<seconds>(std::chrono::steady_clock::now() - longAgo).count();
  const std::vector<std::string> lines = log_.Messages();
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ(lines[lines.size() - 2], "DEBUG: void Run: Got signal 0, from pid 0");
  const std::string start =
      "ERROR: void Run: Exit as missing thread hearbeat with id=tavlo::fake interval=";
  EXPECT_THAT(lines.back(), AllOf(StartsWith(start), EndsWith("s")));
  EXPECT_THAT(std::stol(lines.back().substr(start.size())), AllOf(Ge(75), Le(most)));
}

TEST_F(RunLoop, ASilentThreadNamesTheScriptsThatRun) {
  RunDaemon([] {
    static const Orx::RunningPrograms::Entry one({"/hooks/agent/10-one", 4711});
    static const Orx::RunningPrograms::Entry other({"/hooks/agent/20-other", 4712});
    const auto longAgo = std::chrono::steady_clock::now() - std::chrono::seconds(61);
    Orx::TheThreadMonitor().Register(1, {"tavlo::fake", std::chrono::seconds(60), longAgo});
  });
  std::vector<std::string> lines = log_.Messages();
  lines.erase(lines.begin(), lines.end() - 3);
  EXPECT_THAT(lines, ElementsAre(HasSubstr("id=tavlo::fake "),
                                 "ERROR: void Run: Script left running: PID 4712: "
                                 "/hooks/agent/20-other",
                                 "ERROR: void Run: Script left running: PID 4711: "
                                 "/hooks/agent/10-one"));
}

TEST_F(RunLoop, ASilentThreadEndsItBeforeAHangUpIsDealtWith) {
  RunDaemon([this] {
    std::thread([this] {
      test::WaitUntil([&] { return LogHas("DEBUG: void Run: Update LAN address"); });
      const auto longAgo = std::chrono::steady_clock::now() - std::chrono::seconds(61);
      Orx::TheThreadMonitor().Register(1, {"tavlo::fake", std::chrono::seconds(60), longAgo});
      ::kill(::getpid(), SIGHUP);
    }).detach();
  });
  EXPECT_THAT(log_.Lines(), Contains(HasSubstr("id=tavlo::fake ")));
  EXPECT_EQ(Count("DEBUG: void Run: HUP"), 0U);
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

TEST_F(RunLoop, LooksAtTheAddressAgainAfterAMinute) {
  using Clock = std::chrono::steady_clock;
  constexpr const char* kLook = "DEBUG: void Run: Update LAN address";
  constexpr const char* kHangUp = "DEBUG: void Run: HUP";
  constexpr std::chrono::milliseconds kALittle(300);
  constexpr std::chrono::seconds kPeriod(60);
  const auto start = Clock::now();
  RunDaemon([&] {
    std::thread([&] {
      test::WaitUntil([&] { return LogHas(kLook); });
      const auto first = Clock::now();
      size_t hangUps = 0;
      const auto passAt = [&](Clock::time_point time) {
        test::PassTime(time - Clock::now());
        KeepListenersAlive();
        // The second pass shows that the first one is through.
        for (int pass = 0; pass < 2; ++pass) {
          ::kill(::getpid(), SIGHUP);
          ++hangUps;
          test::WaitUntil([&] { return Count(kHangUp) == hangUps; });
        }
      };
      passAt(first + kPeriod - kALittle);
      const size_t looks = Count(kLook);
      const bool early = Clock::now() < start + kPeriod;
      passAt(first + kPeriod);
      directory_.Write("looks",
                       std::to_string(early ? looks : 1) + " " + std::to_string(Count(kLook)));
      ::kill(::getpid(), SIGTERM);
    }).detach();
  });
  EXPECT_EQ(test::ReadFile(directory_ / "looks"), "1 2");
}

TEST_F(RunLoop, QuietPassesAfterAHangUpRepeatItsSignalAndDoNothing) {
  RunDaemon([this] {
    static const Fault wait("sigtimedwait", EAGAIN, 1, 3);
    std::thread([this] {
      test::WaitUntil([&] { return LogHas("DEBUG: void Run: Update LAN address"); });
      ::unlink((directory_ / "router_info").c_str());
      ::kill(::getpid(), SIGHUP);
      test::WaitUntil([] { return wait.Calls() == 5; });
      ::kill(::getpid(), SIGTERM);
    }).detach();
  });
  const auto lines = log_.Lines();
  const std::string line = "DEBUG: void Run: Got signal 1, from pid ";
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [&](const std::string& each) { return each.rfind(line, 0) == 0; }),
            4);
  EXPECT_EQ(Count("DEBUG: void Run: HUP"), 1U);
  // The file's time is 0 from then on.
  EXPECT_EQ(Count("DEBUG: void Run: Update pairing key"), 2U);
}

TEST_F(RunLoop, AKeyFileBehindALinkIsReadAgainWhenItChanges) {
  const std::string link = directory_ / "router_info";
  const std::string target = directory_ / "target";
  ASSERT_EQ(::rename(link.c_str(), target.c_str()), 0);
  ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
  RunDaemon([&] {
    static const Fault wait("sigtimedwait", EINVAL, 0, 1);
    std::thread([&] {
      test::WaitUntil([&] { return LogHas("DEBUG: void Run: Update LAN address"); });
      const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
      ::utimensat(AT_FDCWD, target.c_str(), times, 0);
      ::kill(::getpid(), SIGTERM);
    }).detach();
  });
  EXPECT_EQ(Count("DEBUG: void Run: Update pairing key"), 2U);
}

TEST_F(RunLoop, AMissingRouterInformationFileIsAnErrorOnceAndNotReadUntilSighup) {
  ::unlink((directory_ / "router_info").c_str());
  RunDaemon([this] {
    static const Fault wait("sigtimedwait", EAGAIN, 0, 3);
    SignalAfter("DEBUG: void Run: Update LAN address", SIGTERM);
  });
  EXPECT_EQ(Count("DEBUG: void Run: Got signal 0, from pid 0"), 4U);
  EXPECT_EQ(Count("DEBUG: void Run: Update pairing key"), 0U);
  EXPECT_EQ(Count("ERROR: void Run: Failed to find the router information file " +
                  (directory_ / "router_info") + ": 2 No such file or directory"),
            1U);
}

TEST_F(RunLoop, ARouterInformationFileThatIsThereIsNoError) {
  RunDaemon([this] { SignalAfter("DEBUG: void Run: Update LAN address", SIGTERM); });
  EXPECT_THAT(log_.Lines(), Not(Contains(HasSubstr("Failed to find"))));
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

TEST_F(RunLoop, ThePauseAfterAFailedWaitHas5Seconds) {
  RunDaemon([this] {
    static const Fault wait("sigtimedwait", EINVAL, 0, 1);
    static const Fault pause("nanosleep", EINVAL);
    std::thread([this] {
      test::WaitUntil([&] { return Count("DEBUG: void Run: Got signal 0, from pid 0") == 2; });
      directory_.Write("pause", std::to_string(test::RefusedPause().count()));
      ::kill(::getpid(), SIGTERM);
    }).detach();
  });
  EXPECT_EQ(test::ReadFile(directory_ / "pause"), "5000000000");
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

// Although the file has not changed since it was read last.
TEST_F(RunLoop, WithoutMemoryForTheKeyItGoesOnAndReadsItAtTheNextPass) {
  RunDaemon([this] {
    static const Fault wait("sigtimedwait", EAGAIN, 1, 1);  // the second one times out
    static const std::thread::id loop = std::this_thread::get_id();
    static std::atomic<bool> hasMemory(true);
    static const test::Before reading("read", [] {
      if (std::this_thread::get_id() == loop && !hasMemory.exchange(true)) {
        throw std::bad_alloc();
      }
    });
    std::thread([this] {
      test::WaitUntil([&] { return LogHas("DEBUG: void Run: Update LAN address"); });
      hasMemory = false;
      ::kill(::getpid(), SIGHUP);
      test::WaitUntil([&] { return Count("DEBUG: void Run: Update pairing key") == 3; });
      ::kill(::getpid(), SIGTERM);
    }).detach();
  });
  EXPECT_EQ(Count("ERROR: void Run: Unexpected failure: std::bad_alloc"), 1U);
  EXPECT_EQ(Count("DEBUG: void tavlo::AgentHost::SetPairingKey: Updated: '123...'"), 2U);
}

TEST_F(RunLoop, WithoutMemoryForTheAddressItGoesOn) {
  RunDaemon([this] {
    static std::atomic<bool> hasMemory(false);
    static const test::Before sending("send", [] {
      if (!hasMemory.exchange(true)) {
        throw std::bad_alloc();
      }
    });
    SignalAfter("ERROR: void Run: Unexpected failure: std::bad_alloc", SIGTERM);
  });
  EXPECT_THAT(log_.Lines(), Contains(StartsWith("INFO: void Run: Exit by signal 15, ")));
}

TEST_F(RunLoop, AThreadThatCannotBeStartedEndsItWithAnError) {
  RunDaemon([] { static const Fault fault("pthread_create", EAGAIN, 1); });
  EXPECT_THAT(log_.Messages(),
              Contains("ERROR: void Run: Failed to start a thread: Resource temporarily "
                       "unavailable"));
  EXPECT_EQ(Count("INFO: void Run: tavlo started"), 0U);
}

TEST_F(RunLoop, StartsTheThreadOfThePlainHostFirst) {
  const int status = RunInChild([this] {
    if (!Init(configPath_)) {
      ::_exit(1);
    }
    const Fault fault("pthread_create", EAGAIN, 1);
    ::Run();
    Orx::ThreadMonitor& monitor = Orx::TheThreadMonitor();
    const auto later = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    directory_.Write("name", monitor.Name(monitor.FindSilentThread(later)));
  });
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(test::ReadFile(directory_ / "name"), "tavlo::httpAgent");
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

// What the kernel would answer: 127.0.0.2 on the loopback interface.
std::string AddressAnswer() {
  struct Answer {
    nlmsghdr header;
    ifaddrmsg message;
    rtattr attribute;
    unsigned char address[4];
  };
  const Answer answer = {{sizeof answer, RTM_NEWADDR, 0, 0, 0},
                         {AF_INET, 8, 0, RT_SCOPE_UNIVERSE, ::if_nametoindex("lo")},
                         {8, IFA_ADDRESS},
                         {127, 0, 0, 2}};
  return {reinterpret_cast<const char*>(&answer), sizeof answer};
}

TEST_F(RunLoop, HandsTheAddressToThePlainHostFirst) {
  const int status = RunInChild([this] {
    if (!Init(configPath_)) {
      ::_exit(1);
    }
    // The TLS host has the address already, and so does nothing about it later.
    static tavlo::AgentHost& secure = *tavlo::TheProcess().httpsHost;
    std::thread([] { secure.Run(); }).detach();
    secure.BindSrcAddr("127.0.0.2");
    test::WaitUntil([&] { return LogHas("DEBUG: void tavlo::AgentHost::Invoke: Leave"); });

    int ends[2] = {-1, -1};
    const std::string answer = AddressAnswer();
    if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0 ||
        ::send(ends[1], answer.data(), answer.size(), 0) < 0) {
      ::_exit(1);
    }
    const test::SocketStandIn standIn(ends[0]);
    UpdateLanAddress();
  });
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  std::vector<std::string> lines = log_.Lines();
  lines.erase(std::remove_if(lines.begin(), lines.end(),
                             [](const std::string& line) {
                               return line.find("BindSrcAddr") == std::string::npos;
                             }),
              lines.end());
  const std::string enter = "DEBUG: void tavlo::AgentHost::BindSrcAddr: Enter addr=127.0.0.2";
  const std::string leave = "DEBUG: void tavlo::AgentHost::BindSrcAddr: Leave";
  EXPECT_THAT(lines, ElementsAre(enter, leave, enter, leave, enter));
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
  EXPECT_EQ(lock.Calls(), 41);
  EXPECT_EQ(test::RefusedPause(), std::chrono::milliseconds(100));
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
