#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ctl/log_entry.h"

namespace tavlo::ctl {

/// Which thread is which listener. The log does not say so itself; some lines are only ever one
/// listener's, and a process has one of each.
class Listeners {
 public:
  /// What is no listener's, or of one too many.
  static constexpr size_t kUnknown = 0;
  static constexpr size_t kMost = 64;

  Listeners();

  /// Learns from a line; returns the number of the listener whose thread wrote it.
  size_t Take(const LogEntry& entry);

  /// By their numbers: "plain", "TLS", the thread of one that did not show what it is, or
  /// "unknown", as are those threads where they are many.
  std::vector<std::string> Names() const;

 private:
  enum class Role { kUnknown, kPlain, kTls };

  struct Listener {
    std::string process;
    std::string thread;
    Role role;
    size_t start;  // of the daemon, as counted here
  };

  static Role RoleIn(const LogEntry& entry);
  bool BeginsAnotherProcess(const LogEntry& entry);
  size_t NumberOf(const LogEntry& entry);
  Role RoleOf(const Listener& listener) const;

  std::vector<Listener> listeners_;
  std::map<std::string, size_t, std::less<>> numbers_;  // by their threads, since the last start
  size_t starts_ = 0;
  std::string beginning_;  // the process that has begun and not said yet that it has started
};

}  // namespace tavlo::ctl
