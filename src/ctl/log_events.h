#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/log_entry.h"
#include "ctl/log_report.h"

namespace tavlo::ctl {

/// Counts what is no request: starts of the daemon, clients that were ended for others, hook
/// scripts.
class EventCounter {
 public:
  /// More scripts, or more reasons, than these are counted as "other".
  static constexpr size_t kMostRows = 256;

  void Take(const LogEntry& entry);

  /// Sets starts and the tables of ended clients and of scripts.
  void Report(LogReport* report) const;

 private:
  void TakeEndedClients(const LogEntry& entry);
  void TakeFailedScript(const LogEntry& entry);
  LogReport::Script& ScriptAt(std::string_view path);
  void AddFailure(std::string_view path, const std::string& reason, int64_t time);

  Occurrences starts_;
  std::vector<LogReport::EndedClients> endedClients_;
  std::vector<LogReport::Script> scripts_;
};

}  // namespace tavlo::ctl
