#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/log_entry.h"
#include "ctl/log_report.h"

namespace tavlo::ctl {

/// Counts the answers that were the daemon's own, by what the log gives as their reason, and the
/// pairing keys that were wrong. Several lines of one answer count once.
class RefusalCounter {
 public:
  /// More reasons, or more different keys, than these are not told apart.
  static constexpr size_t kMostReasons = 256;
  static constexpr size_t kMostKeys = 1000;

  RefusalCounter();

  /// Takes the next line, of the listener of that number (`Listeners`), and adds it to its step of
  /// time if it is one.
  void Take(const LogEntry& entry, size_t listener, Step* step);

  /// The listeners of before have ended.
  void EndProcess() { unanswered_.assign(unanswered_.size(), 0); }

  /// Sets the tables of refusals and of wrong keys.
  void Report(LogReport* report) const;

 private:
  void TakeDaemonsRefusal(const LogEntry& entry, Step* step);
  void TakeFramingRefusal(const LogEntry& entry, size_t listener, Step* step);
  void TakeLibeventsRefusal(const LogEntry& entry, size_t listener, Step* step);
  void TakeWrongKey(const LogEntry& entry);
  Occurrences& At(int status, const std::string& reason);
  void Count(int status, std::string_view reason, int64_t time, Step* step);

  std::vector<LogReport::Refusal> reasons_;
  std::vector<uint64_t> unanswered_;  // by listener, that libevent has not answered yet
  LogReport::WrongKeys wrongKeys_;
  std::set<size_t> keys_;  // their hashes
};

}  // namespace tavlo::ctl
