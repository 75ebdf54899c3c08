#pragma once

#include <string>
#include <vector>

#include "ctl/log_entry.h"
#include "ctl/log_report.h"
#include "ctl/message_table.h"

namespace tavlo::ctl {

/// Groups error lines by the rows of docs/messages.md.
class ErrorCounter {
 public:
  /// `messages` must live as long.
  explicit ErrorCounter(const MessageTable& messages) : messages_(messages) {}

  /// Takes the next line, and adds it to its step of time if it is one.
  void Take(const LogEntry& entry, Step* step);

  /// Sets the table of errors, the most frequent first.
  void Report(LogReport* report) const;

 private:
  struct Error {
    MessageTable::Meaning meaning;
    std::string example;
    Occurrences when;
  };

  Error& At(const MessageTable::Meaning& meaning);

  const MessageTable& messages_;
  std::vector<Error> errors_;
};

}  // namespace tavlo::ctl
