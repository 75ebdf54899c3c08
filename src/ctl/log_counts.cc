#include "ctl/log_counts.h"

#include <algorithm>

namespace tavlo::ctl {

namespace {

// Also before 1970.
int64_t DivideDown(int64_t value, int64_t by) {
  return value / by - (value % by < 0 ? 1 : 0);
}

}  // namespace

void Occurrences::Add(int64_t time, uint64_t times) {
  first = count == 0 ? time : std::min(first, time);
  last = count == 0 ? time : std::max(last, time);
  count += times;
}

void Durations::Add(int64_t milliseconds) {
  const auto limit = std::lower_bound(kBounds.begin(), kBounds.end(), milliseconds);
  ++counts_.at(static_cast<size_t>(limit - kBounds.begin()));
  ++count_;
  longest_ = std::max(longest_, milliseconds);
}

void Durations::Add(const Durations& other) {
  for (size_t i = 0; i < counts_.size(); ++i) {
    counts_.at(i) += other.counts_.at(i);
  }
  count_ += other.count_;
  longest_ = std::max(longest_, other.longest_);
}

int64_t Durations::Percentile(unsigned percent) const {
  uint64_t reached = 0;
  for (size_t i = 0; i < kBounds.size(); ++i) {
    reached += counts_.at(i);
    if (reached * 100 >= count_ * percent) {
      return std::min(kBounds.at(i), longest_);
    }
  }
  return longest_;
}

void Traffic::AddRequest(int64_t time) {
  const int64_t minute = DivideDown(time, kMinuteMs);
  inMinute_ = minute == minute_ ? inMinute_ + 1 : 1;
  minute_ = minute;
  busiestMinute = std::max(busiestMinute, inMinute_);
  ++count;
}

void Traffic::Add(const Traffic& other) {
  count += other.count;
  busiestMinute = std::max(busiestMinute, other.busiestMinute);
  toNextLine.Add(other.toNextLine);
  toAnswer.Add(other.toAnswer);
}

Step& Timeline::At(int64_t time) {
  if (!steps_.empty()) {
    const auto isTooLong = [&] {
      const int64_t number = NumberOf(time);
      return std::max(number, steps_.rbegin()->first) - std::min(number, steps_.begin()->first) >=
             kMaxSteps;
    };
    while (isTooLong()) {
      DoubleLength();
    }
  }
  return steps_[NumberOf(time)];
}

int64_t Timeline::NumberOf(int64_t time) const {
  return DivideDown(time, minutes_ * kMinuteMs);
}

void Timeline::DoubleLength() {
  std::map<int64_t, Step> longer;
  for (const auto& [number, step] : steps_) {
    Step& joined = longer[DivideDown(number, 2)];
    joined.requests += step.requests;
    joined.refusals += step.refusals;
    joined.errors += step.errors;
    joined.slowest = std::max(joined.slowest, step.slowest);
  }
  steps_.swap(longer);
  minutes_ *= 2;
}

}  // namespace tavlo::ctl
