#pragma once

#include <array>
#include <cstdint>
#include <map>

namespace tavlo::ctl {

/// Times in the summary are milliseconds since 1970, UTC.
constexpr int64_t kMinuteMs = 60000;

/// How often something was, and when first and last.
struct Occurrences {
  uint64_t count = 0;
  int64_t first = 0;
  int64_t last = 0;

  void Add(int64_t time, uint64_t times = 1);
};

/// How long something took, in milliseconds: a histogram. It keeps how many were within each of a
/// few bounds, not each value.
class Durations {
 public:
  void Add(int64_t milliseconds);
  void Add(const Durations& other);

  uint64_t Count() const { return count_; }
  int64_t Longest() const { return longest_; }

  /// A bound that this share of them, in percent, kept, and no more than the longest took; 0 when
  /// there are none.
  int64_t Percentile(unsigned percent) const;

 private:
  static constexpr std::array<int64_t, 17> kBounds = {
      1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, 20000, 50000, 100000, 200000};

  std::array<uint64_t, kBounds.size() + 1> counts_ = {};  // the last one: longer than all bounds
  uint64_t count_ = 0;
  int64_t longest_ = 0;
};

/// Requests of one kind: how many, how many in the minute that had the most, how long they took.
struct Traffic {
  uint64_t count = 0;
  uint64_t busiestMinute = 0;  ///< 0 where it is not known
  Durations toNextLine;        ///< from a request to the next line of its thread
  Durations toAnswer;

  /// Of requests in the order of their times.
  void AddRequest(int64_t time);

  /// Of two that had their busiest minutes apart.
  void Add(const Traffic& other);

 private:
  int64_t minute_ = -1;
  uint64_t inMinute_ = 0;
};

/// What happened in one step of time.
struct Step {
  uint64_t requests = 0;
  uint64_t refusals = 0;
  uint64_t errors = 0;
  int64_t slowest = 0;  ///< milliseconds
};

/// What happened over time, in at most `kMaxSteps` steps, however long it was: steps of one minute,
/// which double where they become too many.
class Timeline {
 public:
  static constexpr int64_t kMaxSteps = 720;

  /// The step of that moment. It stays valid until the next call.
  Step& At(int64_t time);

  int64_t MinutesInAStep() const { return minutes_; }

  /// By their numbers: step n begins at n times the length of a step. Steps in which nothing
  /// happened may be missing.
  const std::map<int64_t, Step>& Steps() const { return steps_; }

 private:
  int64_t NumberOf(int64_t time) const;
  void DoubleLength();

  int64_t minutes_ = 1;
  std::map<int64_t, Step> steps_;
};

}  // namespace tavlo::ctl
