#include "hooks/subprocess_timeout.h"

#include <cerrno>
#include <csignal>
#include <thread>

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace {

using test::Fault;
using testing::ElementsAre;

// A child that lives until it is killed.
class SubprocessTimeoutTest : public testing::Test {
 protected:
  SubprocessTimeoutTest() : child_(::fork()) {
    if (child_ == 0) {
      for (;;) {
        ::pause();
      }
    }
  }
  ~SubprocessTimeoutTest() override {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }

  bool ChildRuns() const { return ::waitpid(child_, nullptr, WNOHANG) == 0; }
  std::string Name() const { return std::to_string(child_); }

  // As the thread that waits for the child tells it to stop.
  static void Finish(Orx::SubprocessTimeout& timeout) {
    {
      const std::lock_guard<std::mutex> lock(timeout.mutex);
      timeout.finished = true;
    }
    timeout.cond.notify_all();
  }

  std::string RunningLine(const std::string& seconds) const {
    return "DEBUG: void Orx::SubprocessTimeout::Run: Running subprocess timeout thread for PID " +
           Name() + " (" + seconds + " secs)";
  }
  std::string KillingLine() const {
    return "DEBUG: void Orx::SubprocessTimeout::Run: Exec'd process timeout exceeded. Killing " +
           Name();
  }

  test::LogCapture log_;
  const pid_t child_;
};

TEST_F(SubprocessTimeoutTest, SendsSigtermWhenTheTimeIsUp) {
  Orx::SubprocessTimeout timeout(child_, 1);
  const Fault signals("kill", 0, 0, 0);  // counts
  const auto start = std::chrono::steady_clock::now();
  timeout.Run();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_TRUE(timeout.timedOut);
  EXPECT_EQ(signals.Calls(), 1);
  int status = 0;
  EXPECT_EQ(::waitpid(child_, &status, 0), child_);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_THAT(log_.Lines(), ElementsAre(RunningLine("1"), KillingLine()));
}

TEST_F(SubprocessTimeoutTest, AWallClockThatIsSetBackMakesItNoLonger) {
  test::ShowWallClock(std::chrono::hours(24));
  static auto* const timeout = new Orx::SubprocessTimeout(child_, 1);  // stays if it takes a day
  std::thread(&Orx::SubprocessTimeout::Run, timeout).detach();
  EXPECT_TRUE(test::WaitUntil([this] { return log_.Lines().size() == 2; }));
  EXPECT_THAT(log_.Lines(), ElementsAre(RunningLine("1"), KillingLine()));
}

TEST_F(SubprocessTimeoutTest, AWallClockThatIsSetForwardMakesItNoShorter) {
  test::ShowWallClock(-std::chrono::hours(24));
  Orx::SubprocessTimeout timeout(child_, 1);
  const auto start = std::chrono::steady_clock::now();
  timeout.Run();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(SubprocessTimeoutTest, ATimeoutOfNothingFiresAtOnce) {
  Orx::SubprocessTimeout timeout(child_, 0);
  timeout.Run();
  EXPECT_TRUE(timeout.timedOut);
  EXPECT_THAT(log_.Lines(), ElementsAre(RunningLine("0"), KillingLine()));
}

// So that the child cannot be taken for finished, and reaped, between decision and signal.
TEST_F(SubprocessTimeoutTest, SendsTheSignalUnderTheMutex) {
  Orx::SubprocessTimeout timeout(child_, 0);
  bool wasFree = true;
  const test::Before kill("kill", [&] {
    std::thread([&] {
      wasFree = timeout.mutex.try_lock();
      if (wasFree) {
        timeout.mutex.unlock();
      }
    }).join();
  });
  timeout.Run();
  EXPECT_FALSE(wasFree);
}

TEST_F(SubprocessTimeoutTest, SendsNothingToAChildThatIsKnownToHaveFinished) {
  Orx::SubprocessTimeout timeout(child_, 0);
  timeout.finished = true;
  timeout.Run();
  EXPECT_FALSE(timeout.timedOut);
  EXPECT_TRUE(ChildRuns());
  EXPECT_THAT(log_.Lines(), ElementsAre(RunningLine("0")));
}

TEST_F(SubprocessTimeoutTest, EndsAtOnceWhenTheChildFinishes) {
  Orx::SubprocessTimeout timeout(child_, 3600);
  std::thread thread(&Orx::SubprocessTimeout::Run, &timeout);
  ASSERT_TRUE(test::WaitUntil([this] { return !log_.Lines().empty(); }));
  Finish(timeout);
  thread.join();
  EXPECT_FALSE(timeout.timedOut);
  EXPECT_TRUE(ChildRuns());
}

TEST_F(SubprocessTimeoutTest, AWakeUpWithoutCauseIsNoReasonToFire) {
  Orx::SubprocessTimeout timeout(child_, 3600);
  std::thread thread(&Orx::SubprocessTimeout::Run, &timeout);
  ASSERT_TRUE(test::WaitUntil([this] { return !log_.Lines().empty(); }));
  for (int i = 0; i < 100; ++i) {
    timeout.cond.notify_all();
    std::this_thread::yield();
  }
  EXPECT_TRUE(ChildRuns());
  Finish(timeout);
  thread.join();
  EXPECT_FALSE(timeout.timedOut);
}

TEST_F(SubprocessTimeoutTest, ASignalThatCannotBeSentIsLoggedAndTheTimeIsStillUp) {
  const Fault fault("kill", ESRCH);
  Orx::SubprocessTimeout timeout(child_, 0);
  timeout.Run();
  EXPECT_TRUE(timeout.timedOut);
  EXPECT_EQ(log_.Lines().back(), "ERROR: void Orx::SubprocessTimeout::Run: subprocess kill pid " +
                                     Name() + " failed: No such process");
}

}  // namespace
