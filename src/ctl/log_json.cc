// The summary of a log for programs.

#include <array>
#include <cstdio>
#include <memory>

#include <json-c/json.h>

#include "ctl/log_entry.h"
#include "ctl/log_report.h"

namespace tavlo::ctl {

namespace {

void Add(json_object* object, const char* key, uint64_t value) {
  json_object_object_add(object, key, json_object_new_int64(static_cast<int64_t>(value)));
}

void Add(json_object* object, const char* key, const std::string& value) {
  json_object_object_add(object, key, json_object_new_string(value.c_str()));
}

void AddRate(json_object* object, const char* key, double value) {
  std::array<char, 32> text = {};
  std::snprintf(text.data(), text.size(), "%.3f", value);
  json_object_object_add(object, key, json_object_new_double_s(value, text.data()));
}

void AddWhen(json_object* object, const Occurrences& when) {
  Add(object, "count", when.count);
  if (when.count > 0) {
    Add(object, "first", FormatTime(when.first));
    Add(object, "last", FormatTime(when.last));
  }
}

// Nothing where nothing was measured.
void AddTimes(json_object* object, const char* key, const Durations& times) {
  if (times.Count() == 0) {
    return;
  }
  json_object* const row = json_object_new_object();
  Add(row, "measured", times.Count());
  Add(row, "half", static_cast<uint64_t>(times.Percentile(50)));
  Add(row, "most", static_cast<uint64_t>(times.Percentile(95)));
  Add(row, "slowest", static_cast<uint64_t>(times.Longest()));
  json_object_object_add(object, key, row);
}

void Fill(json_object* object, const LogReport::Requests& row, double minutes) {
  Add(object, "listener", row.listener);
  if (!row.endpoint.empty()) {
    Add(object, "endpoint", row.endpoint);
  }
  Add(object, "count", row.traffic.count);
  AddRate(object, "aMinute", static_cast<double>(row.traffic.count) / minutes);
  if (row.traffic.busiestMinute > 0) {
    Add(object, "busiestMinute", row.traffic.busiestMinute);
  }
  AddTimes(object, "msToAnswer", row.traffic.toAnswer);
  AddTimes(object, "msToNextLine", row.traffic.toNextLine);
}

void Fill(json_object* object, const LogReport::Answers& row) {
  Add(object, "listener", row.listener);
  Add(object, "status", static_cast<uint64_t>(row.status));
  Add(object, "count", row.times.Count());
  AddTimes(object, "ms", row.times);
}

void Fill(json_object* object, const LogReport::Refusal& row) {
  Add(object, "status", static_cast<uint64_t>(row.status));
  Add(object, "reason", row.reason);
  AddWhen(object, row.when);
}

void Fill(json_object* object, const LogReport::Error& row) {
  if (!row.message.empty()) {
    Add(object, "message", row.message);
    if (!row.rest.empty()) {
      Add(object, "rest", row.rest);
    }
    Add(object, "cause", row.cause);
    Add(object, "cure", row.cure);
  }
  Add(object, "example", row.example);
  AddWhen(object, row.when);
}

void Fill(json_object* object, const LogReport::EndedClients& row) {
  Add(object, "reason", row.reason);
  Add(object, "lastAddress", row.lastAddress);
  AddWhen(object, row.when);
}

void Fill(json_object* object, const LogReport::Script& row) {
  Add(object, "path", row.path);
  AddTimes(object, "ms", row.times);
  json_object* const failures = json_object_new_object();
  AddWhen(failures, row.failures);
  if (row.failures.count > 0) {
    Add(failures, "lastFailure", row.lastFailure);
  }
  json_object_object_add(object, "failures", failures);
}

// `more` is what `Fill` takes beside a row.
template <typename Rows, typename... More>
void AddRows(json_object* object, const char* key, const Rows& rows, More... more) {
  json_object* const array = json_object_new_array();
  for (const auto& row : rows) {
    json_object* const each = json_object_new_object();
    Fill(each, row, more...);
    json_object_array_add(array, each);
  }
  json_object_object_add(object, key, array);
}

void AddWrongKeys(json_object* object, const LogReport::WrongKeys& keys) {
  json_object* const row = json_object_new_object();
  AddWhen(row, keys.when);
  Add(row, "different", keys.different);
  json_object_object_add(row, "moreDifferent", json_object_new_boolean(keys.areMore ? 1 : 0));
  json_object_object_add(object, "wrongKeys", row);
}

void AddTimeline(json_object* object, const Timeline& timeline) {
  json_object* const steps = json_object_new_array();
  for (const auto& [number, step] : timeline.Steps()) {
    json_object* const row = json_object_new_object();
    Add(row, "from", FormatTime(number * timeline.MinutesInAStep() * kMinuteMs));
    Add(row, "requests", step.requests);
    Add(row, "refusals", step.refusals);
    Add(row, "errors", step.errors);
    Add(row, "slowestMs", static_cast<uint64_t>(step.slowest));
    json_object_array_add(steps, row);
  }
  json_object* const line = json_object_new_object();
  Add(line, "minutesInAStep", static_cast<uint64_t>(timeline.MinutesInAStep()));
  json_object_object_add(line, "steps", steps);
  json_object_object_add(object, "timeline", line);
}

}  // namespace

void PrintJson(const LogReport& report, std::ostream& out) {
  const std::unique_ptr<json_object, decltype(&json_object_put)> root(json_object_new_object(),
                                                                      json_object_put);
  json_object* const object = root.get();
  const double minutes = report.Minutes();
  if (report.period.count > 0) {
    Add(object, "first", FormatTime(report.period.first));
    Add(object, "last", FormatTime(report.period.last));
  }
  Add(object, "lines", report.lines);
  Add(object, "otherLines", report.otherLines);
  Add(object, "linesOfAnUnsetClock", report.clockUnset);
  Add(object, "starts", report.starts.count);
  Add(object, "requests", report.RequestCount());
  AddRows(object, "listeners", report.listeners, minutes);
  AddRows(object, "endpoints", report.endpoints, minutes);
  AddRows(object, "answers", report.answers);
  AddRows(object, "refusals", report.refusals);
  AddWrongKeys(object, report.wrongKeys);
  AddRows(object, "errors", report.errors);
  AddRows(object, "endedClients", report.endedClients);
  AddRows(object, "scripts", report.scripts);
  AddTimeline(object, report.timeline);
  constexpr int kForm =
      JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE;
  out << json_object_to_json_string_ext(object, kForm) << '\n';
}

}  // namespace tavlo::ctl
