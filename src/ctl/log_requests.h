#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/log_entry.h"
#include "ctl/log_report.h"

namespace tavlo::ctl {

/// Counts requests by listener and endpoint, and measures how long they took.
class RequestCounter {
 public:
  /// More endpoints than these are counted as "other": the rarest ones first, so that a scan does
  /// not push out what is asked for day by day.
  static constexpr size_t kMostEndpoints = 1024;

  /// Takes a line of a listener's thread. `isDebug`: the daemon writes all that it does.
  void Take(const LogEntry& entry, size_t listener, bool isDebug, Step* step);

  /// The listeners of before have ended; each is what `numbers` has in its place.
  void Settle(const std::vector<size_t>& numbers);

  /// Names the listeners by their numbers.
  void Report(const std::vector<std::string>& names, LogReport* report) const;

 private:
  using Key = std::pair<size_t, std::string>;  // listener and endpoint

  struct Asked {
    int64_t time;
    std::string endpoint;
  };

  // What a listener was asked, as far as its lines tell.
  struct Waiting {
    std::optional<Asked> last;  // if no line follows it yet
    std::deque<Asked>
        unanswered;  // oldest first; not those whose clients have gone, or not for long
  };

  void TakeRequest(const LogEntry& entry, size_t listener, Step* step);
  void TakeAnswer(const LogEntry& entry, size_t listener, Step* step);
  void FinishRequest(const LogEntry& entry, size_t listener, int64_t milliseconds);
  void TakeNextLine(const LogEntry& entry, size_t listener, Step* step);
  Traffic& Known(size_t listener, const std::string& endpoint);
  Traffic& At(const Key& key);
  void ForgetTheRarest();

  std::map<Key, Traffic> endpoints_;
  std::map<size_t, Traffic> listeners_;
  std::map<size_t, Waiting> waiting_;
  std::map<std::pair<size_t, int>, Durations> answers_;  // by listener and status
};

}  // namespace tavlo::ctl
