#include "ctl/log_requests.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "ctl/log_listeners.h"
#include "ctl/printable.h"
#include "ctl/text_pattern.h"

namespace tavlo::ctl {

namespace {

constexpr const char* kOther = "other";
constexpr size_t kMostShown = 200;  // bytes of an endpoint
constexpr int64_t kLargestStatus = 999;
constexpr size_t kMostUnanswered = 128;  // of a listener, the latest ones

// Method and path. What is asked for outside of /api/ is a scanner's, and another one each time.
std::string EndpointOf(std::string_view request) {
  const size_t blank = std::min(request.find(' '), request.size());
  const std::string_view method = request.substr(0, blank);
  const std::string_view uri = request.substr(std::min(blank + 1, request.size()));
  const std::string_view path = uri.substr(0, uri.find('?'));
  return path.substr(0, 5) == "/api/"
             ? Printable(std::string(method) + " " + std::string(path), kMostShown)
             : "outside /api/";
}

// What happens on the thread of a listener, but says nothing of its last request.
bool IsOfAnother(const LogEntry& entry) {
  return entry.IsOf("AgentHost::Invoke") || entry.BeginsWith("Accepted ");
}

}  // namespace

void RequestCounter::Take(const LogEntry& entry, size_t listener, bool isDebug, Step* step) {
  if (entry.IsRequest()) {
    TakeRequest(entry, listener, step);
    return;
  }
  TakeAnswer(entry, listener, step);
  if (isDebug && listener != Listeners::kUnknown && !IsOfAnother(entry)) {
    TakeNextLine(entry, listener, step);
  }
}

void RequestCounter::TakeRequest(const LogEntry& entry, size_t listener, Step* step) {
  const Asked asked = {entry.time, EndpointOf(entry.text)};
  At({listener, asked.endpoint}).AddRequest(entry.time);
  listeners_[listener].AddRequest(entry.time);
  ++step->requests;
  Waiting& waiting = waiting_[listener];
  waiting.last = asked;
  waiting.unanswered.push_back(asked);
  if (waiting.unanswered.size() > kMostUnanswered) {
    waiting.unanswered.pop_front();
  }
}

// "Answered 200 to 192.0.2.7:51234: 312 bytes, 4 ms since its request"
void RequestCounter::TakeAnswer(const LogEntry& entry, size_t listener, Step* step) {
  static const TextPattern kAnswer("Answered %d to %s: %zu bytes, %lld ms since its request");
  constexpr int64_t kMostMilliseconds = 1000000000;
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
// logged just then.
void RequestCounter::FinishRequest(const LogEntry& entry, size_t listener, int64_t milliseconds) {
  constexpr int64_t kTolerance = 5;
  const int64_t time = entry.time - milliseconds;
  const auto distance = [time](const Asked& asked) { return std::abs(asked.time - time); };
  std::deque<Asked>& unanswered = waiting_[listener].unanswered;
  const auto asked = std::min_element(
      unanswered.begin(), unanswered.end(),
      [&](const Asked& one, const Asked& other) { return distance(one) < distance(other); });
  if (asked == unanswered.end() || distance(*asked) > kTolerance) {
    return;
  }
  Known(listener, asked->endpoint).toAnswer.Add(milliseconds);
  listeners_[listener].toAnswer.Add(milliseconds);
  unanswered.erase(asked);
}

void RequestCounter::TakeNextLine(const LogEntry& entry, size_t listener, Step* step) {
  std::optional<Asked>& asked = waiting_[listener].last;
  if (!asked) {
    return;
  }
  const int64_t time = std::max(entry.time - asked->time, int64_t{0});  // the clock may be set
  Known(listener, asked->endpoint).toNextLine.Add(time);
  listeners_[listener].toNextLine.Add(time);
  step->slowest = std::max(step->slowest, time);
  asked.reset();
}

// Of an endpoint that was asked for: it has a row, if not that of the others by now.
Traffic& RequestCounter::Known(size_t listener, const std::string& endpoint) {
  const auto row = endpoints_.find({listener, endpoint});
  return row != endpoints_.end() ? row->second : endpoints_[{listener, kOther}];
}

Traffic& RequestCounter::At(const Key& key) {
  const auto known = endpoints_.find(key);
  if (known != endpoints_.end()) {
    return known->second;
  }
  if (endpoints_.size() >= kMostEndpoints) {
    ForgetTheRarest();
  }
  return endpoints_[key];
}

// Half of them at once, since it looks at all.
void RequestCounter::ForgetTheRarest() {
  std::vector<uint64_t> counts;
  for (const auto& [key, traffic] : endpoints_) {
    counts.push_back(traffic.count);
  }
  const auto middle = counts.begin() + static_cast<std::ptrdiff_t>(counts.size() / 2);
  std::nth_element(counts.begin(), middle, counts.end());
  std::map<size_t, Traffic> others;
  for (auto next = endpoints_.begin(); next != endpoints_.end();) {
    if (next->second.count > *middle) {
      ++next;
      continue;
    }
    others[next->first.first].Add(next->second);
    next = endpoints_.erase(next);
  }
  for (const auto& [listener, traffic] : others) {
    endpoints_[{listener, kOther}].Add(traffic);
  }
}

void RequestCounter::Settle(const std::vector<size_t>& numbers) {
  std::map<Key, Traffic> endpoints;
  for (const auto& [key, traffic] : endpoints_) {
    endpoints[{numbers.at(key.first), key.second}].Add(traffic);
  }
  endpoints_.swap(endpoints);
  std::map<size_t, Traffic> listeners;
  for (const auto& [number, traffic] : listeners_) {
    listeners[numbers.at(number)].Add(traffic);
  }
  listeners_.swap(listeners);
  std::map<std::pair<size_t, int>, Durations> answers;
  for (const auto& [key, times] : answers_) {
    answers[{numbers.at(key.first), key.second}].Add(times);
  }
  answers_.swap(answers);
  waiting_.clear();
}

void RequestCounter::Report(const std::vector<std::string>& names, LogReport* report) const {
  // Threads that turned out to be the same listener's, of one process after another, are one.
  std::map<std::pair<std::string, std::string>, Traffic> rows;
  for (const auto& [listener, traffic] : listeners_) {
    rows[{names.at(listener), ""}].Add(traffic);
  }
  for (const auto& [key, traffic] : endpoints_) {
    rows[{names.at(key.first), key.second}].Add(traffic);
  }
  std::map<std::pair<std::string, int>, Durations> answers;
  for (const auto& [key, times] : answers_) {
    answers[{names.at(key.first), key.second}].Add(times);
  }
  for (const auto& [row, traffic] : rows) {
    auto& rowsOfItsKind = row.second.empty() ? report->listeners : report->endpoints;
    rowsOfItsKind.push_back({row.first, row.second, traffic});
  }
  std::stable_sort(report->endpoints.begin(), report->endpoints.end(),
                   [](const auto& a, const auto& b) { return a.traffic.count > b.traffic.count; });
  for (const auto& [row, times] : answers) {
    report->answers.push_back({row.first, row.second, times});
  }
}

}  // namespace tavlo::ctl
