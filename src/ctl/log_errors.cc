#include "ctl/log_errors.h"

#include <algorithm>
#include <tuple>

#include "ctl/printable.h"
#include "util/log.h"

namespace tavlo::ctl {

namespace {

constexpr size_t kMostShown = 200;  // bytes of an example

}  // namespace

void ErrorCounter::Take(const LogEntry& entry, Step* step) {
  if (entry.level != Orx::Log::kError) {
    return;
  }
  const auto meaning = messages_.Explain(entry.text);
  Error& error = errors_[meaning ? Rows(meaning->message, meaning->rest) : Rows()];
  error.when.Add(entry.time);
  error.example = Printable(entry.text, kMostShown);
  ++step->errors;
}

void ErrorCounter::Report(LogReport* report) const {
  for (const auto& [rows, error] : errors_) {
    const auto& [message, rest] = rows;
    LogReport::Error row;
    row.example = error.example;
    row.when = error.when;
    if (message != nullptr) {
      row.message = message->format;
      row.cause = message->cause;
      row.cure = message->cure;
    }
    if (rest != nullptr) {
      row.rest = rest->format;
      row.cause = rest->cause;
      row.cure = rest->cure;
    }
    report->errors.push_back(row);
  }
  std::sort(report->errors.begin(), report->errors.end(), [](const auto& a, const auto& b) {
    return std::make_tuple(b.when.count, a.message, a.rest) <
           std::make_tuple(a.when.count, b.message, b.rest);
  });
}

}  // namespace tavlo::ctl
