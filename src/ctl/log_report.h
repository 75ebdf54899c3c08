#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "ctl/log_counts.h"

namespace tavlo::ctl {

/// What a log says, ready to be shown. Texts that come from the log are printable.
struct LogReport {
  struct Requests {
    std::string listener;  ///< "plain", "TLS", a thread or "unknown"
    std::string endpoint;  ///< method and path; empty for all of the listener's
    Traffic traffic;
  };
  struct Refusal {
    int status;  ///< 0 for all reasons that are not told apart
    std::string reason;
    Occurrences when;
  };
  struct Answers {
    std::string listener;
    int status;
    Durations times;
  };
  struct WrongKeys {
    Occurrences when;
    size_t different = 0;
    bool areMore = false;  ///< more different ones than were counted
  };
  struct Error {
    std::string message;  ///< its format in docs/messages.md; empty if it is not there
    std::string rest;     ///< that of what the message ends with, where this tells the cause
    std::string example;  ///< the last one
    std::string cause;
    std::string cure;
    Occurrences when;
  };
  struct EndedClients {
    std::string reason;
    std::string lastAddress;
    Occurrences when;
  };
  struct Script {
    std::string path;
    Durations times;  ///< of its runs; none without -d
    Occurrences failures;
    std::string lastFailure;
  };

  uint64_t lines = 0;       ///< of the daemon's
  uint64_t otherLines = 0;  ///< that are not
  uint64_t clockUnset = 0;  ///< lines of a clock that was not set yet
  bool hasDebug = false;    ///< there are lines that come with -d alone
  Occurrences period;       ///< of the lines whose clock was set
  Occurrences starts;
  std::vector<Requests> listeners;
  std::vector<Requests> endpoints;
  std::vector<Answers> answers;
  std::vector<Refusal> refusals;
  WrongKeys wrongKeys;
  std::vector<Error> errors;
  std::vector<EndedClients> endedClients;
  std::vector<Script> scripts;
  Timeline timeline;

  /// Minutes from the first line to the last one, at least 1.
  double Minutes() const;
  uint64_t RequestCount() const;
};

/// For people.
void PrintText(const LogReport& report, std::ostream& out);

/// For programs: one object.
void PrintJson(const LogReport& report, std::ostream& out);

/// A picture over time, in SVG.
void PrintPlot(const LogReport& report, std::ostream& out);

}  // namespace tavlo::ctl
