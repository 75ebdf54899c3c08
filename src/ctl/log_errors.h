#pragma once

#include <map>
#include <string>
#include <utility>

#include "ctl/log_entry.h"
#include "ctl/log_report.h"
#include "ctl/message_table.h"

namespace tavlo::ctl {

/// Groups error lines by the rows of docs/messages.md.
class ErrorCounter {
 public:
  /// `messages` must live as long.
  explicit ErrorCounter(const MessageTable& messages) : messages_(messages) {}

  void Take(const LogEntry& entry, Step* step);
  void Report(LogReport* report) const;

 private:
  struct Error {
    std::string example;
    Occurrences when;
  };

  // The row, and that of the rest; both null for what the page does not have.
  using Rows = std::pair<const Message*, const Message*>;

  const MessageTable& messages_;
  std::map<Rows, Error> errors_;
};

}  // namespace tavlo::ctl
