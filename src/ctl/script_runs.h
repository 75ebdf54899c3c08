#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/log_entry.h"

namespace tavlo::ctl {

/// One run of a script, as the log tells it at debug level.
struct ScriptRun {
  std::string path;
  int status = 0;  ///< its exit status; -1 when it did not end by itself, or too late
  long milliseconds = 0;
  std::vector<std::string> remarks;  ///< its standard error, and what went wrong, line by line
};

struct ScriptRuns {
  std::vector<ScriptRun> runs;       ///< in their order
  std::vector<std::string> remarks;  ///< error lines that belong to none of them
};

/// The run that a line tells the end of, without its remarks; nothing for any other line.
std::optional<ScriptRun> ParseScriptRun(const LogEntry& entry);

/// Reads lines that `Orx::SecureExec` has logged, of one script after another.
ScriptRuns ReadScriptRuns(const std::string& log);

}  // namespace tavlo::ctl
