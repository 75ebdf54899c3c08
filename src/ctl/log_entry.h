#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavlo::ctl {

/// One line of the daemon's log, taken apart (util/log.h shows its form). It refers to the line.
struct LogEntry {
  int64_t time;              ///< milliseconds since 1970, UTC
  std::string_view process;  ///< in hexadecimal
  std::string_view thread;   ///< the process and the thread: "4d2.7f9c5a01c0"
  int level;
  std::string_view function;
  std::string_view text;

  /// Whether the function's name has this in it, such as a class.
  bool IsOf(std::string_view name) const { return function.find(name) != function.npos; }
  bool IsRequest() const;  ///< one that came whole: "GET /api/version"
  bool IsStart() const;    ///< of the daemon
};

/// Takes a line without its line feed apart, any bytes. What a system log puts before it ("Nov 21
/// 15:46:20 router tavlo[1234]: ") is left out. Nothing if it is no line of the daemon's.
std::optional<LogEntry> ParseLogEntry(std::string_view line);

/// A moment, in milliseconds since 1970: "2026-11-21", "2026-11-21 15:46" or "2026-11-21 15:46:20",
/// in UTC as in the log; or "90s", "30m", "12h", "7d" before `now`.
std::optional<int64_t> ParseSince(std::string_view text, int64_t now);

/// "2026-11-21 15:46:20", in UTC.
std::string FormatTime(int64_t time);

}  // namespace tavlo::ctl
