#pragma once

#include <optional>
#include <string>

namespace tavlo {

/// What the command line asks for.
struct Options {
  bool debug = false;
  bool sysLog = false;
  std::optional<std::string> logPath;   ///< set: log to this file
  std::string configPath;               ///< empty: built-in defaults
  std::optional<std::string> printKey;  ///< set: print this configuration value and exit
};

/// Returns nothing when the process is to exit with status 1: the usage was asked for, or an option
/// or an argument was wrong. That has been printed then.
std::optional<Options> ParseCommandLine(int argc, char** argv);

}  // namespace tavlo
