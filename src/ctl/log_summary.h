#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "ctl/log_entry.h"
#include "ctl/log_errors.h"
#include "ctl/log_events.h"
#include "ctl/log_listeners.h"
#include "ctl/log_refusals.h"
#include "ctl/log_report.h"
#include "ctl/log_requests.h"
#include "ctl/message_table.h"

namespace tavlo::ctl {

/// Reads a log line by line, the oldest one first, and counts. Its memory is bounded whatever the
/// lines hold.
class LogSummary {
 public:
  /// Of what is older than `since`, in milliseconds since 1970, only what explains the rest is
  /// looked at. `messages` must live as long.
  LogSummary(const MessageTable& messages, int64_t since);

  /// Takes the next line, without its line feed; any bytes.
  void Add(std::string_view line);

  LogReport Report() const;

 private:
  Step* StepOf(const LogEntry& entry);

  const int64_t since_;
  bool isCounting_;           // the last line was not too old
  std::string debugProcess_;  // the last one that wrote a line that comes with -d alone
  Step otherTime_;            // what has no place in the timeline
  LogReport counted_;         // without what the counters below have
  Listeners listeners_;
  RequestCounter requests_;
  RefusalCounter refusals_;
  ErrorCounter errors_;
  EventCounter events_;
};

}  // namespace tavlo::ctl
