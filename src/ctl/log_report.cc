#include "ctl/log_report.h"

#include <algorithm>

namespace tavlo::ctl {

double LogReport::Minutes() const {
  const auto milliseconds = static_cast<double>(period.last - period.first);
  return std::max(milliseconds / static_cast<double>(kMinuteMs), 1.0);
}

uint64_t LogReport::RequestCount() const {
  uint64_t count = 0;
  for (const Requests& each : listeners) {
    count += each.traffic.count;
  }
  return count;
}

}  // namespace tavlo::ctl
