#include "ctl/log_errors.h"

#include <algorithm>

#include "ctl/most_first.h"
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
  Error& error = At(messages_.Explain(entry.text));
  error.when.Add(entry.time);
  error.example = Printable(entry.text, kMostShown);
  ++step->errors;
}

// There are as few as rows of the page.
ErrorCounter::Error& ErrorCounter::At(const MessageTable::Meaning& meaning) {
  const auto row = std::find_if(errors_.begin(), errors_.end(), [&](const Error& each) {
    return each.meaning.message == meaning.message && each.meaning.rest == meaning.rest;
  });
  if (row != errors_.end()) {
    return *row;
  }
  errors_.push_back({meaning, "", {}});
  return errors_.back();
}

void ErrorCounter::Report(LogReport* report) const {
  for (const Error& error : errors_) {
    const auto& [message, rest] = error.meaning;
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
  SortMostFirst(&report->errors, [](const auto& row) { return row.when.count; });
}

}  // namespace tavlo::ctl
