#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include <pthread.h>

namespace Orx {

/// A thread's `pthread_self` as a number; 0 for none.
using ThreadIdentity = std::uintptr_t;

using MonotonicTime = std::chrono::steady_clock::time_point;

struct ThreadInfo {
  std::string name;
  std::chrono::nanoseconds interval;  ///< the longest allowed silence
  MonotonicTime lastBeat;
};

/// Keeps the last sign of life of each registered thread. Any thread may call any operation.
class ThreadMonitor {
 public:
  /// An identity that is registered already keeps its record.
  void Register(ThreadIdentity identity, const ThreadInfo& info);

  /// Does nothing when the identity is not registered.
  void Unregister(ThreadIdentity identity);

  /// Records a sign of life; does nothing when the identity is not registered.
  void Beat(ThreadIdentity identity, MonotonicTime now);

  /// The registered thread with the lowest identity whose last beat is longer ago than its
  /// interval; 0 when there is none.
  ThreadIdentity FindSilentThread(MonotonicTime now);

  /// Empty when the identity is not registered.
  std::string Name(ThreadIdentity identity);

  /// The time since the last beat; 0 when the identity is not registered.
  std::chrono::nanoseconds Silence(ThreadIdentity identity, MonotonicTime now);

 private:
  std::mutex mutex_;
  std::map<ThreadIdentity, ThreadInfo> threads_;
};

/// The process's monitor.
ThreadMonitor& TheThreadMonitor();

/// The calling thread's identity.
ThreadIdentity CurrentThreadIdentity();

}  // namespace Orx

/// Records a sign of life of the calling thread in the process's monitor.
void OnThreadHeartbeat();
