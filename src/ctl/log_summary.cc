#include "ctl/log_summary.h"

#include <limits>

#include "util/log.h"

namespace tavlo::ctl {

namespace {

// The first of January 2020: a router without a clock begins in 1970 or so, until it is told.
constexpr int64_t kClockIsSet = 1577836800000;

}  // namespace

LogSummary::LogSummary(const MessageTable& messages, int64_t since)
    : since_(since), isCounting_(since == std::numeric_limits<int64_t>::min()), errors_(messages) {}

void LogSummary::Add(std::string_view line) {
  const auto entry = ParseLogEntry(line);
  if (!entry) {
    counted_.otherLines += isCounting_ ? 1 : 0;
    return;
  }
  if (listeners_.BeginsProcess(*entry)) {
    requests_.EndProcess(listeners_.EndProcess());
    refusals_.EndProcess();
  }
  const size_t listener = listeners_.Take(*entry);
  if (entry->level == Orx::Log::kDebug) {
    debugProcess_ = entry->process;
  }
  if (entry->time >= kClockIsSet) {  // else it is as old as the line before it
    isCounting_ = entry->time >= since_;
  }
  if (!isCounting_) {
    return;
  }
  ++counted_.lines;
  counted_.hasDebug |= entry->level == Orx::Log::kDebug;
  Step* const step = StepOf(*entry);
  requests_.Take(*entry, listener, debugProcess_ == entry->process, step);
  refusals_.Take(*entry, listener, step);
  errors_.Take(*entry, step);
  events_.Take(*entry);
}

Step* LogSummary::StepOf(const LogEntry& entry) {
  if (entry.time < kClockIsSet) {
    ++counted_.clockUnset;
    return &otherTime_;
  }
  counted_.period.Add(entry.time);
  return &counted_.timeline.At(entry.time);
}

LogReport LogSummary::Report() const {
  LogReport report = counted_;
  requests_.Report(listeners_.Numbers(), listeners_.Names(), &report);
  refusals_.Report(&report);
  errors_.Report(&report);
  events_.Report(&report);
  return report;
}

}  // namespace tavlo::ctl
