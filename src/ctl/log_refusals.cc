#include "ctl/log_refusals.h"

#include <algorithm>
#include <array>
#include <functional>
#include <vector>

#include "ctl/log_listeners.h"
#include "ctl/most_first.h"
#include "ctl/printable.h"
#include "ctl/text.h"
#include "ctl/text_pattern.h"
#include "util/log.h"

namespace tavlo::ctl {

namespace {

constexpr int kBadRequest = 400;
constexpr int64_t kLargestStatus = 999;
constexpr size_t kMostShown = 100;  // bytes of a reason

constexpr std::string_view kWrongKey = "Pairing key not as expected: '";

// What each refusal has one line of. (An answer of the SDK REST host that was too large, say, has
// one more that explains it.)
struct Reason {
  int level;
  std::string_view begin;  // of the line's text
  int status;
  std::string_view reason;
};

constexpr std::array<Reason, 16> kReasons = {{
    {Orx::Log::kDebug, kWrongKey, 417, "Pairing key not as expected"},
    {Orx::Log::kDebug, "Endpoint is not allowed with insecure connection", 417,
     "Endpoint is not allowed with insecure connection"},
    {Orx::Log::kDebug, "Call terminated by hook", 200, "Call terminated by hook"},
    {Orx::Log::kError, "Invalid endpoint is called: ", 404, "Invalid endpoint is called"},
    {Orx::Log::kError, "Pairing key is not configured", 500, "Pairing key is not configured"},
    {Orx::Log::kError, "Invalid character in the URI", 400, "Invalid character in the URI"},
    {Orx::Log::kError, "Too many requests wait for the SDK REST host", 500,
     "Too many requests wait for the SDK REST host"},
    {Orx::Log::kError, "Failed in forwarding the http req to SDK REST host", 500,
     "Failed in forwarding the http req to SDK REST host"},
    {Orx::Log::kError, "Destination request failed", 500, "Destination request failed"},
    {Orx::Log::kError, "Timeout in forwarding request", 500, "Timeout in forwarding request"},
    {Orx::Log::kError, "Answers that clients have not taken hold ", 500,
     "Answers that clients have not taken"},
    {Orx::Log::kError, "No MAC found for IP: ", 500, "No MAC found"},
    {Orx::Log::kError, "File can not be read: ", 500, "File can not be read"},
    {Orx::Log::kError, "File can not be parsed as json: ", 500, "File can not be parsed as json"},
    {Orx::Log::kError, "Failed to write file ", 500, "Failed to write file"},
    {Orx::Log::kError, "Failed to invoke agent hook: ", 500, "Failed to invoke agent hook"},
}};

}  // namespace

RefusalCounter::RefusalCounter() : unanswered_(Listeners::kMostNumbers) {}

void RefusalCounter::Take(const LogEntry& entry, size_t listener, Step* step) {
  if (entry.level == Orx::Log::kInfo) {
    TakeFramingRefusal(entry, listener, step);
    TakeLibeventsRefusal(entry, listener, step);
  } else {
    TakeDaemonsRefusal(entry, step);
  }
}

void RefusalCounter::TakeDaemonsRefusal(const LogEntry& entry, Step* step) {
  const auto reason = std::find_if(kReasons.begin(), kReasons.end(), [&](const Reason& each) {
    return each.level == entry.level && BeginsWith(entry.text, each.begin);
  });
  if (reason == kReasons.end()) {
    return;
  }
  Count(reason->status, reason->reason, entry.time, step);
  if (reason->begin == kWrongKey) {
    TakeWrongKey(entry);
  }
}

// "A request of 192.0.2.7 is refused: Two Content-Length". What libevent answers to it is a line of
// its own, and no refusal more.
void RefusalCounter::TakeFramingRefusal(const LogEntry& entry, size_t listener, Step* step) {
  static const TextPattern kFault("A request of %s is refused: %s");
  std::vector<std::string_view> values;
  if (entry.IsOf("ClientTable::") && kFault.Match(entry.text, &values)) {
    Count(kBadRequest, values[1], entry.time, step);
    ++unanswered_.at(listener);
  }
}

void RefusalCounter::TakeLibeventsRefusal(const LogEntry& entry, size_t listener, Step* step) {
  static const TextPattern kAnswer("Answered %d to a request of %s that was not taken up");
  std::vector<std::string_view> values;
  if (!entry.IsOf("ClientTable::") || !kAnswer.Match(entry.text, &values)) {
    return;
  }
  const int status = static_cast<int>(NumberIn(values[0], kLargestStatus).value_or(0));
  if (status == kBadRequest && unanswered_.at(listener) > 0) {
    --unanswered_.at(listener);
    return;
  }
  Count(status, "A request that was not taken up", entry.time, step);
}

void RefusalCounter::TakeWrongKey(const LogEntry& entry) {
  wrongKeys_.when.Add(entry.time);
  const size_t key = std::hash<std::string_view>()(entry.text.substr(kWrongKey.size()));
  if (keys_.size() < kMostKeys) {
    keys_.insert(key);
  } else if (keys_.count(key) == 0) {
    wrongKeys_.areMore = true;
  }
}

Occurrences& RefusalCounter::At(int status, const std::string& reason) {
  const auto row = std::find_if(reasons_.begin(), reasons_.end(), [&](const auto& each) {
    return each.status == status && each.reason == reason;
  });
  if (row != reasons_.end()) {
    return row->when;
  }
  if (reasons_.size() >= kMostReasons && status != 0) {
    return At(0, "other");
  }
  reasons_.push_back({status, reason, {}});
  return reasons_.back().when;
}

void RefusalCounter::Count(int status, std::string_view reason, int64_t time, Step* step) {
  At(status, Printable(reason, kMostShown)).Add(time);
  ++step->refusals;
}

void RefusalCounter::Report(LogReport* report) const {
  report->refusals = reasons_;
  SortMostFirst(&report->refusals, [](const auto& row) { return row.when.count; });
  report->wrongKeys = wrongKeys_;
  report->wrongKeys.different = keys_.size();
}

}  // namespace tavlo::ctl
