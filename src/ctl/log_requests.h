#pragma once

#include <cstdint>
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

  RequestCounter();

  /// Takes the next line, of the listener of that number (`Listeners`), and adds it to its step of
  /// time if it is a request. `isDebug`: the daemon writes all that it does.
  void Take(const LogEntry& entry, size_t listener, bool isDebug, Step* step);

  /// The listeners of before have ended; each is what `numbers` has in its place.
  void EndProcess(const std::vector<size_t>& numbers);

  /// Sets the tables of listeners, endpoints and answers. Names the listeners by `numbers` and
  /// `names`: what each turned out to be, and is called.
  void Report(const std::vector<size_t>& numbers, const std::vector<std::string>& names,
              LogReport* report) const;

 private:
  // Listener and endpoint; without an endpoint, all of the listener's.
  using Rows = std::map<std::pair<size_t, std::string>, Traffic>;
  // By listener and status.
  using Answers = std::map<std::pair<size_t, int>, Durations>;

  struct Request {
    int64_t time;
    std::string endpoint;
  };

  // What a listener was asked, as far as its lines tell.
  struct Pending {
    std::optional<Request> last;      // if no line follows it yet
    std::vector<Request> unanswered;  // oldest first; those whose clients have gone stay for long
  };

  void TakeRequest(const LogEntry& entry, size_t listener, bool isDebug, Step* step);
  void TakeAnswer(const LogEntry& entry, size_t listener, Step* step);
  void FinishRequest(const LogEntry& entry, size_t listener, int64_t milliseconds);
  void TakeNextLine(const LogEntry& entry, size_t listener, Step* step);
  Traffic& RowOf(size_t listener, const std::string& endpoint);
  void MergeRarest();

  Rows rows_;
  Answers answers_;
  std::vector<Pending> pending_;  // by listener
};

}  // namespace tavlo::ctl
