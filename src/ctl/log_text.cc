// The summary of a log for people: a table for each question, none that is empty.

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <string>

#include "ctl/log_entry.h"
#include "ctl/log_report.h"

namespace tavlo::ctl {

namespace {

constexpr size_t kMostEndpoints = 20;

// Right-aligned columns.
template <typename Value>
std::string Column(const Value& value, int width) {
  std::ostringstream column;
  column << std::fixed << std::setprecision(1) << std::setw(width) << value;
  return column.str();
}

std::string FirstColumn(uint64_t count) {
  return Column(count, 9);
}

std::string Times(const Durations& times) {
  if (times.Count() == 0) {
    return Column("-", 8) + Column("-", 8) + Column("-", 9);
  }
  return Column(times.Percentile(50), 8) + Column(times.Percentile(95), 8) +
         Column(times.Longest(), 9);
}

constexpr const char* kTimesHead = "    half     95%  slowest";

std::string When(const Occurrences& when) {
  return when.count == 1 ? FormatTime(when.first)
                         : FormatTime(when.first) + " to " + FormatTime(when.last);
}

void PrintPeriod(const LogReport& report, std::ostream& out) {
  if (report.period.count > 0) {
    out << When(report.period) << " (UTC): ";
  }
  out << report.lines << " lines, " << report.RequestCount() << " requests, " << report.starts.count
      << " starts\n";
  if (report.clockUnset > 0) {
    out << report.clockUnset << " lines are of a clock that was not set yet.\n";
  }
  if (report.otherLines > 0) {
    out << report.otherLines << " lines are not the daemon's.\n";
  }
}

// Older daemons do not log them.
bool HasAnswers(const LogReport& report) {
  return !report.answers.empty();
}

void PrintRequests(const LogReport& report, const LogReport::Requests& row, std::ostream& out) {
  const Traffic& traffic = row.traffic;
  out << FirstColumn(traffic.count)
      << Column(static_cast<double>(traffic.count) / report.Minutes(), 10)
      << (traffic.busiestMinute > 0 ? Column(traffic.busiestMinute, 9) : Column("-", 9))
      << Times(HasAnswers(report) ? traffic.toAnswer : traffic.toNextLine) << "  " << std::left
      << std::setw(9) << row.listener << std::right << ' '
      << (row.endpoint.empty() ? "(all)" : row.endpoint) << '\n';
}

void PrintAllRequests(const LogReport& report, std::ostream& out) {
  if (report.endpoints.empty()) {
    return;
  }
  out << "\nRequests (milliseconds until "
      << (HasAnswers(report) ? "the answer" : "the next line of the thread") << ")\n"
      << "    count  a minute  busiest" << kTimesHead << "  listener  endpoint\n";
  for (const LogReport::Requests& row : report.listeners) {
    PrintRequests(report, row, out);
  }
  const size_t shown = std::min(report.endpoints.size(), kMostEndpoints);
  for (size_t i = 0; i < shown; ++i) {
    PrintRequests(report, report.endpoints[i], out);
  }
  if (shown < report.endpoints.size()) {
    out << "          and " << report.endpoints.size() - shown << " more (--json shows them)\n";
  }
  if (!report.hasDebug) {
    out << "Without -d the log has no times, does not say why a request was refused with 417, and\n"
           "seldom which listener is which.\n";
  }
}

void PrintAnswers(const LogReport& report, std::ostream& out) {
  if (!HasAnswers(report)) {
    return;
  }
  out << "\nAnswers (milliseconds since the request)\n"
      << "    count" << kTimesHead << "  listener  status\n";
  for (const LogReport::Answers& row : report.answers) {
    out << FirstColumn(row.times.Count()) << Times(row.times) << "  " << std::left << std::setw(9)
        << row.listener << std::right << ' ' << row.status << '\n';
  }
}

void PrintRefusals(const LogReport& report, std::ostream& out) {
  if (report.refusals.empty()) {
    return;
  }
  out << "\nAnswered by the daemon itself\n"
      << "    count  status  reason\n";
  for (const LogReport::Refusal& row : report.refusals) {
    out << FirstColumn(row.when.count) << Column(row.status, 8) << "  " << row.reason << '\n';
  }
  const LogReport::WrongKeys& keys = report.wrongKeys;
  if (keys.when.count > 0) {
    out << "Wrong pairing keys: " << keys.when.count << ", " << (keys.areMore ? "more than " : "")
        << keys.different << " different ones, " << When(keys.when) << '\n';
  }
}

void PrintError(const LogReport::Error& row, std::ostream& out) {
  constexpr const char* kIndent = "\n             ";
  out << FirstColumn(row.when.count) << "  ";
  if (row.message.empty()) {
    out << "(not in docs/messages.md)";
  } else {
    out << row.message;
  }
  if (!row.rest.empty()) {
    out << kIndent << row.rest;
  }
  out << kIndent << "when:  " << When(row.when) << kIndent << "last:  " << row.example;
  if (!row.message.empty()) {
    out << kIndent << "cause: " << row.cause << kIndent << "cure:  " << row.cure;
  }
  out << '\n';
}

void PrintErrors(const LogReport& report, std::ostream& out) {
  if (!report.errors.empty()) {
    out << "\nErrors\n    count  message\n";
  }
  for (const LogReport::Error& row : report.errors) {
    PrintError(row, out);
  }
}

void PrintEndedClients(const LogReport& report, std::ostream& out) {
  if (!report.endedClients.empty()) {
    out << "\nClients that were ended to make room for others\n    count  reason\n";
  }
  for (const LogReport::EndedClients& row : report.endedClients) {
    out << FirstColumn(row.when.count) << "  " << row.reason << "; the last one " << row.lastAddress
        << ", " << FormatTime(row.when.last) << '\n';
  }
}

void PrintScripts(const LogReport& report, std::ostream& out) {
  if (report.scripts.empty()) {
    return;
  }
  out << "\nHook scripts (milliseconds of a run)\n"
      << "     runs   failed" << kTimesHead << "  path\n";
  for (const LogReport::Script& row : report.scripts) {
    out << (row.times.Count() == 0 ? Column("-", 9) : FirstColumn(row.times.Count()))
        << FirstColumn(row.failures.count) << Times(row.times) << "  " << row.path;
    if (row.failures.count > 0) {
      out << " (the last time: " << row.lastFailure << ", " << FormatTime(row.failures.last) << ')';
    }
    out << '\n';
  }
}

}  // namespace

void PrintText(const LogReport& report, std::ostream& out) {
  PrintPeriod(report, out);
  PrintAllRequests(report, out);
  PrintAnswers(report, out);
  PrintRefusals(report, out);
  PrintErrors(report, out);
  PrintEndedClients(report, out);
  PrintScripts(report, out);
}

}  // namespace tavlo::ctl
