#include "ctl/log_requests.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "ctl/log_listeners.h"
#include "ctl/most_first.h"
#include "ctl/printable.h"
#include "ctl/text.h"
#include "ctl/text_pattern.h"

namespace tavlo::ctl {

namespace {

constexpr const char* kOther = "other";
constexpr const char* kAll = "";
constexpr size_t kMostShown = 200;  // bytes of an endpoint
constexpr int64_t kLargestStatus = 999;
constexpr size_t kMostUnanswered = 128;  // of a listener, the latest ones
constexpr int64_t kMostMilliseconds = 1000000000;
constexpr int64_t kMostSilence = 120000;  // a thread ends the daemon after half of it

// Method and path. What is asked for outside of /api/ is a scanner's, and another one each time.
std::string EndpointOf(std::string_view request) {
  const size_t blank = request.find(' ');
  if (blank == request.npos || !BeginsWith(request.substr(blank + 1), "/api/")) {
    return "outside /api/";
  }
  return Printable(request.substr(0, request.find('?', blank)), kMostShown);
}

// What happens on the thread of a listener, but says nothing of its last request.
bool IsAboutAnother(const LogEntry& entry) {
  return entry.IsOf("AgentHost::Invoke") || BeginsWith(entry.text, "Accepted ");
}

// The rows of listeners that turned out to be the same are one.
template <typename Rows>
Rows Renumbered(const Rows& rows, const std::vector<size_t>& numbers) {
  Rows result;
  for (const auto& [key, row] : rows) {
    result[{numbers.at(key.first), key.second}].Add(row);
  }
  return result;
}

}  // namespace

RequestCounter::RequestCounter() : pending_(Listeners::kMostNumbers) {}

void RequestCounter::Take(const LogEntry& entry, size_t listener, bool isDebug, Step* step) {
  if (entry.IsRequest()) {
    TakeRequest(entry, listener, isDebug, step);
    return;
  }
  TakeAnswer(entry, listener, step);
  if (isDebug && listener != Listeners::kUnknown && !IsAboutAnother(entry)) {
    TakeNextLine(entry, listener, step);
  }
}

void RequestCounter::TakeRequest(const LogEntry& entry, size_t listener, bool isDebug, Step* step) {
  const Request request = {entry.time, EndpointOf(entry.text)};
  rows_[{listener, kAll}].AddRequest(entry.time);
  rows_[{listener, request.endpoint}].AddRequest(entry.time);
  if (rows_.size() > kMostEndpoints) {
    MergeRarest();
  }
  ++step->requests;
  if (!isDebug) {
    return;
  }
  Pending& pending = pending_.at(listener);
  pending.last = request;
  pending.unanswered.push_back(request);
  if (pending.unanswered.size() > kMostUnanswered) {
    pending.unanswered.erase(pending.unanswered.begin());
  }
}

// "Answered 200 to 192.0.2.7:51234: 312 bytes, 4 ms since its request"
void RequestCounter::TakeAnswer(const LogEntry& entry, size_t listener, Step* step) {
  static const TextPattern kAnswer("Answered %d to %s: %zu bytes, %lld ms since its request");
  std::vector<std::string_view> values;
  if (!entry.IsOf("ClientTable::") || !kAnswer.Match(entry.text, &values)) {
    return;
  }
  const auto status = NumberIn(values[0], kLargestStatus);
  const auto milliseconds = NumberIn(values[3], kMostMilliseconds);
  if (status && milliseconds) {
    answers_[{listener, static_cast<int>(*status)}].Add(*milliseconds);
    step->slowest = std::max(step->slowest, *milliseconds);
    FinishRequest(entry, listener, *milliseconds);
  }
}

// An answer's line does not name its request, but tells when that came: it is the one that was
// logged next to that time. A busy router is some time in logging it.
void RequestCounter::FinishRequest(const LogEntry& entry, size_t listener, int64_t milliseconds) {
  constexpr int64_t kTolerance = 100;
  const int64_t time = entry.time - milliseconds;
  const auto distance = [time](const Request& request) { return std::abs(request.time - time); };
  std::vector<Request>& unanswered = pending_.at(listener).unanswered;
  const auto request = std::min_element(
      unanswered.begin(), unanswered.end(),
      [&](const Request& one, const Request& other) { return distance(one) < distance(other); });
  if (request == unanswered.end() || distance(*request) > kTolerance) {
    return;
  }
  RowOf(listener, request->endpoint).toAnswer.Add(milliseconds);
  rows_[{listener, kAll}].toAnswer.Add(milliseconds);
  unanswered.erase(request);
}

void RequestCounter::TakeNextLine(const LogEntry& entry, size_t listener, Step* step) {
  std::optional<Request>& request = pending_.at(listener).last;
  if (!request) {
    return;
  }
  const int64_t time = entry.time - request->time;
  if (time >= 0 && time <= kMostSilence) {
    RowOf(listener, request->endpoint).toNextLine.Add(time);
    rows_[{listener, kAll}].toNextLine.Add(time);
    step->slowest = std::max(step->slowest, time);
  }
  request.reset();
}

// Of an endpoint that was asked for: it has a row, if not that of the others by now.
Traffic& RequestCounter::RowOf(size_t listener, const std::string& endpoint) {
  const auto row = rows_.find({listener, endpoint});
  return row != rows_.end() ? row->second : rows_[{listener, kOther}];
}

// Half of them at once, since it looks at all.
void RequestCounter::MergeRarest() {
  std::vector<uint64_t> counts;
  counts.reserve(rows_.size());
  for (const auto& [key, traffic] : rows_) {
    counts.push_back(traffic.count);
  }
  const auto middle = counts.begin() + static_cast<std::ptrdiff_t>(counts.size() / 2);
  std::nth_element(counts.begin(), middle, counts.end());
  Rows kept;
  for (const auto& [key, traffic] : rows_) {
    const bool isKept = traffic.count > *middle || key.second == kAll;
    if (isKept && key.second != kOther) {
      kept[key] = traffic;  // with the minute that it is in
    } else {
      kept[{key.first, kOther}].Add(traffic);
    }
  }
  rows_.swap(kept);
}

void RequestCounter::EndProcess(const std::vector<size_t>& numbers) {
  rows_ = Renumbered(rows_, numbers);
  answers_ = Renumbered(answers_, numbers);
  pending_.assign(pending_.size(), Pending());
}

void RequestCounter::Report(const std::vector<size_t>& numbers,
                            const std::vector<std::string>& names, LogReport* report) const {
  for (auto [key, traffic] : Renumbered(rows_, numbers)) {
    if (key.second == kOther) {
      traffic.busiestMinute = 0;  // which rows had had theirs at the same time is not kept
    }
    auto& rows = key.second == kAll ? report->listeners : report->endpoints;
    rows.push_back({names.at(key.first), key.second, traffic});
  }
  SortMostFirst(&report->endpoints, [](const auto& row) { return row.traffic.count; });
  for (const auto& [key, times] : Renumbered(answers_, numbers)) {
    report->answers.push_back({names.at(key.first), key.second, times});
  }
}

}  // namespace tavlo::ctl
