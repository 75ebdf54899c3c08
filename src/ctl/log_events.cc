#include "ctl/log_events.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "ctl/printable.h"
#include "ctl/text_pattern.h"
#include "util/log.h"

namespace tavlo::ctl {

namespace {

constexpr size_t kMostShown = 200;  // bytes of a path
constexpr int64_t kMostAtOnce = 1000000;
constexpr int64_t kMostMilliseconds = 1000000000;

// The row of that name; of one name too many, that of all others.
template <typename Row>
Row& RowOf(std::map<std::string, Row>* rows, std::string_view name) {
  const std::string shown = Printable(name, kMostShown);
  const bool hasRoom = rows->size() < EventCounter::kMostRows || rows->count(shown) > 0;
  return (*rows)[hasRoom ? shown : "other"];
}

}  // namespace

void EventCounter::Take(const LogEntry& entry) {
  if (entry.IsStart()) {
    starts_.Add(entry.time);
  }
  TakeEndedClients(entry);
  TakeScript(entry);
  TakeFailedScript(entry);
}

void EventCounter::TakeEndedClients(const LogEntry& entry) {
  static const TextPattern kEnded("Ended %zu clients to make room, the last of %s: %s");
  std::vector<std::string_view> values;
  if (!entry.IsOf("ClientTable::") || !kEnded.Match(entry.text, &values)) {
    return;
  }
  LogReport::EndedClients& row = RowOf(&endedClients_, values[2]);
  row.when.Add(entry.time, static_cast<uint64_t>(NumberIn(values[0], kMostAtOnce).value_or(1)));
  row.lastAddress = Printable(values[1], kMostShown);
}

// Each run, with -d.
void EventCounter::TakeScript(const LogEntry& entry) {
  static const TextPattern kRun("PID %d ended with status %d after %lld ms: %s");
  std::vector<std::string_view> values;
  if (entry.level == Orx::Log::kDebug && kRun.Match(entry.text, &values)) {
    RowOf(&scripts_, values[3]).times.Add(NumberIn(values[2], kMostMilliseconds).value_or(0));
  }
}

void EventCounter::TakeFailedScript(const LogEntry& entry) {
  static const TextPattern kFailed("Failed to invoke agent hook: failed to call script '%s' as %s");
  static const TextPattern kNotExecuted("Failed to execute %s: %s");
  std::vector<std::string_view> values;
  if (entry.level != Orx::Log::kError) {
    return;
  }
  if (kFailed.Match(entry.text, &values)) {
    AddFailure(values[0], "status " + Printable(values[1], kMostShown), entry.time);
  } else if (kNotExecuted.Match(entry.text, &values)) {
    AddFailure(values[0], Printable(values[1], kMostShown), entry.time);
  }
}

void EventCounter::AddFailure(std::string_view path, const std::string& reason, int64_t time) {
  LogReport::Script& row = RowOf(&scripts_, path);
  row.failures.Add(time);
  row.lastFailure = reason;
}

void EventCounter::Report(LogReport* report) const {
  report->starts = starts_;
  for (const auto& [reason, row] : endedClients_) {
    report->endedClients.push_back(row);
    report->endedClients.back().reason = reason;
  }
  for (const auto& [path, row] : scripts_) {
    report->scripts.push_back(row);
    report->scripts.back().path = path;
  }
  std::stable_sort(
      report->scripts.begin(), report->scripts.end(),
      [](const auto& a, const auto& b) { return a.failures.count > b.failures.count; });
}

}  // namespace tavlo::ctl
