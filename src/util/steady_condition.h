#pragma once

#include <chrono>
#include <mutex>

#include <pthread.h>

namespace stdext {

/// A condition variable whose time limit is the steady clock's, with every C library.
/// std::condition_variable waits by the wall clock where the C library has no
/// pthread_cond_clockwait: when that is set back, it waits for longer.
class steady_condition {
 public:
  /// Throws std::system_error when the system refuses it.
  steady_condition();
  ~steady_condition();
  steady_condition(const steady_condition&) = delete;
  steady_condition& operator=(const steady_condition&) = delete;

  void notify_all();

  /// Waits until `condition`, which is asked under the lock, holds or the deadline has come;
  /// returns whether it holds.
  template <typename Condition>
  bool wait_until(std::unique_lock<std::mutex>& lock,
                  std::chrono::steady_clock::time_point deadline, Condition condition) {
    while (!condition()) {
      if (!wait_once(lock, deadline)) {
        return condition();
      }
    }
    return true;
  }

 private:
  // Returns false when the deadline has come; true may be without a cause.
  bool wait_once(std::unique_lock<std::mutex>& lock,
                 std::chrono::steady_clock::time_point deadline);

  pthread_cond_t condition_;
};

}  // namespace stdext
