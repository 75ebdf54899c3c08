#include "app/thread_monitor.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Orx::MonotonicTime;
using Orx::ThreadMonitor;
using std::chrono::nanoseconds;
using std::chrono::seconds;

const MonotonicTime kStart = MonotonicTime() + std::chrono::hours(1);

TEST(ThreadMonitor, WithoutThreadsNoneIsSilent) {
  ThreadMonitor monitor;
  EXPECT_EQ(monitor.FindSilentThread(kStart), 0U);
}

TEST(ThreadMonitor, AThreadIsSilentOneNanosecondAfterItsInterval) {
  ThreadMonitor monitor;
  monitor.Register(7, {"worker", seconds(60), kStart});
  EXPECT_EQ(monitor.FindSilentThread(kStart + seconds(60)), 0U);
  EXPECT_EQ(monitor.FindSilentThread(kStart + seconds(60) + nanoseconds(1)), 7U);
}

TEST(ThreadMonitor, ReportsTheSilentThreadWithTheLowestIdentity) {
  ThreadMonitor monitor;
  for (const Orx::ThreadIdentity identity : {9U, 5U, 1U}) {
    monitor.Register(identity, {"worker", seconds(60), kStart});
  }
  monitor.Beat(1, kStart + seconds(61));
  monitor.Beat(9, kStart - seconds(60));  // silent for longer than the other
  EXPECT_EQ(monitor.FindSilentThread(kStart + seconds(61)), 5U);
}

TEST(ThreadMonitor, IdentitiesAreOrderedAsUnsignedNumbers) {
  ThreadMonitor monitor;
  const auto high = static_cast<Orx::ThreadIdentity>(-1);
  monitor.Register(high, {"high", seconds(1), kStart});
  monitor.Register(2, {"low", seconds(1), kStart});
  EXPECT_EQ(monitor.FindSilentThread(kStart + seconds(2)), 2U);
}

TEST(ThreadMonitor, ABeatKeepsAThreadAlive) {
  ThreadMonitor monitor;
  monitor.Register(7, {"worker", seconds(60), kStart});
  monitor.Beat(7, kStart + seconds(30));
  EXPECT_EQ(monitor.FindSilentThread(kStart + seconds(90)), 0U);
  EXPECT_EQ(monitor.Silence(7, kStart + seconds(90)), seconds(60));
}

TEST(ThreadMonitor, ASecondRegistrationKeepsTheFirstRecord) {
  ThreadMonitor monitor;
  monitor.Register(7, {"first", seconds(60), kStart});
  monitor.Register(7, {"second", seconds(1), kStart + seconds(5)});
  EXPECT_EQ(monitor.Name(7), "first");
  EXPECT_EQ(monitor.Silence(7, kStart + seconds(10)), seconds(10));
}

TEST(ThreadMonitor, AThreadThatUnregisteredIsNotReported) {
  ThreadMonitor monitor;
  monitor.Register(7, {"worker", seconds(60), kStart});
  monitor.Unregister(7);
  monitor.Unregister(8);
  EXPECT_EQ(monitor.FindSilentThread(kStart + seconds(600)), 0U);
  EXPECT_EQ(monitor.Name(7), "");
  EXPECT_EQ(monitor.Silence(7, kStart + seconds(600)), nanoseconds(0));
}

TEST(ThreadMonitor, ABeatOfAnUnknownThreadChangesNothing) {
  ThreadMonitor monitor;
  monitor.Beat(7, kStart);
  EXPECT_EQ(monitor.FindSilentThread(kStart + seconds(600)), 0U);
  EXPECT_EQ(monitor.Name(7), "");
}

TEST(ThreadMonitor, BeatsMayComeWhileSilenceIsLookedFor) {
  ThreadMonitor monitor;
  monitor.Register(7, {"worker", seconds(60), kStart});
  constexpr int kBeats = 1000;
  std::thread worker([&monitor] {
    for (int beat = 0; beat < kBeats; ++beat) {
      monitor.Beat(7, kStart + seconds(beat));
    }
  });
  for (int look = 0; look < kBeats; ++look) {
    EXPECT_EQ(monitor.FindSilentThread(kStart), 0U);
    EXPECT_EQ(monitor.Name(7), "worker");
    EXPECT_LE(monitor.Silence(7, kStart), seconds(0));
  }
  worker.join();
  EXPECT_EQ(monitor.Silence(7, kStart + seconds(kBeats)), seconds(1));
}

TEST(ThreadMonitor, ThreadsMayComeAndGoAtTheSameTime) {
  ThreadMonitor monitor;
  constexpr Orx::ThreadIdentity kThreads = 4;
  std::vector<std::thread> workers;
  for (Orx::ThreadIdentity first = 1; first <= kThreads; ++first) {
    workers.emplace_back([&monitor, first] {
      for (Orx::ThreadIdentity identity = first; identity < 1000; identity += kThreads) {
        monitor.Register(identity, {"worker", seconds(60), kStart});
        if (identity % 2 == 0) {
          monitor.Unregister(identity);
        }
      }
    });
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
  for (Orx::ThreadIdentity identity = 1; identity < 1000; ++identity) {
    EXPECT_EQ(monitor.Name(identity), identity % 2 == 0 ? "" : "worker");
  }
}

TEST(ThreadHeartbeat, CountsForTheCallingThreadOnly) {
  ThreadMonitor& monitor = Orx::TheThreadMonitor();
  const MonotonicTime before = std::chrono::steady_clock::now() - seconds(10);
  const Orx::ThreadIdentity self = Orx::CurrentThreadIdentity();
  monitor.Register(self, {"main", seconds(60), before});
  std::thread(OnThreadHeartbeat).join();
  EXPECT_EQ(monitor.Silence(self, before), nanoseconds(0));
  OnThreadHeartbeat();
  EXPECT_LE(monitor.Silence(self, before), -seconds(10));
}

}  // namespace
