#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

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

  void Take(const LogEntry& entry, size_t listener, Step* step);

  /// The listeners of before have ended.
  void Settle() { faults_.clear(); }

  void Report(LogReport* report) const;

 private:
  void TakeDaemons(const LogEntry& entry, Step* step);
  void TakeFault(const LogEntry& entry, size_t listener, Step* step);
  void TakeLibrarys(const LogEntry& entry, size_t listener, Step* step);
  void TakeWrongKey(const LogEntry& entry);
  void Count(int status, std::string_view reason, int64_t time, Step* step);

  std::map<std::pair<int, std::string>, Occurrences> reasons_;
  std::map<size_t, uint64_t> faults_;  // by listener, that libevent has not answered yet
  LogReport::WrongKeys wrongKeys_;
  std::set<size_t> keys_;  // their hashes
};

}  // namespace tavlo::ctl
