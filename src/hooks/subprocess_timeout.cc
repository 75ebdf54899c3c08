#include "hooks/subprocess_timeout.h"

#include <cerrno>
#include <chrono>

#include <signal.h>

#include "util/error_text.h"
#include "util/log.h"

namespace Orx {

SubprocessTimeout::SubprocessTimeout(pid_t watchedPid, unsigned int seconds)
    : pid(watchedPid), timeoutSecs(seconds) {}

void SubprocessTimeout::Run() {
  ORX_LOG(Log::kDebug, "Running subprocess timeout thread for PID %d (%d secs)", pid,
          static_cast<int>(timeoutSecs));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSecs);
  std::unique_lock<std::mutex> lock(mutex);
  if (cond.wait_until(lock, deadline, [this] { return finished; })) {
    return;
  }
  timedOut = true;
  ORX_LOG(Log::kDebug, "Exec'd process timeout exceeded. Killing %d", pid);
  if (::kill(pid, SIGTERM) != 0) {
    ORX_LOG(Log::kError, "subprocess kill pid %d failed: %s", pid, stdext::strerror(errno).c_str());
  }
}

SubprocessWatchdog::SubprocessWatchdog(pid_t pid, unsigned int timeoutSecs)
    : timeout_(pid, timeoutSecs), thread_(&SubprocessTimeout::Run, &timeout_) {}

void SubprocessWatchdog::Stop() {
  if (!thread_.joinable()) {
    return;
  }
  {
    const std::lock_guard<std::mutex> lock(timeout_.mutex);
    timeout_.finished = true;
  }
  timeout_.cond.notify_all();
  thread_.join();
}

bool SubprocessWatchdog::HasFired() {
  const std::lock_guard<std::mutex> lock(timeout_.mutex);
  return timeout_.timedOut;
}

}  // namespace Orx
