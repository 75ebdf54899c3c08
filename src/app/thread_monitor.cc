#include "app/thread_monitor.h"

namespace Orx {

void ThreadMonitor::Register(ThreadIdentity identity, const ThreadInfo& info) {
  const std::lock_guard<std::mutex> lock(mutex_);
  threads_.emplace(identity, info);
}

void ThreadMonitor::Unregister(ThreadIdentity identity) {
  const std::lock_guard<std::mutex> lock(mutex_);
  threads_.erase(identity);
}

void ThreadMonitor::Beat(ThreadIdentity identity, MonotonicTime now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto thread = threads_.find(identity);
  if (thread != threads_.end()) {
    thread->second.lastBeat = now;
  }
}

ThreadIdentity ThreadMonitor::FindSilentThread(MonotonicTime now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [identity, info] : threads_) {
    if (now - info.lastBeat > info.interval) {
      return identity;
    }
  }
  return 0;
}

std::string ThreadMonitor::Name(ThreadIdentity identity) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto thread = threads_.find(identity);
  return thread != threads_.end() ? thread->second.name : std::string();
}

std::chrono::nanoseconds ThreadMonitor::Silence(ThreadIdentity identity, MonotonicTime now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto thread = threads_.find(identity);
  return thread != threads_.end() ? now - thread->second.lastBeat : std::chrono::nanoseconds(0);
}

ThreadMonitor& TheThreadMonitor() {
  static ThreadMonitor monitor;
  return monitor;
}

ThreadIdentity CurrentThreadIdentity() {
  return static_cast<ThreadIdentity>(::pthread_self());
}

}  // namespace Orx

void OnThreadHeartbeat() {
  Orx::TheThreadMonitor().Beat(Orx::CurrentThreadIdentity(), std::chrono::steady_clock::now());
}
