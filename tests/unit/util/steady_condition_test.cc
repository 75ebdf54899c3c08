#include "util/steady_condition.h"

#include <chrono>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "support/faults.h"

namespace {

using Clock = std::chrono::steady_clock;

class SteadyCondition : public testing::Test {
 protected:
  bool WaitUntil(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    return condition_.wait_until(lock, deadline, [this] { return holds_; });
  }

  void Set(bool holds) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      holds_ = holds;
    }
    condition_.notify_all();
  }

  std::mutex mutex_;
  stdext::steady_condition condition_;
  bool holds_ = false;
};

TEST_F(SteadyCondition, IsNotWaitedForWhereItHolds) {
  Set(true);
  EXPECT_TRUE(WaitUntil(Clock::now() + std::chrono::hours(1)));
  EXPECT_TRUE(WaitUntil(Clock::now() - std::chrono::hours(1)));
}

TEST_F(SteadyCondition, IsWaitedForUntilItsDeadlineAndNotLess) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(50);
  EXPECT_FALSE(WaitUntil(deadline));
  EXPECT_GE(Clock::now(), deadline);
}

TEST_F(SteadyCondition, IsWaitedForUntilItHolds) {
  std::thread other([this] {
    Set(false);  // a wake-up without cause
    Set(true);
  });
  EXPECT_TRUE(WaitUntil(Clock::now() + std::chrono::hours(1)));
  other.join();
}

TEST_F(SteadyCondition, IsWaitedForBySeveral) {
  std::thread others[3];
  for (std::thread& other : others) {
    other = std::thread([this] { EXPECT_TRUE(WaitUntil(Clock::now() + std::chrono::hours(1))); });
  }
  Set(true);
  for (std::thread& other : others) {
    other.join();
  }
}

TEST_F(SteadyCondition, DoesNotLookAtTheWallClock) {
  for (const int hours : {24, -24}) {
    test::ShowWallClock(std::chrono::hours(hours));
    const auto deadline = Clock::now() + std::chrono::milliseconds(50);
    EXPECT_FALSE(WaitUntil(deadline));
    EXPECT_GE(Clock::now(), deadline);
  }
}

}  // namespace
