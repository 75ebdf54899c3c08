#include "ctl/log_events.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "ctl/most_first.h"
#include "ctl/printable.h"
#include "ctl/script_runs.h"
#include "ctl/text_pattern.h"
#include "util/log.h"

namespace tavlo::ctl {

namespace {

constexpr const char* kOther = "other";
constexpr size_t kMostShown = 200;  // bytes of a path
constexpr int64_t kMostAtOnce = 1000000;

// The row of that name; of one name too many, that of all others. Looking at each is quick enough:
// there are few.
template <typename Row>
Row& RowOf(std::vector<Row>* rows, std::string Row::*name, const std::string& wanted) {
  const auto row = std::find_if(rows->begin(), rows->end(),
                                [&](const Row& each) { return each.*name == wanted; });
  if (row != rows->end()) {
    return *row;
  }
  if (rows->size() >= EventCounter::kMostRows && wanted != kOther) {
    return RowOf(rows, name, kOther);
  }
  rows->emplace_back();
  rows->back().*name = wanted;
  return rows->back();
}

}  // namespace

void EventCounter::Take(const LogEntry& entry) {
  if (entry.IsStart()) {
    starts_.Add(entry.time);
  }
  TakeEndedClients(entry);
  if (const auto run = ParseScriptRun(entry)) {  // each one, with -d
    ScriptAt(run->path).times.Add(run->milliseconds);
  }
  TakeFailedScript(entry);
}

void EventCounter::TakeEndedClients(const LogEntry& entry) {
  static const TextPattern kEnded("Ended %zu clients to make room, the last of %s: %s");
  std::vector<std::string_view> values;
  if (!entry.IsOf("ClientTable::") || !kEnded.Match(entry.text, &values)) {
    return;
  }
  LogReport::EndedClients& row =
      RowOf(&endedClients_, &LogReport::EndedClients::reason, Printable(values[2], kMostShown));
  row.when.Add(entry.time, static_cast<uint64_t>(NumberIn(values[0], kMostAtOnce).value_or(1)));
  row.lastAddress = Printable(values[1], kMostShown);
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

LogReport::Script& EventCounter::ScriptAt(std::string_view path) {
  return RowOf(&scripts_, &LogReport::Script::path, Printable(path, kMostShown));
}

void EventCounter::AddFailure(std::string_view path, const std::string& reason, int64_t time) {
  LogReport::Script& row = ScriptAt(path);
  row.failures.Add(time);
  row.lastFailure = reason;
}

void EventCounter::Report(LogReport* report) const {
  report->starts = starts_;
  report->endedClients = endedClients_;
  report->scripts = scripts_;
  SortMostFirst(&report->scripts, [](const auto& row) { return row.failures.count; });
}

}  // namespace tavlo::ctl
