// The summary of a log for programs.

#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/prettywriter.h>

#include "ctl/log_entry.h"
#include "ctl/log_report.h"

namespace tavlo::ctl {

namespace {

using Writer = rapidjson::PrettyWriter<rapidjson::OStreamWrapper>;

void Write(Writer* out, const char* key, uint64_t value) {
  out->Key(key);
  out->Uint64(value);
}

void Write(Writer* out, const char* key, const std::string& value) {
  out->Key(key);
  out->String(value.c_str());
}

void WriteWhen(Writer* out, const Occurrences& when) {
  Write(out, "count", when.count);
  if (when.count > 0) {
    Write(out, "first", FormatTime(when.first));
    Write(out, "last", FormatTime(when.last));
  }
}

// Nothing where nothing was measured.
void WriteTimes(Writer* out, const char* key, const Durations& times) {
  if (times.Count() == 0) {
    return;
  }
  out->Key(key);
  out->StartObject();
  Write(out, "measured", times.Count());
  Write(out, "half", static_cast<uint64_t>(times.Within(50)));
  Write(out, "most", static_cast<uint64_t>(times.Within(95)));
  Write(out, "slowest", static_cast<uint64_t>(times.Longest()));
  out->EndObject();
}

void WriteRow(Writer* out, const LogReport::Requests& row, double minutes) {
  Write(out, "listener", row.listener);
  if (!row.endpoint.empty()) {
    Write(out, "endpoint", row.endpoint);
  }
  Write(out, "count", row.traffic.count);
  out->Key("aMinute");
  out->Double(static_cast<double>(row.traffic.count) / minutes);
  Write(out, "busiestMinute", row.traffic.busiestMinute);
  WriteTimes(out, "msToAnswer", row.traffic.toAnswer);
  WriteTimes(out, "msToNextLine", row.traffic.toNextLine);
}

void WriteRow(Writer* out, const LogReport::Answers& row, double /*minutes*/) {
  Write(out, "listener", row.listener);
  Write(out, "status", static_cast<uint64_t>(row.status));
  Write(out, "count", row.times.Count());
  WriteTimes(out, "ms", row.times);
}

void WriteRow(Writer* out, const LogReport::Refusal& row, double /*minutes*/) {
  Write(out, "status", static_cast<uint64_t>(row.status));
  Write(out, "reason", row.reason);
  WriteWhen(out, row.when);
}

void WriteRow(Writer* out, const LogReport::Error& row, double /*minutes*/) {
  if (!row.message.empty()) {
    Write(out, "message", row.message);
    if (!row.rest.empty()) {
      Write(out, "rest", row.rest);
    }
    Write(out, "cause", row.cause);
    Write(out, "cure", row.cure);
  }
  Write(out, "example", row.example);
  WriteWhen(out, row.when);
}

void WriteRow(Writer* out, const LogReport::EndedClients& row, double /*minutes*/) {
  Write(out, "reason", row.reason);
  Write(out, "lastAddress", row.lastAddress);
  WriteWhen(out, row.when);
}

void WriteRow(Writer* out, const LogReport::Script& row, double /*minutes*/) {
  Write(out, "path", row.path);
  WriteTimes(out, "ms", row.times);
  out->Key("failures");
  out->StartObject();
  WriteWhen(out, row.failures);
  if (row.failures.count > 0) {
    Write(out, "lastFailure", row.lastFailure);
  }
  out->EndObject();
}

template <typename Rows>
void WriteRows(Writer* out, const char* key, const Rows& rows, double minutes) {
  out->Key(key);
  out->StartArray();
  for (const auto& row : rows) {
    out->StartObject();
    WriteRow(out, row, minutes);
    out->EndObject();
  }
  out->EndArray();
}

void WriteWrongKeys(Writer* out, const LogReport::WrongKeys& keys) {
  out->Key("wrongKeys");
  out->StartObject();
  WriteWhen(out, keys.when);
  Write(out, "different", keys.different);
  out->Key("moreDifferent");
  out->Bool(keys.areMore);
  out->EndObject();
}

void WriteTimeline(Writer* out, const Timeline& timeline) {
  out->Key("timeline");
  out->StartObject();
  Write(out, "minutesInAStep", static_cast<uint64_t>(timeline.MinutesInAStep()));
  out->Key("steps");
  out->StartArray();
  for (const auto& [number, step] : timeline.Steps()) {
    out->StartObject();
    Write(out, "from", FormatTime(number * timeline.MinutesInAStep() * kMinuteMs));
    Write(out, "requests", step.requests);
    Write(out, "refusals", step.refusals);
    Write(out, "errors", step.errors);
    Write(out, "slowestMs", static_cast<uint64_t>(step.slowest));
    out->EndObject();
  }
  out->EndArray();
  out->EndObject();
}

}  // namespace

void PrintJson(const LogReport& report, std::ostream& out) {
  rapidjson::OStreamWrapper stream(out);
  Writer writer(stream);
  const double minutes = report.Minutes();
  writer.StartObject();
  if (report.period.count > 0) {
    Write(&writer, "first", FormatTime(report.period.first));
    Write(&writer, "last", FormatTime(report.period.last));
  }
  Write(&writer, "lines", report.lines);
  Write(&writer, "otherLines", report.otherLines);
  Write(&writer, "linesOfAnUnsetClock", report.clockUnset);
  Write(&writer, "starts", report.starts.count);
  Write(&writer, "requests", report.RequestCount());
  WriteRows(&writer, "listeners", report.listeners, minutes);
  WriteRows(&writer, "endpoints", report.endpoints, minutes);
  WriteRows(&writer, "answers", report.answers, minutes);
  WriteRows(&writer, "refusals", report.refusals, minutes);
  WriteWrongKeys(&writer, report.wrongKeys);
  WriteRows(&writer, "errors", report.errors, minutes);
  WriteRows(&writer, "endedClients", report.endedClients, minutes);
  WriteRows(&writer, "scripts", report.scripts, minutes);
  WriteTimeline(&writer, report.timeline);
  writer.EndObject();
  out << '\n';
}

}  // namespace tavlo::ctl
