#include "ctl/log_counts.h"

#include <cstdint>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using tavlo::ctl::Durations;
using tavlo::ctl::kMinuteMs;
using tavlo::ctl::Occurrences;
using tavlo::ctl::Timeline;
using tavlo::ctl::Traffic;

constexpr int64_t kStart = int64_t{29921000} * kMinuteMs;  // in 2026

TEST(Occurrences, HaveTheFirstAndTheLast) {
  Occurrences occurrences;
  occurrences.Add(20);
  occurrences.Add(10, 5);
  occurrences.Add(15);
  EXPECT_EQ(occurrences.count, 7U);
  EXPECT_EQ(occurrences.first, 10);
  EXPECT_EQ(occurrences.last, 20);
}

TEST(Durations, TellWhatMostOfThemTook) {
  Durations durations;
  for (int i = 0; i < 90; ++i) {
    durations.Add(4);
  }
  for (int i = 0; i < 9; ++i) {
    durations.Add(150);
  }
  durations.Add(70001);
  EXPECT_EQ(durations.Count(), 100U);
  EXPECT_EQ(durations.Percentile(50), 5);
  EXPECT_EQ(durations.Percentile(90), 5);
  EXPECT_EQ(durations.Percentile(95), 200);
  EXPECT_EQ(durations.Percentile(100), 70001);
  EXPECT_EQ(durations.Longest(), 70001);
}

TEST(Durations, AreNeverSaidToBeLongerThanTheLongest) {
  Durations durations;
  durations.Add(3);
  EXPECT_EQ(durations.Percentile(50), 3);
  durations.Add(999999999);
  EXPECT_EQ(durations.Percentile(95), 999999999);
}

TEST(Durations, OfNothingAreNone) {
  const Durations durations;
  EXPECT_EQ(durations.Percentile(50), 0);
  EXPECT_EQ(durations.Count(), 0U);
}

TEST(Durations, AddUp) {
  Durations one;
  Durations other;
  one.Add(1);
  other.Add(1000);
  one.Add(other);
  EXPECT_EQ(one.Count(), 2U);
  EXPECT_EQ(one.Percentile(50), 1);
  EXPECT_EQ(one.Longest(), 1000);
}

TEST(Traffic, KnowsItsBusiestMinute) {
  Traffic traffic;
  for (const int64_t second : {0, 59, 60, 61, 119, 120}) {
    traffic.AddRequest(kStart + second * 1000);
  }
  EXPECT_EQ(traffic.count, 6U);
  EXPECT_EQ(traffic.busiestMinute, 3U);
}

TEST(Traffic, AddsUp) {
  Traffic one;
  Traffic other;
  one.AddRequest(kStart);
  other.AddRequest(kStart);
  other.AddRequest(kStart);
  one.Add(other);
  EXPECT_EQ(one.count, 3U);
  EXPECT_EQ(one.busiestMinute, 2U);
}

TEST(Timeline, HasAStepForEachMinute) {
  Timeline timeline;
  ++timeline.At(kStart).requests;
  ++timeline.At(kStart + kMinuteMs - 1).requests;
  ++timeline.At(kStart + kMinuteMs).requests;
  EXPECT_EQ(timeline.MinutesInAStep(), 1);
  ASSERT_EQ(timeline.Steps().size(), 2U);
  EXPECT_EQ(timeline.Steps().begin()->second.requests, 2U);
  EXPECT_EQ(timeline.Steps().begin()->first * kMinuteMs, kStart);
}

TEST(Timeline, MakesItsStepsLongerWhenTheyBecomeTooMany) {
  Timeline timeline;
  constexpr int64_t kMinutes = 5 * Timeline::kMaxSteps;
  for (int64_t minute = 0; minute < kMinutes; ++minute) {
    auto& step = timeline.At(kStart + minute * kMinuteMs);
    ++step.requests;
    step.refusals += 2;
    step.errors += 3;
    step.slowest = minute;
  }
  EXPECT_EQ(timeline.MinutesInAStep(), 8);
  EXPECT_LE(timeline.Steps().size(), static_cast<size_t>(Timeline::kMaxSteps));
  uint64_t requests = 0;
  uint64_t refusals = 0;
  uint64_t errors = 0;
  for (const auto& [number, step] : timeline.Steps()) {
    requests += step.requests;
    refusals += step.refusals;
    errors += step.errors;
  }
  EXPECT_EQ(requests, static_cast<uint64_t>(kMinutes));
  EXPECT_EQ(refusals, static_cast<uint64_t>(2 * kMinutes));
  EXPECT_EQ(errors, static_cast<uint64_t>(3 * kMinutes));
  EXPECT_EQ(timeline.Steps().rbegin()->second.slowest, kMinutes - 1);
}

TEST(Timeline, TakesAnyMoments) {
  Timeline timeline;
  timeline.At(kStart);
  timeline.At(-62135596800000);  // the year 1
  timeline.At(253402300799999);  // the end of 9999
  EXPECT_LE(timeline.Steps().rbegin()->first - timeline.Steps().begin()->first,
            Timeline::kMaxSteps);
  EXPECT_EQ(timeline.Steps().size(), 3U);
}

}  // namespace
