#pragma once

#include <functional>
#include <string>
#include <vector>

namespace test {

/// What the process has handed to the system log. The functions of <syslog.h> are replaced in every
/// unit test: nothing reaches the machine's own log.
struct SyslogRecord {
  struct Line {
    int level;
    std::string format;
    std::string text;
  };

  /// The names of the functions called, in order: "openlog", "setlogmask", "syslog", "closelog".
  std::vector<std::string> calls;
  int mask = -1;
  /// The very pointer that openlog was given.
  const char* ident = nullptr;
  int options = -1;
  int facility = -1;
  std::vector<Line> lines;

  /// When set, runs at each call, after it has been recorded.
  std::function<void()> onCall;
};

/// The one record of the process. Not guarded: the logger calls the system log under its own lock.
SyslogRecord& Syslog();

}  // namespace test
