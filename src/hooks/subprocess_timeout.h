#pragma once

#include <condition_variable>
#include <mutex>

#include <sys/types.h>

namespace Orx {

/// The watchdog of one child process: ends it with SIGTERM, sent once, when its time is up.
///
/// `Run` is the body of the watchdog's thread. The thread that waits for the child ends it: it sets
/// `finished` under `mutex`, unlocks, notifies `cond` and joins the thread, and only then reaps the
/// child. Until then the child is at worst a zombie, so that the signal cannot meet a stranger who
/// was given its process number.
struct SubprocessTimeout {
  /// A limit of 0 `seconds` makes it fire at once.
  SubprocessTimeout(pid_t watchedPid, unsigned int seconds);

  void Run();

  const pid_t pid;
  const unsigned int timeoutSecs;
  std::mutex mutex;
  std::condition_variable cond;
  bool timedOut = false;  ///< guarded by `mutex`: the signal has been sent
  bool finished = false;  ///< guarded by `mutex`: the child has been seen to exit
};

}  // namespace Orx
