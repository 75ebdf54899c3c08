#pragma once

#include <mutex>
#include <thread>

#include <sys/types.h>

#include "util/steady_condition.h"

namespace Orx {

/// The watchdog of one child process: ends it with SIGTERM, sent once, when its time is up.
///
/// `Run` is the body of the watchdog's thread, which SubprocessWatchdog starts and ends.
struct SubprocessTimeout {
  /// A limit of 0 `seconds` makes it fire at once. Throws std::system_error when the system refuses
  /// the condition.
  SubprocessTimeout(pid_t watchedPid, unsigned int seconds);

  void Run();

  const pid_t pid;
  const unsigned int timeoutSecs;
  std::mutex mutex;
  stdext::steady_condition cond;
  bool timedOut = false;  ///< guarded by `mutex`: the signal has been sent
  bool finished = false;  ///< guarded by `mutex`: the child has been seen to exit
};

/// The watchdog at work on a thread of its own. `Stop` comes before the child is reaped: until then
/// it is at worst a zombie, so that the signal cannot meet a stranger who was given its process
/// number.
class SubprocessWatchdog {
 public:
  /// Throws std::system_error when the system refuses the thread or its condition.
  SubprocessWatchdog(pid_t pid, unsigned int timeoutSecs);
  ~SubprocessWatchdog() { Stop(); }
  SubprocessWatchdog(const SubprocessWatchdog&) = delete;
  SubprocessWatchdog& operator=(const SubprocessWatchdog&) = delete;

  /// The child has been seen to exit; no signal is sent any more once this has returned.
  void Stop();

  /// Whether the signal has been sent.
  bool HasFired();

 private:
  SubprocessTimeout timeout_;
  std::thread thread_;
};

}  // namespace Orx
