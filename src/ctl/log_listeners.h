#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ctl/log_entry.h"

namespace tavlo::ctl {

/// Which thread is which listener. Some lines are only ever one listener's, and a process has one
/// of each.
class Listeners {
 public:
  /// The numbers of listeners; those of the present process's threads follow.
  enum Number : size_t { kUnknown, kPlain, kTls, kFirstThread };

  /// Further threads have no number of their own.
  static constexpr size_t kMostThreads = 8;
  static constexpr size_t kMostNumbers = kFirstThread + kMostThreads;

  /// Whether a line is the first one of another process, which is to be settled first.
  bool BeginsProcess(const LogEntry& entry);

  /// What each number turned out to be: unknown, plain or TLS. The threads are forgotten: another
  /// process may have the same numbers, as on a router after each boot.
  std::vector<size_t> EndProcess();

  /// The same, with the own number of a thread that has not shown which listener it is.
  std::vector<size_t> Numbers() const;

  /// Learns from a line; returns the number of the listener that wrote it, or `kUnknown`.
  size_t Take(const LogEntry& entry);

  /// By their numbers: "unknown", "plain", "TLS" and the threads'.
  std::vector<std::string> Names() const;

 private:
  struct Thread {
    std::string process;
    std::string name;
    Number listener;
  };

  static Number ListenerIn(const LogEntry& entry);
  size_t NumberOf(const LogEntry& entry);
  Number ListenerOf(const Thread& thread) const;

  std::vector<Thread> threads_;
  std::string beginning_;  // the process that has begun and not said yet that it has started
};

}  // namespace tavlo::ctl
