#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace tavlo::ctl {

/// The longest line that is handed over, in bytes: the daemon's own and what a system log puts
/// before it. A longer one is cut.
constexpr size_t kMaxLogLine = 4096;

/// Hands over each line of a file, plain or compressed by gzip, without its line feed; "-" is
/// standard input. It reads as it goes and keeps one line. Returns false, with the reason, if the
/// file cannot be read, or only in part: what was read of it has been handed over then. A line is
/// valid until `take` returns.
bool ReadLines(const std::string& path, const std::function<void(std::string_view)>& take,
               std::string* error);

}  // namespace tavlo::ctl
