#include "ctl/script_runs.h"

#include <sstream>
#include <string_view>
#include <utility>

#include "ctl/text_pattern.h"
#include "util/log.h"

namespace tavlo::ctl {

namespace {

constexpr int64_t kMostMilliseconds = 1000000000;
constexpr int64_t kLargestStatus = 255;

void TakeError(const LogEntry& entry, ScriptRuns* found) {
  static const TextPattern kSaid("stderr from pid %d: %s");
  std::vector<std::string_view> values;
  const bool isSaid = kSaid.Match(entry.text, &values);
  found->remarks.push_back(isSaid ? "stderr: " + std::string(values[1])
                                  : "error: " + std::string(entry.text));
}

}  // namespace

std::optional<ScriptRun> ParseScriptRun(const LogEntry& entry) {
  static const TextPattern kEnded("PID %d ended with status %d after %lld ms: %s");
  std::vector<std::string_view> values;
  if (entry.level != Orx::Log::kDebug || !kEnded.Match(entry.text, &values)) {
    return std::nullopt;
  }
  ScriptRun run;
  run.path = values[3];
  run.status = static_cast<int>(NumberIn(values[1], kLargestStatus).value_or(-1));
  run.milliseconds = static_cast<long>(NumberIn(values[2], kMostMilliseconds).value_or(0));
  return run;
}

ScriptRuns ReadScriptRuns(const std::string& log) {
  ScriptRuns found;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    const auto entry = ParseLogEntry(line);
    if (!entry) {
      continue;
    }
    if (auto run = ParseScriptRun(*entry)) {
      run->remarks.swap(found.remarks);
      found.runs.push_back(std::move(*run));
    } else if (entry->level == Orx::Log::kError) {
      TakeError(*entry, &found);
    }
  }
  return found;
}

}  // namespace tavlo::ctl
